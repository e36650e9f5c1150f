// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "stepped/other_thread.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

void sleepWhile(const std::atomic<unsigned int>& word, unsigned int value) noexcept {
    while (word == value) {
        syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, value, nullptr, nullptr, 0);
    }
}

void wake(const std::atomic<unsigned int>& word) noexcept {
    syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

// The thread takes over what is held back from the one that begins it, in which every signal may
// be.
void* OtherThread::run(void* self) {
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    auto& thread = *static_cast<OtherThread*>(self);
    thread.m_number = static_cast<unsigned int>(gettid());
    wake(thread.m_number);
    thread.doTasks();
    return nullptr;
}

void OtherThread::begin() {
    constexpr std::size_t stackSize = 256 * 1024;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, stackSize);
    pthread_t thread;
    if (pthread_create(&thread, &attributes, &run, this) != 0) {
        std::abort();
    }
    sleepWhile(m_number, 0);
    // Not below /proc/self/task, where the system takes milliseconds to forget a thread.
    char path[64];
    std::snprintf(path, sizeof(path), "/proc/%u/syscall", m_number.load());
    m_status = open(path, O_RDONLY | O_CLOEXEC);
    if (m_status < 0) {
        std::abort();
    }
}

void OtherThread::doTasks() noexcept {
    for (;;) {
        sleepWhile(m_told, m_done);
        m_task(m_argument);
        m_done = m_told.load();
        wake(m_done);
    }
}

void OtherThread::tell(Task task, std::size_t argument) noexcept {
    m_task = task;
    m_argument = argument;
    ++m_told;
    wake(m_told);
}

// The system tells the number of the system call that the thread sleeps in, and its arguments.
OtherThread::Sleep OtherThread::sleep() const noexcept {
    char text[128] = {};
    if (pread(m_status, text, sizeof(text) - 1, 0) <= 0) {
        std::abort();
    }
    char* rest = text;
    const long call = std::strtol(rest, &rest, 10);
#ifdef SYS_futex_time64
    const bool futex = call == SYS_futex || call == SYS_futex_time64;
#else
    const bool futex = call == SYS_futex;
#endif
    const auto word = static_cast<std::uintptr_t>(std::strtoull(rest, &rest, 16));
    if (rest == text || !futex || word == reinterpret_cast<std::uintptr_t>(&m_told)) {
        return Sleep::none;
    }
    const auto operation = static_cast<int>(std::strtoul(rest, &rest, 16));
    return (operation & FUTEX_CMD_MASK) == FUTEX_LOCK_PI ? Sleep::atGate : Sleep::elsewhere;
}

// A thread that has just been told something is mostly about to be done with it.
template <typename Enough>
void OtherThread::waitUntil(Enough enoughQ) const noexcept {
    constexpr unsigned int shortly = 20;
    constexpr timespec aWhile = {0, 50'000};
    for (unsigned int round = 0; !doneQ() && !enoughQ(); ++round) {
        if (round < shortly) {
            sched_yield();
        } else {
            syscall(SYS_futex, &m_done, FUTEX_WAIT_PRIVATE, m_told - 1, &aWhile, nullptr, 0);
        }
    }
}

void OtherThread::waitUntilDone() const noexcept {
    waitUntil([] { return false; });
}

void OtherThread::waitUntilDoneOrAtGate() const noexcept {
    waitUntil([this] { return sleep() == Sleep::atGate; });
}

void OtherThread::waitUntilDoneOrAsleep() const noexcept {
    waitUntil([this] { return sleep() != Sleep::none; });
}
