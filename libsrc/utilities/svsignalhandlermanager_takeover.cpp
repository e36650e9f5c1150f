// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Taking signals over and handing them back, and the dispositions that say which ones.

#include <optional>

#include "../registry/svownership.h"
#include "svownaction.h"
#include "svsharedstate.h"
#include "svsignalhandlermanager.h"
#include "svsystemactions.h"

namespace Sorvane {

namespace {

constexpr SVFailure noTableForHost = svnoTableFailure(302);

bool hasRecordsQ(const SVSignalHandlerTable* table) noexcept {
    return table != nullptr && table->used != 0;
}

bool allowedQ(int signalNumber) noexcept {
    return SVSignalHandlerManager::signalDispositionSet.getSignalDisposition(signalNumber);
}

// The host's handler is put on record before the swap, so that it is on record, for whoever looks,
// as soon as the library is installed. If the host replaces it just between, its new one counts.
SVFailure swap(int signalNumber) noexcept {
    struct sigaction host;
    struct sigaction displaced;
    bool kept = false;
    const auto keep = [&] { return svkeepOnRecord(signalNumber, host, kept); };
    return SVSystemActions::askForHosts(signalNumber, host).then(keep).then([&] {
        const SVFailure failure = SVSystemActions::takeOver(signalNumber, displaced);
        const bool replaced =
            !failure && !svownActionQ(displaced) && !svsameActionQ(displaced, host);
        if (kept && (failure || replaced)) {
            svregistry.remove(signalNumber, reinterpret_cast<void*>(host.sa_sigaction));
        }
        return replaced ? svkeepDisplaced(signalNumber, displaced) : failure;
    });
}

// What the host has on record then stays there when the subscriptions end.
SVFailure takeOverForManagers(int signalNumber) noexcept {
    svkeptByGuests.remove(signalNumber);
    return svtakeOver(signalNumber);
}

// Another thread may have registered for a signal, or handed one back, after its turn.
SVFailure takeOverRest() noexcept {
    SVFailure failure;
    svforEachSignal([&](int signalNumber) {
        if (!failure && !SVOwnership::librarysQ(signalNumber) &&
            hasRecordsQ(svregistry.tableOf(signalNumber))) {
            failure = takeOverForManagers(signalNumber);
        }
    });
    return failure;
}

// The first pre-existing record goes back, valid or not: the user hands this one signal back
// deliberately, and an invalid record is still what the host had. Without one the signal is left
// ignored and not at its default action, which would end the process for most signals that are
// still on their way.
SVFailure handBack(int signalNumber, SVSignalHandler wanted) noexcept {
    const SVSignalHandlerTable* const table = svregistry.tableOf(signalNumber);
    if (!allowedQ(signalNumber) || table == nullptr) {
        return SVFailure();
    }
    const auto preExistsQ = [](const SVSignalHandler& record) { return record.preExistsQ(); };
    if (const SVSignalHandler* const hosts = svfirstRecord(table, preExistsQ)) {
        wanted = *hosts;
    }
    return SVSystemActions::handBack(wanted);
}

}  // namespace

SVFailure svtakeOver(int signalNumber) noexcept {
    return svregistry.addTable(signalNumber, noTableForHost).then([&] {
        return allowedQ(signalNumber) ? swap(signalNumber) : SVFailure();
    });
}

SVFailure svkeepOnRecord(int signalNumber, struct sigaction action, bool& kept) noexcept {
    SVOwnAction::follow(signalNumber, action, svregistry.tableOf(signalNumber));
    if (svnobodysActionQ(action)) {
        return SVFailure();
    }
    return svregistry.addTable(signalNumber, noTableForHost).then([&] {
        const SVSignalHandler record(signalNumber, action, true, true, true);
        kept = !svregistry.tableOf(signalNumber)->has_key(record.getHandlerFunction());
        return kept ? svregistry.store(record, noTableForHost) : SVFailure();
    });
}

SVFailure svkeepDisplaced(int signalNumber, const struct sigaction& action) noexcept {
    bool kept = false;
    return svkeepOnRecord(signalNumber, action, kept).then([signalNumber] {
        return SVSystemActions::renewOwn(signalNumber);
    });
}

void SVSignalHandlerManager::handleSignal(int signalNumber) {
    svchange(lockHandle(), [&] {
        svonlyForGuests.remove(signalNumber);
        return takeOverForManagers(signalNumber);
    });
}

// The lock is let go around each take-over, which takes it by itself, so that an exception out of
// it leaves nothing locked. Whoever starts has not asked for the signals of subscriptions.
void SVSignalHandlerManager::startHandlingSignals() {
    if (svshared(currentlyHandlingSignals).load()) {
        return;
    }
    auto scope = std::make_optional<SVLocked>(lockHandle());
    svforEachSignal([&](int signalNumber) {
        if (hasRecordsQ(SVTablesPin().tableOf(signalNumber))) {
            scope.reset();
            svchange(lockHandle(), [&] { return takeOverForManagers(signalNumber); });
            scope.emplace(lockHandle());
        }
    });
    SVFailure failure;
    {
        const SVGate::SignalsHeldBack signalsHeldBack;
        {
            const SVGate::Closed gate;
            failure = takeOverRest().then([] { svshared(currentlyHandlingSignals).store(true); });
        }
        scope.reset();
    }
    failure.throwIfAny();
}

void SVSignalHandlerManager::stopHandlingSignal(int signalNumber) {
    svchangeIf(
        lockHandle(), [signalNumber] { return SVTablesPin().tableOf(signalNumber) != nullptr; },
        [&] { return handBack(signalNumber, ignoreHandler(signalNumber)); });
}

void SVSignalHandlerManager::stopHandlingSignals() {
    if (!svshared(currentlyHandlingSignals).load()) {
        return;
    }
    svforEachSignal([this](int signalNumber) { stopHandlingSignal(signalNumber); });
    svchange(lockHandle(), [this] {
        SVFailure failure;
        // Another thread's registration after its signal's turn has installed the library again.
        svforEachSignal([&](int signalNumber) {
            if (!failure && SVOwnership::librarysQ(signalNumber)) {
                failure = handBack(signalNumber, ignoreHandler(signalNumber));
            }
        });
        return failure.then([] { svshared(currentlyHandlingSignals).store(false); });
    });
}

void SVSignalHandlerManager::setSignalDisposition(int signalNumber, bool handle) {
    if (handle) {
        signalDispositionSet.handleSignal(signalNumber);
    } else {
        signalDispositionSet.doNotHandleSignal(signalNumber);
    }
}

void SVSignalHandlerManager::setSignalDispositions(SVSignalHandlerDispositionSet dispositions) {
    signalDispositionSet = dispositions;
}

bool SVSignalHandlerManager::getSignalDisposition(int signalNumber) {
    return signalDispositionSet.getSignalDisposition(signalNumber);
}

bool SVSignalHandlerManager::canHandleSignalFromDisposition(int signalNumber) {
    return getSignalDisposition(signalNumber);
}

}  // namespace Sorvane
