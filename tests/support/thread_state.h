// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What the operating system says about a thread.
#ifndef SORVANE_TESTS_SUPPORT_THREAD_STATE_H
#define SORVANE_TESTS_SUPPORT_THREAD_STATE_H

#include <sys/types.h>

#include <cstdint>

/// A thread of this process, by the operating system's number for it; the calling one by default.
class ThreadState {
public:
    ThreadState();
    explicit ThreadState(pid_t thread) : m_thread(thread) {}

    /// The signals that it holds back: a bit for each, the lowest one for signal 1.
    std::uint64_t heldBack() const;

    /// Whether it sleeps, waiting for something.
    bool asleepQ() const;

    /// The priority that it has just now, inherited or its own: negative for a real-time one.
    long priority() const;

private:
    pid_t m_thread;
};

/// The bit of a signal among those that are held back.
constexpr std::uint64_t heldBackBit(int signalNumber) {
    return std::uint64_t{1} << static_cast<unsigned int>(signalNumber - 1);
}

#endif
