// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A thread that does what it is told, one thing after the other, and is watched meanwhile.
#ifndef SORVANE_TESTS_STEPPED_OTHER_THREAD_H
#define SORVANE_TESTS_STEPPED_OTHER_THREAD_H

#include <atomic>
#include <cstddef>

/// Begun, told and watched by one thread, also from a handler that has interrupted that anywhere
/// but in the C library. Never ends, so it must not be destroyed before the process.
class OtherThread {
public:
    using Task = void (*)(std::size_t argument);

    /// Begins the thread, and returns when it waits for its first task.
    void begin();
    bool begunQ() const noexcept { return m_number != 0; }

    /// The thread's last task must be done.
    void tell(Task task, std::size_t argument) noexcept;
    bool doneQ() const noexcept { return m_done == m_told; }

    /// Return when the task is done, or the thread sleeps: at the library's gate, or waiting for
    /// anybody at all.
    void waitUntilDone() const noexcept;
    void waitUntilDoneOrAtGate() const noexcept;
    void waitUntilDoneOrAsleep() const noexcept;

private:
    enum class Sleep { none, atGate, elsewhere };

    static void* run(void* self);
    void doTasks() noexcept;
    template <typename Enough>
    void waitUntil(Enough enoughQ) const noexcept;
    Sleep sleep() const noexcept;

    std::atomic<unsigned int> m_number{0};
    int m_status = -1;  ///< the file by which the system tells what the thread waits for
    std::atomic<unsigned int> m_told{0};
    std::atomic<unsigned int> m_done{0};
    Task m_task = nullptr;
    std::size_t m_argument = 0;
};

/// Sleeps while a word has a value; wakes who does so.
void sleepWhile(const std::atomic<unsigned int>& word, unsigned int value) noexcept;
void wake(const std::atomic<unsigned int>& word) noexcept;

#endif
