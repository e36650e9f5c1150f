// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svownaction.h"

#include <atomic>
#include <cstdint>
#include <cstring>

#include "../registry/svgate.h"
#include "../registry/svownership.h"
#include "../support/svsignalnumber.h"
#include "svsignalhandlermanager.h"

namespace Sorvane {

namespace {

constexpr int flagsOfChildren = SA_NOCLDSTOP | SA_NOCLDWAIT;
constexpr int flagsIfAnyHas = SA_NODEFER | flagsOfChildren;
constexpr int flagIfAllHave = SA_RESTART;
constexpr int markingFlag = 0x800;  // SA_EXPOSE_TAGBITS

// What is followed of an action.
struct Manner {
    std::uint64_t heldBack = 0;
    int flags = SA_RESTART;
    bool marked = false;

    friend bool operator==(const Manner&, const Manner&) = default;
};

// Without a handler only the flags that tell the system how to treat children mean anything. Who
// ignores the end of children leaves none behind either.
Manner mannerOf(int signalNumber, const struct sigaction& action) noexcept {
    Manner manner;
    if (svnobodysActionQ(action)) {
        const bool ignored = signalNumber == SIGCHLD && action.sa_handler == SIG_IGN;
        manner.flags |= (action.sa_flags & flagsOfChildren) | (ignored ? SA_NOCLDWAIT : 0);
    } else {
        std::memcpy(&manner.heldBack, &action.sa_mask, sizeof(manner.heldBack));
        manner.flags = action.sa_flags & (flagIfAllHave | flagsIfAnyHas);
    }
    return manner;
}

Manner both(const Manner& one, const Manner& other) noexcept {
    return Manner{one.heldBack | other.heldBack, (one.flags & other.flags & flagIfAllHave) |
                                                     ((one.flags | other.flags) & flagsIfAnyHas)};
}

struct sigaction ownActionWith(const Manner& manner) noexcept {
    struct sigaction action = {};
    action.sa_sigaction = &svownHandler;
    std::memcpy(&action.sa_mask, &manner.heldBack, sizeof(manner.heldBack));
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | manner.flags | (manner.marked ? markingFlag : 0);
    return action;
}

Manner ownManner(int signalNumber) noexcept {
    const struct sigaction own = SVOwnAction::of(signalNumber);
    Manner manner;
    std::memcpy(&manner.heldBack, &own.sa_mask, sizeof(manner.heldBack));
    manner.flags = own.sa_flags & (flagIfAllHave | flagsIfAnyHas);
    manner.marked = (own.sa_flags & markingFlag) != 0;
    return manner;
}

// Where no dispatch looks, before it is told.
void store(int signalNumber, const Manner& manner) noexcept {
    SVOwnAction::Place& place = SVOwnAction::placeOf(signalNumber);
    const unsigned int next = place.changes.load() + 1;
    place.actions[next % 2] = ownActionWith(manner);
    place.changes.store(next);
}

// Of the host's handlers that are on record, but for the one that has just been asked for.
Manner mannerOnRecord(const SVSignalHandlerTable* table, const struct sigaction& asked) noexcept {
    Manner all;
    if (table != nullptr) {
        for (auto position = table->begin(); position != table->end(); position++) {
            SVSignalHandler record = position.GetValue();
            const struct sigaction action = record.getOSStruct();
            if (record.preExistsQ() && action.sa_handler != asked.sa_handler) {
                all = both(all, mannerOf(record.getSignalNumber(), action));
            }
        }
    }
    return all;
}

}  // namespace

constinit SVOwnAction::Place SVOwnAction::places[highestSignal + 1];

struct sigaction SVOwnAction::of(int signalNumber) noexcept {
    const Place& place = placeOf(signalNumber);
    return place.changes.load() == 0 ? ownActionWith(Manner()) : *place.current();
}

void SVOwnAction::begin(int signalNumber) noexcept {
    const SVGate gate;
    if (placeOf(signalNumber).changes.load() == 0) {
        store(signalNumber, Manner());
    }
}

void SVOwnAction::follow(int signalNumber, const struct sigaction& hosts,
                         const SVSignalHandlerTable* table) noexcept {
    if (svownActionQ(hosts) || !signalExistsQ(signalNumber)) {
        return;
    }
    const Manner before = ownManner(signalNumber);
    const Manner others =
        SVOwnership::librarysQ(signalNumber) ? before : mannerOnRecord(table, hosts);
    struct sigaction action = hosts;
    const bool ignoredByLibrary =
        SVOwnership::hostsActionIf(signalNumber, hosts).sa_handler != hosts.sa_handler;
    if (ignoredByLibrary) {
        action.sa_handler = SIG_DFL;
    }
    Manner now = both(mannerOf(signalNumber, action), others);
    now.marked = before.marked;
    const bool librarysFound =
        SVOwnership::librarysQ(signalNumber) || SVOwnership::displacedByHostQ(signalNumber);
    if (librarysFound && now == before) {
        now.marked = !before.marked;
    }
    if (now != before) {
        store(signalNumber, now);
    }
}

bool svnobodysActionQ(const struct sigaction& action) noexcept {
    return svownActionQ(action) || action.sa_handler == SIG_DFL || action.sa_handler == SIG_IGN;
}

}  // namespace Sorvane
