// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Waiting for somebody who is about to be done.
#ifndef SORVANE_SVWAIT_H
#define SORVANE_SVWAIT_H

#include <sys/syscall.h>
#include <unistd.h>

namespace Sorvane {

/// Waits some microseconds. Sleeps rather than yields, because whoever is waited for may have a
/// lower priority; and not by the C library's function, at which the thread could be cancelled.
/// Threads: any. Signal context: any context. May change errno.
inline void waitALittle() noexcept {
    constexpr long nanoseconds = 20000;
    const long aLittle[] = {0, nanoseconds};
    syscall(SYS_nanosleep, aLittle, nullptr);
}

}  // namespace Sorvane

#endif
