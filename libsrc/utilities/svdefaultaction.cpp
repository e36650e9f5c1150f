// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svdefaultaction.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>

#include "svkernelaction.h"

namespace Sorvane {

// The signal is raised before it is let in, so that it comes to this thread as soon as it may.
void endByDefaultAction(int signalNumber) noexcept {
    const int saved = errno;
    if (SVKernelAction::install(signalNumber, SVKernelAction{}, nullptr)) {
        syscall(SYS_tgkill, getpid(), syscall(SYS_gettid), signalNumber);
        const std::uint64_t signals = std::uint64_t{1}
                                      << static_cast<unsigned int>(signalNumber - 1);
        syscall(SYS_rt_sigprocmask, SIG_UNBLOCK, &signals, nullptr, sizeof(signals));
    }
    errno = saved;
}

}  // namespace Sorvane
