// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Which signal numbers there are.
#ifndef SORVANE_SVSIGNALNUMBER_H
#define SORVANE_SVSIGNALNUMBER_H

namespace Sorvane {

/// The kernel's own highest number; the C library's SIGRTMAX is a call, and no constant.
constexpr int highestSignal = 64;

/// Signal context: any context.
constexpr bool signalExistsQ(int signalNumber) noexcept {
    return signalNumber >= 1 && signalNumber <= highestSignal;
}

}  // namespace Sorvane

#endif
