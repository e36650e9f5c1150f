// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What the operating system has installed for signals, and what the host program installs there.
#ifndef SORVANE_TESTS_SUPPORT_SYSTEM_ACTIONS_H
#define SORVANE_TESTS_SUPPORT_SYSTEM_ACTIONS_H

#include <sorvane/svsignalhandlermanager.h>

#include <initializer_list>
#include <string>
#include <vector>

/// The highest signal number of the operating system.
constexpr int lastSystemSignal = 64;

struct sigaction systemAction(int signalNumber);

/// The address of the installed handler: null for SIG_DFL, 1 for SIG_IGN.
void* systemHandler(int signalNumber);
bool defaultInSystemQ(int signalNumber);
bool ignoredInSystemQ(int signalNumber);

/// Whether actualSignalHandler is installed for the signal.
bool takenOverQ(int signalNumber);

/// The installed handlers of all signals, to be compared with those of another time.
std::vector<void*> systemHandlers();

/// The host program installs an action of its own.
void hostInstalls(int signalNumber, void (*handler)(int), int flags = 0);
void hostInstalls(int signalNumber, void (*handler)(int, siginfo*, void*), int flags = 0);

/// Every signal that is handled at first and does not end the process when it is handled.
std::vector<int> ordinarySignals();

/// A name for the signal that may stand in a test's name.
std::string nameForTest(int signalNumber);

sigset_t setOf(std::initializer_list<int> signalNumbers);

/// Blocks signals for the calling thread, for the length of a scope.
class BlockedSignals {
public:
    BlockedSignals(std::initializer_list<int> signalNumbers);
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;
    ~BlockedSignals();

    /// Waits for handlers to run, with the signal mask as it was before the scope.
    void waitForHandler() const;

private:
    sigset_t m_former;
};

#endif
