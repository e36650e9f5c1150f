// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A thread that is waited for: std::jthread, which not every standard library has.
#ifndef SORVANE_TESTS_SUPPORT_JOINING_THREAD_H
#define SORVANE_TESTS_SUPPORT_JOINING_THREAD_H

#include <thread>
#include <utility>

/// Runs a body on a thread of its own; its destructor waits for the end of that.
class JoiningThread {
public:
    template <typename Body>
    explicit JoiningThread(Body body) : m_thread(std::move(body)) {}
    JoiningThread(JoiningThread&&) noexcept = default;
    JoiningThread& operator=(JoiningThread&&) = delete;
    ~JoiningThread() { join(); }

    std::thread::id get_id() const { return m_thread.get_id(); }
    void join() {
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

private:
    std::thread m_thread;
};

#endif
