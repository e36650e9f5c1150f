// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "support/system_actions.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace {

void check(int result, const char* call) {
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), call);
    }
}

void* handlerOf(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) != 0 ? reinterpret_cast<void*>(action.sa_sigaction)
                                               : reinterpret_cast<void*>(action.sa_handler);
}

// Those of the C library's threads, which it lets nobody ask for.
bool hiddenByTheLibraryQ(int signalNumber) {
    return signalNumber == 32 || signalNumber == 33;
}

bool endsTheProcessQ(int signalNumber) {
    return signalNumber == SIGHUP || signalNumber == SIGBUS || signalNumber == SIGSEGV;
}

bool cannotBeCaughtQ(int signalNumber) {
    return signalNumber == SIGKILL || signalNumber == SIGSTOP;
}

}  // namespace

struct sigaction systemAction(int signalNumber) {
    struct sigaction action = {};
    check(sigaction(signalNumber, nullptr, &action), "sigaction to ask");
    return action;
}

void* systemHandler(int signalNumber) {
    return handlerOf(systemAction(signalNumber));
}

bool defaultInSystemQ(int signalNumber) {
    return systemHandler(signalNumber) == reinterpret_cast<void*>(SIG_DFL);
}

bool ignoredInSystemQ(int signalNumber) {
    return systemHandler(signalNumber) == reinterpret_cast<void*>(SIG_IGN);
}

bool takenOverQ(int signalNumber) {
    return systemHandler(signalNumber) == reinterpret_cast<void*>(&actualSignalHandler);
}

std::vector<void*> systemHandlers() {
    std::vector<void*> handlers;
    for (int signalNumber = 1; signalNumber <= lastSystemSignal; ++signalNumber) {
        if (!hiddenByTheLibraryQ(signalNumber)) {
            handlers.push_back(systemHandler(signalNumber));
        }
    }
    return handlers;
}

void hostInstalls(int signalNumber, void (*handler)(int), int flags) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    check(sigaction(signalNumber, &action, nullptr), "sigaction for the host");
}

void hostInstalls(int signalNumber, void (*handler)(int, siginfo*, void*), int flags) {
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = flags | SA_SIGINFO;
    check(sigaction(signalNumber, &action, nullptr), "sigaction for the host");
}

std::vector<int> ordinarySignals() {
    std::vector<int> signals;
    for (int signalNumber = 1; signalNumber <= 60; ++signalNumber) {
        if (!hiddenByTheLibraryQ(signalNumber) && !endsTheProcessQ(signalNumber) &&
            !cannotBeCaughtQ(signalNumber)) {
            signals.push_back(signalNumber);
        }
    }
    return signals;
}

std::string nameForTest(int signalNumber) {
    const char* const name = sigabbrev_np(signalNumber);
    return name != nullptr ? std::string("SIG") + name : "Signal" + std::to_string(signalNumber);
}

sigset_t setOf(std::initializer_list<int> signalNumbers) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signalNumber : signalNumbers) {
        check(sigaddset(&set, signalNumber), "sigaddset");
    }
    return set;
}

BlockedSignals::BlockedSignals(std::initializer_list<int> signalNumbers) {
    const sigset_t set = setOf(signalNumbers);
    const int error = pthread_sigmask(SIG_BLOCK, &set, &m_former);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), "pthread_sigmask");
    }
}

BlockedSignals::~BlockedSignals() {
    pthread_sigmask(SIG_SETMASK, &m_former, nullptr);
}

void BlockedSignals::waitForHandler() const {
    sigsuspend(&m_former);
}
