// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Waiting that comes to an end, whether what is waited for happens or not.
#ifndef SORVANE_TESTS_DISTURBED_WAITING_H
#define SORVANE_TESTS_DISTURBED_WAITING_H

#include <time.h>

#include <chrono>

/// How long a moment of some microseconds is stretched at most. Whoever may be waited for in it can
/// also be one who waits for its end.
constexpr std::chrono::milliseconds stretchedMoment{20};

/// Waits until something holds, but no longer than given. Any context, signal handlers included, if
/// the condition may be looked at there.
/// Result: whether it holds.
template <typename Condition>
bool waitUpTo(std::chrono::milliseconds longest, Condition condition) {
    const auto end = std::chrono::steady_clock::now() + longest;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            return condition();
        }
        const timespec aLittle = {0, 50000};
        nanosleep(&aLittle, nullptr);
    }
    return true;
}

#endif
