// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// How handler records come into the tables and out again.

#include "../registry/svownership.h"
#include "svownaction.h"
#include "svsharedstate.h"
#include "svsignalhandlermanager.h"
#include "svsystemactions.h"

namespace Sorvane {

namespace {

constexpr SVFailure noTable = svnoTableFailure(144);

// Installs the library for a record. If that takes the signal over, the library has the manner of
// what the host had, although that is not kept.
SVFailure installFor(int signalNumber) noexcept {
    struct sigaction hosts;
    SVFailure failure;
    if (!SVOwnership::librarysQ(signalNumber)) {
        failure = SVSystemActions::askForHosts(signalNumber, hosts).then([&] {
            SVOwnAction::follow(signalNumber, hosts, svregistry.tableOf(signalNumber));
        });
    }
    return failure.then([&] { return SVSystemActions::takeOver(signalNumber, hosts); });
}

// While signals are being handled, the action that the operating system had for the signal is not
// kept: only taking a signal over with handleSignal() makes a pre-existing record of it.
SVFailure store(const SVSignalHandler& record) noexcept {
    const int signalNumber = record.getSignalNumber();
    if (!SVSignalHandlerManager::signalDispositionSet.getSignalDisposition(signalNumber)) {
        return SVFailure();
    }
    svonlyForGuests.remove(signalNumber);
    return svregistry.addTable(signalNumber, noTable)
        .then([&] { return svregistry.store(record, noTable); })
        .then([&] {
            return svshared(SVSignalHandlerManager::currentlyHandlingSignals).load()
                       ? installFor(signalNumber)
                       : SVFailure();
        });
}

// The flag that counts is the given record's, not the stored one's: whoever clears says whether
// the signal goes back to that handler.
SVFailure clear(SVSignalHandler& record) noexcept {
    const int signalNumber = record.getSignalNumber();
    if (!SVSignalHandlerManager::signalDispositionSet.getSignalDisposition(signalNumber)) {
        return SVFailure();
    }
    void* const function = record.getHandlerFunction();
    const SVSignalHandlerTable* const table = svregistry.tableOf(signalNumber);
    if (table == nullptr || !table->has_key(function)) {
        return SVFailure();
    }
    const bool goesBack = record.preExistsQ() && table->used == 1;
    // The memory for the removal is had first: what has been handed back can't be had again.
    return svregistry.detach(signalNumber, noTable)
        .then([&] { return goesBack ? SVSystemActions::handBack(record) : SVFailure(); })
        .then([&] { svregistry.remove(signalNumber, function); });
}

}  // namespace

void SVSignalHandlerManager::setHandler(SVSignalHandler& handler) {
    const SVSignalHandler record(handler);
    svchange(lockHandle(), [&] { return store(record); });
}

void SVSignalHandlerManager::setHandlerFromFunction(int signalNumber,
                                                    void (*handler)(int, siginfo*, void*)) {
    SVSignalHandler record(signalNumber, handler, false, false, true);
    setHandler(record);
}

void SVSignalHandlerManager::setHandlerFromFunction(int signalNumber, void (*handler)(int)) {
    SVSignalHandler record(signalNumber, handler, false, false, true);
    setHandler(record);
}

void SVSignalHandlerManager::setHandlerFromOSStruct(int signalNumber, struct sigaction& osRecord) {
    SVSignalHandler record(signalNumber, osRecord, false, false, true);
    setHandler(record);
}

void SVSignalHandlerManager::setHandlers(SVSignalHandlerList& handlers) {
    for (SVSignalHandler& handler : handlers) {
        setHandler(handler);
    }
}

void SVSignalHandlerManager::clearHandler(SVSignalHandler& handler) {
    SVSignalHandler record(handler);
    svchange(lockHandle(), [&] { return clear(record); });
}

void SVSignalHandlerManager::clearHandlerWithFunction(int signalNumber,
                                                      void (*handler)(int, siginfo*, void*)) {
    SVSignalHandler record(signalNumber, handler, false, false, true);
    clearHandler(record);
}

void SVSignalHandlerManager::clearHandlerWithFunction(int signalNumber, void (*handler)(int)) {
    SVSignalHandler record(signalNumber, handler, false, false, true);
    clearHandler(record);
}

void SVSignalHandlerManager::clearHandlers(SVSignalHandlerList& handlers) {
    for (SVSignalHandler& handler : handlers) {
        clearHandler(handler);
    }
}

}  // namespace Sorvane
