// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The operating system's signal table, as the manager's operations see it inside the gate, where
// nothing is thrown. All that asks the system is in the file of installHandlerInSystem().
#ifndef SORVANE_SVSYSTEMACTIONS_H
#define SORVANE_SVSYSTEMACTIONS_H

#include "../support/svfailure.h"
#include "../support/svsignalhandler.h"

namespace Sorvane {

/// Threads: any. Signal context: any context. May change errno.
namespace SVSystemActions {

/// Asks for the action that is in force for a signal; installs nothing.
/// Errors: that of installHandlerInSystem().
SVFailure ask(int signalNumber, struct sigaction& current) noexcept;

/// Asks for what the host has for a signal that is to be taken over. A dispatch that has installed
/// the library and not yet looked whose the signal is hides that; see svownership.h.
/// Errors: as above. Signal context: inside the gate.
SVFailure askForHosts(int signalNumber, struct sigaction& hosts) noexcept;

/// Installs an action, and tells the one before. Errors: as above.
SVFailure install(int signalNumber, const struct sigaction& wanted,
                  struct sigaction& previous) noexcept;

/// Installs the library's own action as it is now, and tells the one before. Errors: as above.
SVFailure installOwn(int signalNumber, struct sigaction& previous) noexcept;

/// Installs the library's own action, and the signal is the library's from now on; or a record's
/// action, and the signal is the host's. Errors: as above; it is then whose it was, but counts as
/// handed back once more.
/// Signal context: inside the gate.
SVFailure takeOver(int signalNumber, struct sigaction& previous) noexcept;
SVFailure handBack(SVSignalHandler& record) noexcept;

/// What the host means by an action that has the library's handler: what it had when the signal was
/// taken over; or, if it has put the library back by hand, what that stood for when it was found.
/// Signal context: inside the gate.
struct sigaction meantBy(int signalNumber, const struct sigaction& installed) noexcept;

/// Gives the host back what it had, or leaves what it has installed over the library, and the
/// signal is the host's for good. Errors: as above; it is then still the library's.
/// Signal context: inside the gate.
SVFailure leaveToHost(int signalNumber) noexcept;

/// Installs the library's own action again if it is installed as it was before a change.
/// Errors: as above. Signal context: inside the gate.
SVFailure renewOwn(int signalNumber) noexcept;

/// Puts back, for every signal from 1 to 60, its valid pre-existing records, up to the first that
/// fails. Errors: as above. Signal context: inside the gate.
SVFailure handBackPreexisting() noexcept;

}  // namespace SVSystemActions

/// Takes a signal over as handleSignal() does. Errors: those of handleSignal(); nothing has changed
/// then but that a new, empty table may be there. Signal context: inside the gate.
SVFailure svtakeOver(int signalNumber) noexcept;

/// Keeps an action that the host had for a signal as a pre-existing record, unless it is nobody's
/// or its function has a record, and follows it from now on. Parameters: kept, set if it was kept
/// now. Errors: those of handleSignal() for want of memory. Signal context: inside the gate.
SVFailure svkeepOnRecord(int signalNumber, struct sigaction action, bool& kept) noexcept;

/// Does the same with an action that the library has displaced, and installs the library's own as
/// it is by then. Errors: as above, and that of installHandlerInSystem(). Signal context: as above.
SVFailure svkeepDisplaced(int signalNumber, const struct sigaction& action) noexcept;

}  // namespace Sorvane

#endif
