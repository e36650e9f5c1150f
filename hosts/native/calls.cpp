// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Counts on what it has installed its handlers with: whether calls are restarted, what is held back
// meanwhile, siginfo, the alternate stack.

#include <pthread.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "plugin_of_host.h"

namespace {

volatile std::sig_atomic_t called = 0;
volatile std::sig_atomic_t value = 0;
volatile std::sig_atomic_t nested = 0;
volatile std::sig_atomic_t deepest = 0;
int ends[2];

void onValue(int, siginfo_t* information, void*) {
    called = called + 1;
    value = information->si_value.sival_int;
}

// Holds SIGUSR2 back, whose handler must not come before this one is over.
void onFirst(int) {
    nested = nested + 1;
    std::raise(SIGUSR2);
    deepest = deepest > nested ? deepest : nested;
    nested = nested - 1;
}

void onSecond(int) {
    nested = nested + 1;
    deepest = deepest > nested ? deepest : nested;
    nested = nested - 1;
}

// The second alarm lets the read go on.
void onAlarm(int) {
    called = called + 1;
    if (called == 2) {
        [[maybe_unused]] const ssize_t written = write(ends[1], "x", 1);
    }
}

void install(int signalNumber, void (*handler)(int), int flags, int heldBack = 0) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    if (heldBack != 0) {
        sigaddset(&action.sa_mask, heldBack);
    }
    sigaction(signalNumber, &action, nullptr);
}

void installAll() {
    struct sigaction action = {};
    action.sa_sigaction = &onValue;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGTERM);
    sigaction(SIGTERM, &action, nullptr);
    install(SIGUSR1, &onFirst, SA_RESTART, SIGUSR2);
    install(SIGUSR2, &onSecond, SA_NODEFER);
    install(SIGALRM, &onAlarm, SA_RESTART);
    install(SIGPIPE, SIG_IGN, 0);
}

void readUnderAlarms(const char* what) {
    called = 0;
    char byte = 0;
    const itimerval often = {{0, 20000}, {0, 20000}};
    const itimerval never = {};
    setitimer(ITIMER_REAL, &often, nullptr);
    const ssize_t count = read(ends[0], &byte, 1);
    const int error = errno;
    setitimer(ITIMER_REAL, &never, nullptr);
    std::printf("%s: %s\n", what, count == 1 ? "restarted" : std::strerror(error));
    if (count != 1) {
        [[maybe_unused]] const ssize_t written = write(ends[1], "x", 1);
        [[maybe_unused]] const ssize_t left = read(ends[0], &byte, 1);
    }
}

void work() {
    called = 0;
    sigval sent = {};
    sent.sival_int = 42;
    sigqueue(getpid(), SIGTERM, sent);
    std::printf("SIGTERM: called %d, value %d\n", static_cast<int>(called),
                static_cast<int>(value));

    deepest = 0;
    std::raise(SIGUSR1);
    std::printf("SIGUSR1: %d deep\n", static_cast<int>(deepest));

    readUnderAlarms("with SA_RESTART");
    install(SIGALRM, &onAlarm, 0);
    readUnderAlarms("without SA_RESTART");
    install(SIGALRM, &onAlarm, SA_RESTART);

    if (write(-1, "x", 1) < 0) {
        std::printf("errno stays: %s\n", std::strerror(errno));
    }
    int broken[2];
    if (pipe(broken) == 0) {
        close(broken[0]);
        const ssize_t count = write(broken[1], "x", 1);
        std::printf("a broken pipe: %s\n", count < 0 ? std::strerror(errno) : "written");
        close(broken[1]);
    }
}

}  // namespace

int main() {
    if (pipe(ends) != 0) {
        return 1;
    }
    installAll();
    loadPlugin();
    work();
    std::fflush(stdout);
    unloadPlugin();
    takeSnapshot("later");
    work();
    return 0;
}
