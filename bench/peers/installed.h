// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What a peer has installed for a signal, called by hand.
#ifndef SORVANE_BENCH_PEERS_INSTALLED_H
#define SORVANE_BENCH_PEERS_INSTALLED_H

#include <csignal>

#include "../handlers.h"

namespace Bench {

inline int serveDirect(int signalNumber, int records) {
    struct sigaction installed;
    sigaction(signalNumber, nullptr, &installed);
    expect("three arguments", (installed.sa_flags & SA_SIGINFO) != 0 ? 1 : 0, 1);
    siginfo_t information = {};
    return serveCounted(records,
                        [&] { installed.sa_sigaction(signalNumber, &information, nullptr); });
}

/// Looks whether a signal is served by so many handlers.
template <typename Raise>
void expectCalls(long expected, Raise raise) {
    calls = 0;
    raise();
    expect("calls", calls, expected);
    calls = 0;
}

}  // namespace Bench

#endif
