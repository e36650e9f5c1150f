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

    /// Installs an action, and tells the one before. Result: whether the kernel did.
    /// Threads: any. Signal context: any context. May change errno.
    static bool install(int signalNumber, const SVKernelAction& wanted,
                        SVKernelAction* previous) noexcept {
        return syscall(SYS_rt_sigaction, signalNumber, &wanted, previous, sizeof(wanted.mask)) == 0;
    }

    void (*handler)(int);
    unsigned long flags;
    void (*restorer)();
    unsigned char mask[8];  ///< a bit for each signal
};

}  // namespace Sorvane

#endif
