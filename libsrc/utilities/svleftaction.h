// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What a handler leaves for its signal, so that the signal that is still to come ends the process,
// or does what else the handler means it to.
//
// A handler that has had enough restores the default action, or installs another one. Then it
// raises its signal again, which stays pending while it is held back; or, after a fault, it
// returns, and the instruction faults once more. The library installs itself again after every
// dispatch; so that the handler is not just called once more, what is to come goes to what it has
// left:
// - A signal that is pending is let in at the end of the dispatch, with that action installed, if
//   the interrupted code did not hold it back. A handler that is left for SIGSEGV, SIGBUS or SIGHUP
//   is called by the library instead, for the next arrival: it may give up as well.
// - The next signal of this number that arrives on this thread is called for by what was left, and
//   not by the records, if it is the same fault at the same place and the signal has not changed
//   hands. For the default action that is installed, and the instruction runs into it.
// A handler that has a record for the signal is none that was left: many install themselves again
// whenever they are called. One that the system was to replace by the default action when it called
// it (SA_RESETHAND) has left that.
//
// A handler that puts back what it has displaced may put the library back: it has found that there,
// and the signal has been taken over again since. What it leaves then is what the library stood for
// when it was found; the two differ in their mask or flags (see svownaction.h).
// Where the signal is not held back in its own handler, it comes again before the dispatch has come
// to its end, and what is installed is looked at when it comes.
//
// A host's handler for SIGSEGV, SIGBUS or SIGHUP is called alone. When it leaves the default action
// to what is to come, the process is about to end, and nobody else has heard of it. So those who
// subscribe to the signal are called just before, once in the life of a process. Another thread
// that comes here meanwhile waits until they have returned.
#ifndef SORVANE_SVLEFTACTION_H
#define SORVANE_SVLEFTACTION_H

#include <csignal>

#include "../support/svfailure.h"
#include "../support/svsignalhandler.h"

namespace Sorvane {

/// Whether a signal ends the process unless the host had a handler for it. SIGILL, SIGFPE and
/// SIGABRT do not: they go the ordinary way. Signal context: any.
constexpr bool svfatalQ(int signalNumber) noexcept {
    return signalNumber == SIGSEGV || signalNumber == SIGBUS || signalNumber == SIGHUP;
}

/// Whether a signal is the fault of the instruction that was interrupted, which runs again. Signal
/// context: any.
bool svfaultQ(int signalNumber, const siginfo& information) noexcept;

/// Signal context of all of it: handler only.
namespace SVLeftAction {

/// At the end of a dispatch that has displaced an action: gives it the signals of this number that
/// are pending, or remembers it for the fault. The library is installed before; whether it has to
/// be installed again is the result. Parameters: putBack, whether the handler has put the library
/// back, and means the action by that.
bool leave(int signalNumber, const struct sigaction& action, bool putBack, siginfo* information,
           void* context);

/// Whether something was left for a signal of this number on this thread.
extern constinit thread_local int signalOfLast __attribute__((tls_model("initial-exec")));
inline bool anyQ(int signalNumber) noexcept {
    return signalOfLast == signalNumber;
}

/// Whether the library is installed by the hand of a host that has displaced it before. Asks the
/// system.
bool putBackQ(int signalNumber) noexcept;

/// What the library stood for when it was displaced.
struct sigaction meantByHand(int signalNumber) noexcept;

/// Whom the arrived signal belongs to. `everybody`: nothing was left for it. `leftHandler`: a
/// handler was, which is told. `system`: the action that was left is installed, and gets it.
/// Parameters: putBack, whether a handler that is being called for the signal has put the library
/// back.
enum class Taker { everybody, leftHandler, system };
Taker take(int signalNumber, siginfo* information, void* context, bool putBack,
           struct sigaction& left);

}  // namespace SVLeftAction

}  // namespace Sorvane

#endif
