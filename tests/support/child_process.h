// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Child processes: for what ends a process, and for signals that come from another one.
#ifndef SORVANE_TESTS_SUPPORT_CHILD_PROCESS_H
#define SORVANE_TESTS_SUPPORT_CHILD_PROCESS_H

#include <sys/types.h>

#include <functional>
#include <iosfwd>

/// How a child process ended.
class ChildEnd {
public:
    explicit ChildEnd(int waitStatus) : m_waitStatus(waitStatus) {}

    /// The child's body came to its end, and all its expectations were met.
    bool wentOnQ() const;
    bool exitedWithQ(int exitStatus) const;
    bool endedBySignalQ(int signalNumber) const;

    friend std::ostream& operator<<(std::ostream& stream, const ChildEnd& end);

private:
    int m_waitStatus;
};

/// A child process that runs a body. The body may use GoogleTest's expectations; they count by
/// way of ChildEnd::wentOnQ().
class ChildProcess {
public:
    explicit ChildProcess(const std::function<void()>& body);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();

    pid_t pid() const { return m_pid; }
    ChildEnd wait();

private:
    pid_t m_pid;
    bool m_running = true;
};

/// Runs a body in a child process and waits for its end.
ChildEnd inChild(const std::function<void()>& body);

/// The same for a child that a signal ends, whose memory nobody wants to see.
ChildEnd inChildWithoutCore(const std::function<void()>& body);

#endif
