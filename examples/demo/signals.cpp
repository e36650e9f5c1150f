// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "signals.h"

#include <algorithm>
#include <cstring>

#include "report.h"

namespace demo {

namespace {

std::vector<int> heldSignals() {
    return {SIGHUP, SIGUSR1, SIGUSR2, SIGALRM, SIGTERM, SIGURG, realTimeSignal()};
}

// A fault can't be held back: the process that makes one while it is blocked is killed.
std::vector<int> faultSignals() {
    return {SIGBUS, SIGSEGV};
}

// What the C library keeps for itself can't be asked for, and is left as it is.
struct sigaction actionOf(int signalNumber) {
    struct sigaction action = {};
    if (sigaction(signalNumber, nullptr, &action) != 0) {
        action = {};
    }
    return action;
}

void* functionOf(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) != 0 ? address(action.sa_sigaction)
                                               : address(action.sa_handler);
}

bool sameMask(const sigset_t& one, const sigset_t& other) {
    int signalNumber = 1;
    while (signalNumber <= SIGRTMAX &&
           sigismember(&one, signalNumber) == sigismember(&other, signalNumber)) {
        ++signalNumber;
    }
    return signalNumber > SIGRTMAX;
}

bool sameAction(const struct sigaction& one, const struct sigaction& other) {
    return functionOf(one) == functionOf(other) && one.sa_flags == other.sa_flags &&
           sameMask(one.sa_mask, other.sa_mask);
}

// Gives signals their default action, and returns them as a set.
sigset_t resetSignals(const std::vector<int>& signalNumbers) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signalNumber : signalNumbers) {
        require(std::signal(signalNumber, SIG_DFL) != SIG_ERR,
                nameOf(signalNumber) + " could not be given its default action");
        sigaddset(&set, signalNumber);
    }
    return set;
}

}  // namespace

std::string nameOf(int signalNumber) {
    if (signalNumber >= SIGRTMIN && signalNumber <= SIGRTMAX) {
        return "SIGRTMIN+" + std::to_string(signalNumber - SIGRTMIN);
    }
    const char* const name = sigabbrev_np(signalNumber);
    return name == nullptr ? "signal " + std::to_string(signalNumber) : std::string("SIG") + name;
}

std::string namesOf(const std::vector<int>& signalNumbers) {
    std::string names;
    for (const int signalNumber : signalNumbers) {
        names += (names.empty() ? "" : ", ") + nameOf(signalNumber);
    }
    return names;
}

bool installed(const std::vector<int>& signalNumbers, const void* function) {
    return std::all_of(signalNumbers.begin(), signalNumbers.end(), [function](int signalNumber) {
        return functionOf(actionOf(signalNumber)) == function;
    });
}

Actions::Actions() {
    for (int signalNumber = 1; signalNumber <= SIGRTMAX; ++signalNumber) {
        m_actions.push_back(actionOf(signalNumber));
    }
}

bool Actions::unchanged() const {
    int signalNumber = 1;
    while (signalNumber <= SIGRTMAX && unchangedFor(signalNumber)) {
        ++signalNumber;
    }
    return signalNumber > SIGRTMAX;
}

bool Actions::unchangedFor(int signalNumber) const {
    return sameAction(actionOf(signalNumber),
                      m_actions.at(static_cast<std::size_t>(signalNumber) - 1));
}

bool Actions::unchangedFor(const std::vector<int>& signalNumbers) const {
    return std::all_of(signalNumbers.begin(), signalNumbers.end(),
                       [this](int signalNumber) { return unchangedFor(signalNumber); });
}

void holdSignals() {
    const sigset_t held = resetSignals(heldSignals());
    const sigset_t faults = resetSignals(faultSignals());
    require(sigprocmask(SIG_BLOCK, &held, nullptr) == 0 &&
                sigprocmask(SIG_UNBLOCK, &faults, nullptr) == 0,
            "no signals could be held back");
}

sigset_t openMask() {
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    for (const int signalNumber : heldSignals()) {
        sigdelset(&mask, signalNumber);
    }
    return mask;
}

}  // namespace demo
