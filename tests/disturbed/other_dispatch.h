// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A dispatch on another thread that stands still in the host's handler, and where its end installs
// something.
#ifndef SORVANE_TESTS_DISTURBED_OTHER_DISPATCH_H
#define SORVANE_TESTS_DISTURBED_OTHER_DISPATCH_H

#include <sorvane/svsignalhandlermanager.h>

#include <atomic>
#include <functional>

#include "disturbed/stretched_sigaction.h"
#include "support/joining_thread.h"

/// Waits for a moment that another thread brings about; for a long time at most.
void await(const std::atomic<bool>& moment);

class OtherDispatch {
public:
    /// The host's handler, which counts its calls on all threads but for the one that stands still.
    static void hostsHandler(int signalNumber, siginfo* information, void* context);
    static unsigned int received();

    /// Sends the signal, which the library has and the host had, to a thread of its own. There is
    /// one at a time. Parameters: when, act, as those of StretchedSigaction for each installation
    /// of that thread; act is given how many there have been.
    OtherDispatch(int signalNumber, StretchedSigaction::When when,
                  std::function<void(unsigned int)> act);
    OtherDispatch(const OtherDispatch&) = delete;
    OtherDispatch& operator=(const OtherDispatch&) = delete;
    ~OtherDispatch() { join(); }

    /// Lets it leave the host's handler.
    static void letGo();
    void join();
    bool doneQ() const { return m_done; }

private:
    std::atomic<bool> m_done{false};
    JoiningThread m_thread;
};

/// One that stands still once more, at its first installation: just before it, or just after it.
class OtherDispatchAtItsInstallation {
public:
    OtherDispatchAtItsInstallation(int signalNumber, StretchedSigaction::When when);

    /// Lets it leave the host's handler, and waits until it stands there.
    void letCome() const;

    /// Lets it go on from there.
    void letGoOn() { m_over = true; }

    /// The same, and waits for its end.
    void join();

private:
    std::atomic<bool> m_there{false};
    std::atomic<bool> m_over{false};
    OtherDispatch m_dispatch;
};

#endif
