// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svthreadsfactory.h"

namespace Sorvane {

SVThreadsFactory::~SVThreadsFactory() noexcept = default;

SVMutexHandle* SVThreadsFactory::CreateUnnamedHandle(_svmutex kind, bool processPrivate) noexcept {
    return new SVMutexHandle(kind, processPrivate);
}

}  // namespace Sorvane
