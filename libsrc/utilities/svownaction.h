// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The library's own action for a signal: its handler, with what the host's handler is written for.
//
// A host relies on the mask and the flags that it has installed its handler with: that no other
// handler interrupts this one, that a system call fails with EINTR, that it hears of no stopped
// child and leaves no dead one behind. While the library stands in the handler's place, it has
// them, too; of several handlers the union of the masks, SA_RESTART if all of them have it, and the
// other flags if any of them has. Without a handler of the host's, nothing is held back and system
// calls are restarted.
//
// A host that has displaced the library may put back what it has found. That has to be told from
// what is installed after the next take-over (see svleftaction.h), so the two differ: in what is
// followed, or else by a flag that means nothing to these architectures.
//
// They are found out when a signal is taken over, and stay until it is taken over anew. They change
// inside the gate, and whoever changes them installs the library after that. A dispatch reads them
// outside the gate, where it installs the library again, and looks then whether they have changed
// meanwhile; if so, it installs once more. What it reads is changed only by the change after the
// next one.
#ifndef SORVANE_SVOWNACTION_H
#define SORVANE_SVOWNACTION_H

#include <atomic>
#include <csignal>

#include "../registry/svsignaltables.h"
#include "../support/svsignalnumber.h"
#include "svsignalhandlermanager.h"

namespace Sorvane {

/// For all signal numbers; those that do not exist have the action of one that nobody had.
namespace SVOwnAction {

/// The actions of a signal: the present one, and the one before or after it. Signal context of all
/// of it: any.
struct Place {
    std::atomic<unsigned int> changes{0};  ///< 0: it is that of a signal that nobody had
    struct sigaction actions[2] = {};

    const struct sigaction* current() const noexcept { return &actions[changes.load() % 2]; }
};
extern Place places[highestSignal + 1];

inline Place& placeOf(int signalNumber) noexcept {
    return places[signalExistsQ(signalNumber) ? signalNumber : 0];
}

/// How often the action of a signal has changed.
inline unsigned int changes(int signalNumber) noexcept {
    return placeOf(signalNumber).changes.load();
}

struct sigaction of(int signalNumber) noexcept;

/// Makes the action of a signal that nobody had.
void begin(int signalNumber) noexcept;

/// Follows the action that the host has for a signal that is about to be taken over, or has
/// installed over the library; unless it is the library's own.
/// Parameters: table, the signal's, whose pre-existing records count as well if the signal is the
/// host's; may be null. Signal context: inside the gate.
void follow(int signalNumber, const struct sigaction& hosts,
            const SVSignalHandlerTable* table) noexcept;

}  // namespace SVOwnAction

/// actualSignalHandler of this copy of the library: by its plain name it may be another function's,
/// that of a program which contains a static copy, for instance. Signal context: handler only.
void svownHandler(int signalNumber, siginfo* information, void* context);

/// Whether an action's handler is the library's own; whether it is none that the host has to get
/// back: the library's own, the default action, or the ignoring one.
inline bool svownActionQ(const struct sigaction& action) noexcept {
    return action.sa_sigaction == &svownHandler;
}
bool svnobodysActionQ(const struct sigaction& action) noexcept;

}  // namespace Sorvane

#endif
