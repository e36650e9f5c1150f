// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The operating system's signal table past the C library, which adds to what it installs.
#ifndef SORVANE_SVKERNELACTION_H
#define SORVANE_SVKERNELACTION_H

#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstring>

namespace Sorvane {

/// An action as the kernel has it.
struct SVKernelAction {
    /// The action that the C library has told.
    static SVKernelAction of(const struct sigaction& action) noexcept {
        SVKernelAction kernels = {};
        kernels.handler = action.sa_handler;
        kernels.flags = static_cast<unsigned int>(action.sa_flags);
        kernels.restorer = action.sa_restorer;
        std::memcpy(kernels.mask, &action.sa_mask, sizeof(kernels.mask));
        return kernels;
    }

    /// Asks for the action that is installed; installs one, and tells the one before. Result:
    /// whether the kernel did. Threads: any. Signal context: any context. May change errno.
    static bool ask(int signalNumber, SVKernelAction& current) noexcept {
        return syscall(SYS_rt_sigaction, signalNumber, nullptr, &current, sizeof(mask)) == 0;
    }
    static bool install(int signalNumber, const SVKernelAction& wanted,
                        SVKernelAction* previous) noexcept {
        return syscall(SYS_rt_sigaction, signalNumber, &wanted, previous, sizeof(wanted.mask)) == 0;
    }

    /// Whether only what the C library adds differs.
    bool otherMarksQ(const SVKernelAction& other) const noexcept {
        return handler == other.handler && (flags != other.flags || restorer != other.restorer);
    }

    void (*handler)(int);
    unsigned long flags;
    void (*restorer)();
    unsigned char mask[8];  ///< a bit for each signal
};

}  // namespace Sorvane

#endif
