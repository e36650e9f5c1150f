// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svfailure.h"

namespace Sorvane {

void SVFailure::throwIt() const {
    throw exception();
}

}  // namespace Sorvane
