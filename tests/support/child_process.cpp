// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "support/child_process.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ostream>
#include <system_error>

namespace {

// Neither 0 nor 1, which other ways of ending produce too.
constexpr int statusWentOn = 42;
constexpr int statusExpectationFailed = 43;

[[noreturn]] void runBody(const std::function<void()>& body) {
    body();
    const bool failed = ::testing::Test::HasFailure();
    std::fflush(nullptr);
    _exit(failed ? statusExpectationFailed : statusWentOn);
}

}  // namespace

bool ChildEnd::wentOnQ() const {
    return exitedWithQ(statusWentOn);
}

bool ChildEnd::exitedWithQ(int exitStatus) const {
    return WIFEXITED(m_waitStatus) && WEXITSTATUS(m_waitStatus) == exitStatus;
}

bool ChildEnd::endedBySignalQ(int signalNumber) const {
    return WIFSIGNALED(m_waitStatus) && WTERMSIG(m_waitStatus) == signalNumber;
}

std::ostream& operator<<(std::ostream& stream, const ChildEnd& end) {
    if (end.wentOnQ()) {
        return stream << "the child came to the end of its body";
    }
    if (end.exitedWithQ(statusExpectationFailed)) {
        return stream << "an expectation failed in the child";
    }
    if (WIFSIGNALED(end.m_waitStatus)) {
        return stream << "signal " << WTERMSIG(end.m_waitStatus) << " ended the child";
    }
    return stream << "the child exited with status " << WEXITSTATUS(end.m_waitStatus);
}

ChildProcess::ChildProcess(const std::function<void()>& body) {
    // Otherwise the child would write what the parent has not written yet once more.
    std::fflush(nullptr);
    m_pid = fork();
    if (m_pid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (m_pid == 0) {
        runBody(body);
    }
}

ChildProcess::~ChildProcess() {
    if (m_running) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
}

ChildEnd ChildProcess::wait() {
    int status = 0;
    while (waitpid(m_pid, &status, 0) < 0) {
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "waitpid");
        }
    }
    m_running = false;
    return ChildEnd(status);
}

ChildEnd inChild(const std::function<void()>& body) {
    return ChildProcess(body).wait();
}

ChildEnd inChildWithoutCore(const std::function<void()>& body) {
    return inChild([&body] {
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_CORE, &none);
        body();
    });
}
