// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What the kernel itself has installed for each signal, byte for byte.
#ifndef SORVANE_TESTS_SUPPORT_KERNEL_ACTIONS_H
#define SORVANE_TESTS_SUPPORT_KERNEL_ACTIONS_H

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

/// An action as the kernel tells it.
struct KernelAction {
    std::uintptr_t handler;
    unsigned long flags;
    std::uintptr_t restorer;
    unsigned char mask[8];

    friend bool operator==(const KernelAction&, const KernelAction&) = default;
};

using KernelActions = std::array<KernelAction, 64>;

inline KernelActions kernelActions() {
    KernelActions actions = {};
    int signalNumber = 0;
    for (KernelAction& action : actions) {
        syscall(SYS_rt_sigaction, ++signalNumber, nullptr, &action, sizeof(action.mask));
    }
    return actions;
}

/// The signals for which something else is installed than before. With its first thread the C
/// library installs a handler of its own, which then counts, too.
inline std::vector<int> changedSince(const KernelActions& before) {
    const KernelActions now = kernelActions();
    std::vector<int> signals;
    for (std::size_t i = 0; i < now.size(); ++i) {
        if (now[i] != before[i]) {
            signals.push_back(static_cast<int>(i) + 1);
        }
    }
    return signals;
}

#endif
