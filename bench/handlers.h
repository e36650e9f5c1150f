// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Handlers that count, as many different ones as a work needs, and what calls them.
#ifndef SORVANE_BENCH_HANDLERS_H
#define SORVANE_BENCH_HANDLERS_H

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <utility>

#include "block.h"

namespace Bench {

constexpr int most = 260;

// One place for each thread, so that they do not take it from each other.
inline thread_local volatile long calls = 0;

template <int number>
void handler(int) {
    calls = calls + 1;
}

using Handler = void (*)(int);

template <int... numbers>
constexpr std::array<Handler, sizeof...(numbers)> makeHandlers(
    std::integer_sequence<int, numbers...>) {
    return {&handler<numbers>...};
}
inline constexpr auto handlers = makeHandlers(std::make_integer_sequence<int, most>());

/// The signals below 61 that may be handled.
inline std::array<int, 56> allSignals() {
    std::array<int, 56> signals = {};
    std::size_t count = 0;
    for (int signalNumber = 1; signalNumber <= 60; ++signalNumber) {
        if (signalNumber != SIGKILL && signalNumber != SIGSTOP && signalNumber != 32 &&
            signalNumber != 33) {
            signals[count++] = signalNumber;
        }
    }
    return signals;
}

inline void raiseOnThisThread(int signalNumber) {
    syscall(SYS_tgkill, getpid(), static_cast<pid_t>(syscall(SYS_gettid)), signalNumber);
}

/// Serves a work by which so many handlers are called each time.
template <typename Work>
int serveCounted(long callsEach, Work work) {
    return serveWork(work, [callsEach](long times) {
        expect("calls", calls, times * callsEach);
        calls = 0;
    });
}

}  // namespace Bench

#endif
