// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A thread that has to wait for the library's gate, and is seen to do so.
#ifndef SORVANE_TESTS_SUPPORT_GATE_WAITER_H
#define SORVANE_TESTS_SUPPORT_GATE_WAITER_H

#include <../registry/svgate.h>
#include <linux/futex.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>
#include <utility>

#include "abi/private_members.h"
#include "support/joining_thread.h"
#include "support/thread_state.h"

// A static member is no pointer to a member, but can be handed on in the same way.
REVEAL_MEMBER(GateWord, Sorvane::SVGate, word);

/// What the kernel knows of the gate: 0 when it is open, or who has closed it.
inline unsigned int gateWord() {
    return memberOf(GateWord())->load();
}

/// Does something on a thread of its own; its destructor waits for the end of that.
class GateWaiter {
public:
    explicit GateWaiter(std::function<void()> body)
        : m_body(std::move(body)), m_thread([this] {
              m_number = gettid();
              m_body();
              m_done = true;
          }) {}

    /// Waits until the thread sleeps at the gate, or has come to its end without that.
    void waitUntilAsleep() const {
        while (!m_done &&
               ((gateWord() & FUTEX_WAITERS) == 0 || m_number == 0 || !state().asleepQ())) {
            std::this_thread::yield();
        }
    }

    ThreadState state() const { return ThreadState(m_number); }
    bool doneQ() const { return m_done; }
    void join() { m_thread.join(); }

private:
    const std::function<void()> m_body;
    std::atomic<pid_t> m_number{0};
    std::atomic<bool> m_done{false};
    JoiningThread m_thread;
};

#endif
