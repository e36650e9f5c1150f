// What a handler leaves for its signal, so that the signal that is still to come ends the process,
// or does what else the handler means it to.
//
// A handler that has had enough restores the default action, or installs another one. Then it
// raises its signal again, which stays pending while it is held back; or, after a fault, it
// returns, and the instruction faults once more. The library installs itself again after every
// dispatch; so that the handler is not just called once more, what is to come goes to what it has
// left:
// - A signal that is pending is let in at the end of the dispatch, with that action installed.
// - A fault at the same place, on the same thread, is recognised when it arrives. A handler that
// was
//   left is called for it; for the default action that is installed, and the instruction runs into
//   it.
#ifndef SORVANE_SVLEFTACTION_H
#define SORVANE_SVLEFTACTION_H

#include "../support/svfailure.h"
#include "../support/svsignalhandler.h"

namespace Sorvane {

/// Whether a signal is the fault of the instruction that was interrupted, which runs again. Signal
/// context: any.
bool svfaultQ(int signalNumber, const siginfo& information) noexcept;

/// Signal context of all of it: handler only.
namespace SVLeftAction {

/// At the end of a dispatch that has displaced an action: gives it the signals of this number that
/// are pending, or remembers it for the fault, unless it has a record for the signal. The library
/// is installed before; whether it has to be installed again is the result.
bool leave(int signalNumber, const struct sigaction& action, const siginfo* information,
           void* context) noexcept;

/// Whether the fault that has arrived belongs to an action that was left at its place; then it has
/// got it.
bool takes(int signalNumber, siginfo* information, void* context);

}  // namespace SVLeftAction

}  // namespace Sorvane

#endif
