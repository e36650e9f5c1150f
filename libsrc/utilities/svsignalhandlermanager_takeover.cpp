// Taking signals over and handing them back, and the dispositions that say which ones.

#include "../registry/svownership.h"
#include "svmanagerfailure.h"
#include "svsharedstate.h"
#include "svsignalhandlermanager.h"
#include "svsystemactions.h"

namespace Sorvane {

namespace {

constexpr unsigned int lineNoTableForSignal = 302;

bool hasRecordsQ(const SVSignalHandlerTable* table) noexcept {
    return table != nullptr && table->used != 0;
}

bool librarysQ(int signalNumber) noexcept {
    return SVOwnership::librarysQ(SVOwnership::count(signalNumber));
}

bool allowedQ(int signalNumber) noexcept {
    return SVSignalHandlerManager::signalDispositionSet.getSignalDisposition(signalNumber);
}

// What the host has for a signal that is to be taken over. A dispatch that has installed the
// library and not yet looked whose the signal is hides that; see svownership.h.
SVFailure askForActionOfHost(int signalNumber, struct sigaction& action) noexcept {
    const SVFailure failure = SVSystemActions::ask(signalNumber, action);
    if (!failure && svownActionQ(action) &&
        SVOwnership::handedBackQ(SVOwnership::count(signalNumber))) {
        action = SVOwnership::actionOfHost(signalNumber);
    }
    return failure;
}

// The host's handler is put on record before the swap, so that it is on record, for whoever looks,
// as soon as the library is installed. If the host replaces it just between, its new one counts.
SVFailure takeOver(int signalNumber, const struct sigaction& own) noexcept {
    constexpr SVFailure noTable = svnoTableFailure(lineNoTableForSignal);
    if (const SVFailure failure = svregistry.addTable(signalNumber, noTable)) {
        return failure;
    }
    if (!allowedQ(signalNumber)) {
        return SVFailure();
    }
    struct sigaction host;
    if (const SVFailure failure = askForActionOfHost(signalNumber, host)) {
        return failure;
    }
    const SVSignalHandler previous(signalNumber, host, true, true, true);
    void* const function = previous.getHandlerFunction();
    const bool kept =
        !svnobodysActionQ(host) && !svregistry.tableOf(signalNumber)->has_key(function);
    SVFailure failure = kept ? svregistry.store(previous, noTable) : SVFailure();
    struct sigaction displaced;
    if (!failure) {
        failure = SVSystemActions::install(signalNumber, own, displaced);
        if (failure && kept) {
            svregistry.remove(signalNumber, function, noTable);
        }
    }
    if (failure) {
        return failure;
    }
    SVOwnership::take(signalNumber);
    if (svnobodysActionQ(displaced) || svsameActionQ(displaced, host)) {
        return SVFailure();
    }
    if (kept) {
        svregistry.remove(signalNumber, function, noTable);
    }
    const SVSignalHandler newer(signalNumber, displaced, true, true, true);
    return svregistry.tableOf(signalNumber)->has_key(newer.getHandlerFunction())
               ? SVFailure()
               : svregistry.store(newer, noTable);
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
    for (auto position = table->begin(); position != table->end(); position++) {
        if (position.GetValue().preExistsQ()) {
            wanted = position.GetValue();
            break;
        }
    }
    return SVSystemActions::handBack(wanted);
}

// Switches handling on, unless a signal with records is not the library's: it had its first record,
// or was handed back, by another thread after its turn.
bool switchOn() noexcept {
    const SVGate gate;
    bool complete = true;
    svforEachSignal([&](int signalNumber) {
        if (hasRecordsQ(svregistry.tableOf(signalNumber)) && allowedQ(signalNumber) &&
            !librarysQ(signalNumber)) {
            complete = false;
        }
    });
    if (complete) {
        svcurrentlyHandlingSignals().store(true);
    }
    return complete;
}

}  // namespace

void SVSignalHandlerManager::handleSignal(int signalNumber) {
    SVMutex scope;
    scope.setHandle(lockHandle());
    const struct sigaction own = theSVHandler(signalNumber).getOSStruct();
    SVGate::pass([&] { return takeOver(signalNumber, own); });
}

// The lock is let go around each handleSignal(), which takes it by itself, so that an exception
// out of it leaves nothing locked.
void SVSignalHandlerManager::startHandlingSignals() {
    if (svcurrentlyHandlingSignals().load()) {
        return;
    }
    SVMutexHandle* const handle = lockHandle();
    const auto lock = [handle] {
        if (handle != nullptr) {
            handle->lock();
        }
    };
    const auto unlock = [handle] {
        if (handle != nullptr) {
            handle->unlock();
        }
    };
    bool first = true;
    lock();
    do {
        svforEachSignal([&](int signalNumber) {
            if (hasRecordsQ(SVTablesPin().tableOf(signalNumber)) &&
                (first || !librarysQ(signalNumber))) {
                unlock();
                handleSignal(signalNumber);
                lock();
            }
        });
        first = false;
    } while (!switchOn());
    unlock();
}

void SVSignalHandlerManager::stopHandlingSignal(int signalNumber) {
    SVMutex scope;
    scope.setHandle(lockHandle());
    SVGate::pass([&] { return handBack(signalNumber, ignoreHandler(signalNumber)); });
}

void SVSignalHandlerManager::stopHandlingSignals() {
    if (!svcurrentlyHandlingSignals().load()) {
        return;
    }
    svforEachSignal([this](int signalNumber) { stopHandlingSignal(signalNumber); });
    SVMutex scope;
    scope.setHandle(lockHandle());
    SVGate::pass([this] {
        SVFailure failure;
        // Another thread's registration after its signal's turn has installed the library again.
        svforEachSignal([&](int signalNumber) {
            if (!failure && librarysQ(signalNumber)) {
                failure = handBack(signalNumber, ignoreHandler(signalNumber));
            }
        });
        if (!failure) {
            svcurrentlyHandlingSignals().store(false);
        }
        return failure;
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
