// How handler records come into the tables and out again.

#include "svlifecycle.h"
#include "svownership.h"
#include "svregistry.h"
#include "svsignalhandlermanager.h"

namespace Sorvane {

namespace {

constexpr unsigned int lineNoTableForHandler = 144;

bool onlyRecordQ(int signalNumber, void* function) noexcept {
    const SVRegistryPin pin;
    const SVSignalHandlerTable* const table = pin.tableOf(signalNumber);
    return table != nullptr && table->has_key(function) && table->used == 1;
}

}  // namespace

// While signals are being handled, the action that the operating system had for the signal is not
// kept: only taking a signal over with handleSignal() makes a pre-existing record of it.
void SVSignalHandlerManager::setHandler(SVSignalHandler& handler) {
    SVMutex scope;
    scope.setHandle(lockHandle());
    completeTeardown();
    const int signalNumber = handler.getSignalNumber();
    if (!signalDispositionSet.getSignalDisposition(signalNumber)) {
        return;
    }
    SVRegistry::storeRecord(handler, true, lineNoTableForHandler);
    SVOwnership::Registrations::add(signalNumber);
    if (!SVLifecycle::handlingQ()) {
        return;
    }
    SVOwnership::takeFromHost(signalNumber);
    SVSignalHandler own = theSVHandler(signalNumber);
    SVSignalHandler displaced = installHandlerInSystem(own);
    // Somebody who has stopped the handling since then has handed the signal back already.
    if (!SVLifecycle::handlingQ() && !ownHandlerQ(displaced)) {
        installHandlerInSystem(displaced);
    }
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

// The flag that counts is the given record's, not the stored one's: whoever clears says whether
// the signal goes back to that handler.
void SVSignalHandlerManager::clearHandler(SVSignalHandler& handler) {
    SVMutex scope;
    scope.setHandle(lockHandle());
    completeTeardown();
    const int signalNumber = handler.getSignalNumber();
    if (!signalDispositionSet.getSignalDisposition(signalNumber)) {
        return;
    }
    void* const function = handler.getHandlerFunction();
    if (handler.preExistsQ() && onlyRecordQ(signalNumber, function)) {
        SVSignalHandler displaced = installHandlerInSystem(handler);
        // Another handler that was registered meanwhile is not to be cut off.
        if (ownHandlerQ(displaced) && !onlyRecordQ(signalNumber, function)) {
            installHandlerInSystem(displaced);
        }
    }
    SVRegistry::removeRecord(signalNumber, function, lineNoTableForHandler);
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
