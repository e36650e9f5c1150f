// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Where lock handles come from.
#ifndef SORVANE_SVTHREADSFACTORY_H
#define SORVANE_SVTHREADSFACTORY_H

#include "svexport.h"
#include "svmutex.h"
#include "svobject.h"

namespace Sorvane {

/// Makes lock handles; has no state, and is made on the stack and dropped right after.
///
/// Signal context: normal context only.
class SORVANE_API SVThreadsFactory : public SVObject {
public:
    SVThreadsFactory() noexcept = default;
    ~SVThreadsFactory() noexcept override;

    /// A new lock without a name, open, for the caller to delete; null when there is no memory for
    /// it. processPrivate is false for one in memory that processes share.
    SVMutexHandle* CreateUnnamedHandle(_svmutex kind, bool processPrivate) noexcept;
};

}  // namespace Sorvane

#endif
