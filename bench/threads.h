// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A work on several threads at once.
#ifndef SORVANE_BENCH_THREADS_H
#define SORVANE_BENCH_THREADS_H

#include <csignal>
#include <thread>
#include <vector>

#include "handlers.h"

namespace Bench {

/// The nanoseconds of all threads together, by which a handler is called so many times. The work is
/// told the number of its thread.
template <typename Work>
double timedOnThreads(int threads, long times, Work work) {
    return timed([&] {
        std::vector<std::thread> all;
        for (int i = 0; i < threads; ++i) {
            all.emplace_back([&work, times, threads, i] {
                for (long k = 0; k < times / threads; ++k) {
                    work(i);
                }
                expect("calls", calls, times / threads);
            });
        }
        for (std::thread& thread : all) {
            thread.join();
        }
    });
}

/// Threads that raise, by turns, one of two signals that have a handler each.
inline int serveRaising(int threads) {
    return serve([threads](long times) {
        return timedOnThreads(threads, times, [](int thread) {
            raiseOnThisThread(thread % 2 == 0 ? SIGUSR1 : SIGUSR2);
        });
    });
}

}  // namespace Bench

#endif
