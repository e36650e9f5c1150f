// Switching signal handling on and off, and the dispositions that say for which signals.

#include "svlifecycle.h"
#include "svregistry.h"
#include "svsignalhandlermanager.h"
#include "svtakeover.h"
#include "svwalk.h"

namespace Sorvane {

namespace {

bool hasRecordsQ(int signalNumber) noexcept {
    const SVRegistryPin pin;
    const SVSignalHandlerTable* const table = pin.tableOf(signalNumber);
    return table != nullptr && table->used != 0;
}

}  // namespace

// The lock is let go around each handleSignal(), which takes it by itself, so that an exception
// out of it leaves nothing locked.
void SVSignalHandlerManager::startHandlingSignals() {
    // A teardown that was begun may not have said yet that nothing is handled any more.
    completeTeardown();
    if (SVLifecycle::handlingQ()) {
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
    lock();
    forEachSignal([&](int signalNumber) {
        if (hasRecordsQ(signalNumber)) {
            unlock();
            handleSignal(signalNumber);
            lock();
        }
    });
    SVLifecycle::setHandling(true);
    unlock();
}

// The first pre-existing record goes back, valid or not: the user hands this one signal back
// deliberately, and an invalid record is still what the host had.
void SVSignalHandlerManager::stopHandlingSignal(int signalNumber) {
    SVMutex scope;
    scope.setHandle(lockHandle());
    if (!signalDispositionSet.getSignalDisposition(signalNumber)) {
        return;
    }
    const SVRegistryPin pin;
    const SVSignalHandlerTable* const table = pin.tableOf(signalNumber);
    if (table == nullptr) {
        return;
    }
    // Without a pre-existing record the signal is left ignored and not at its default action,
    // which would end the process for most signals that are still on their way.
    SVSignalHandler wanted = ignoreHandler(signalNumber);
    for (auto position = table->begin(); position != table->end(); position++) {
        if (position.GetValue().preExistsQ()) {
            wanted = position.GetValue();
            break;
        }
    }
    // A handler that hands back a signal which the code it interrupted is just taking over comes
    // before that: what the host had is not on record yet, and must not be lost.
    if (!wanted.preExistsQ() && SVTakeOver::underWayQ(signalNumber)) {
        return;
    }
    installHandlerInSystem(wanted);
}

void SVSignalHandlerManager::stopHandlingSignals() {
    if (!SVLifecycle::handlingQ()) {
        return;
    }
    forEachSignal([this](int signalNumber) { stopHandlingSignal(signalNumber); });
    SVMutex scope;
    scope.setHandle(lockHandle());
    SVLifecycle::setHandling(false);
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
    return signalDispositionSet.getSignalDisposition(signalNumber);
}

}  // namespace Sorvane
