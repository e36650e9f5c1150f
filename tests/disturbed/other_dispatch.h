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

private:
    JoiningThread m_thread;
};

#endif
