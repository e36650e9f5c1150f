// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A program that does a work in blocks, as ./dev bench tells it to: reads how often from its input,
// and answers with the nanoseconds that each time took. Between two blocks it checks what the last
// one has done; what is wrong ends it.
#ifndef SORVANE_BENCH_BLOCK_H
#define SORVANE_BENCH_BLOCK_H

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace Bench {

[[noreturn]] inline void fail(const char* what, long found, long expected) {
    std::fprintf(stderr, "%s: %ld instead of %ld\n", what, found, expected);
    std::exit(1);
}

inline void expect(const char* what, long found, long expected) {
    if (found != expected) {
        fail(what, found, expected);
    }
}

inline double now() {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

/// The nanoseconds of a work that is done once.
template <typename Work>
double timed(Work work) {
    const double begin = now();
    work();
    return now() - begin;
}

/// Parameters: block, does the work so many times, and tells the nanoseconds of them all.
template <typename Block>
int serve(Block block) {
    long times = 0;
    while (std::scanf("%ld", &times) == 1) {
        std::printf("%.3f\n", block(times) / static_cast<double>(times));
        std::fflush(stdout);
    }
    return 0;
}

/// The same where nothing need be left out of the time.
template <typename Work, typename Check>
int serveWork(Work work, Check check) {
    return serve([&](long times) {
        const double taken = timed([&] {
            for (long i = 0; i < times; ++i) {
                work();
            }
        });
        check(times);
        return taken;
    });
}

}  // namespace Bench

#endif
