// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "process.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>

#include "report.h"
#include "signals.h"

namespace demo {

namespace {

constexpr long nanosecondsInSecond = 1000000000;
constexpr int millisecondsInSecond = 1000;
constexpr long nanosecondsInMillisecond = 1000000;

sigset_t endOfProcess() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    return set;
}

Ending endingOf(int waitStatus) {
    if (WIFSIGNALED(waitStatus)) {
        return {Ending::killedBySignal, WTERMSIG(waitStatus)};
    }
    return {Ending::exited, WEXITSTATUS(waitStatus)};
}

}  // namespace

Deadline::Deadline(int seconds) : m_moment() {
    clock_gettime(CLOCK_MONOTONIC, &m_moment);
    m_moment.tv_sec += seconds;
}

timespec Deadline::remaining() const {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    timespec left = {m_moment.tv_sec - now.tv_sec, m_moment.tv_nsec - now.tv_nsec};
    if (left.tv_nsec < 0) {
        --left.tv_sec;
        left.tv_nsec += nanosecondsInSecond;
    }
    return left.tv_sec < 0 ? timespec{} : left;
}

int Deadline::remainingMilliseconds() const {
    const timespec left = remaining();
    return static_cast<int>(left.tv_sec) * millisecondsInSecond +
           static_cast<int>(left.tv_nsec / nanosecondsInMillisecond);
}

bool Deadline::over() const {
    const timespec left = remaining();
    return left.tv_sec == 0 && left.tv_nsec == 0;
}

std::string Ending::text() const {
    switch (kind) {
        case exited:
            return "ended with status " + std::to_string(number);
        case killedBySignal:
            return "was killed by " + nameOf(number);
        case notInTime:
            return "did not end in time";
        default:
            return "could not be started";
    }
}

void keepEndsOfProcesses() {
    // An inherited SIG_IGN would throw the ends away before anyone has asked for them.
    const sigset_t set = endOfProcess();
    require(std::signal(SIGCHLD, SIG_DFL) != SIG_ERR && sigprocmask(SIG_BLOCK, &set, nullptr) == 0,
            "the ends of processes could not be waited for");
}

pid_t startProcess(const std::function<int()>& body) {
    // What is buffered would be written twice.
    std::fflush(nullptr);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const bool orphanAlready = getppid() != parent;
        _exit(orphanAlready ? 1 : body());
    }
    return child;
}

// SIGCHLD is blocked, so an end between the look and the wait is not missed.
Ending awaitEnd(pid_t process, int seconds) {
    if (process < 0) {
        return {Ending::neverStarted, 0};
    }
    const Deadline deadline(seconds);
    const sigset_t set = endOfProcess();
    int status = 0;
    while (waitpid(process, &status, WNOHANG) == 0) {
        const timespec left = deadline.remaining();
        if (sigtimedwait(&set, nullptr, &left) < 0 && errno == EAGAIN) {
            kill(process, SIGKILL);
            waitpid(process, &status, 0);
            return {Ending::notInTime, 0};
        }
    }
    return endingOf(status);
}

}  // namespace demo
