// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The functions under which subscriptions are on record, and who is inside them.
//
// The problem. Tables are keyed by function, and one handler may be subscribed several times, for
// several users of it. A dispatch that has begun with tables that are not published any more still
// calls what stands there. And whoever ends a subscription frees what its handler uses, so the
// handler must not run any more by then, on any thread.
//
// The mechanism. There is a fixed number of entry functions. A subscription has one of them to
// itself, and that is on record. Each has a slot, with the handler that it calls; without one, or
// for another signal than the slot's, it calls nothing. A thread that is inside an entry has that
// in a cell, by its own address and the entry's number.
// - An entry first takes a cell, then reads the handler. The end of a subscription first clears the
//   handler, then looks through the cells. The four are sequentially consistent: either the entry
//   finds no handler, or the end finds the cell, and waits until it is free. No weaker order says
//   that.
// - A handler may end its own subscription, whose call can't be waited for. Its thread is in the
//   cell, and the cell is taken and given back in one store each, so that whatever interrupts an
//   entry finds its own thread inside or not.
// - The cell is the outermost call's. A handler that interrupts itself finds it taken by its own
//   thread, and leaves it alone. So a handler that leaves by siglongjmp leaves one cell behind, and
//   no more with each time; to its own thread that looks like a call that is under way.
// - Where no cell is left, a count takes its place. Nobody can tell then whose calls these are, and
//   what ends inside a handler does not wait for them.
// - Who waits says so first, and then looks through the cells; who gives a cell back does that
//   first, and then looks whether somebody waits. So nobody sleeps through the last call's end.
//
// A slot is filled and cleared inside the gate. It is not used again before all calls of its entry
// are done, and then as late as possible: a dispatch that has begun with an old table should not
// find another subscription behind its entry.
#ifndef SORVANE_SVSUBSCRIPTIONENTRIES_H
#define SORVANE_SVSUBSCRIPTIONENTRIES_H

#include "../support/svsignalhandler.h"
#include "svsubscriber.h"

namespace Sorvane {

namespace SVSubscriptionEntries {

constexpr unsigned int count = 256;
constexpr unsigned int none = count;

/// How often this thread has called an entry that calls nothing. Signal context: any.
extern constinit thread_local unsigned int missed __attribute__((tls_model("initial-exec")));

// --- Signal context: inside the gate.

/// Makes an entry call a handler for a signal. Result: its number, or none if all are in use.
unsigned int begin(int signalNumber, const SVSubscriber& subscriber) noexcept;

/// The entry calls nothing from now on.
void end(unsigned int entry) noexcept;

/// The function of an entry.
SVSignalHandler::InformationFunction functionOf(unsigned int entry) noexcept;

/// Whether a record is that of an entry that calls nothing for the record's signal.
bool endedQ(const SVSignalHandler& record) noexcept;

/// Whether some entry calls this handler, with this user's pointer, for a signal.
bool callsQ(int signalNumber, const SVSubscriber& subscriber) noexcept;

// --- Threads: any. Signal context: any context. May change errno.

/// Sleeps until no other thread is inside an entry, which has come to its end.
void waitForOthers(unsigned int entry) noexcept;

/// Gives an entry back that is on record nowhere any more.
void giveBack(unsigned int entry) noexcept;

/// Calls all handlers that entries have for a signal. Errors: what they throw.
void callAll(int signalNumber, siginfo* information, void* context);

/// For the only thread of a child after fork(): the calls of others are not in it.
void goOnInChild() noexcept;

}  // namespace SVSubscriptionEntries

}  // namespace Sorvane

#endif
