// Switching signal handling on and off, and the dispositions that say for which signals.

#include <cstdint>

#include "svlifecycle.h"
#include "svownership.h"
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

// Those of the signals that walks cover.
class SignalNumbers {
public:
    void add(int signalNumber) noexcept { m_numbers |= bitOf(signalNumber); }
    bool hasQ(int signalNumber) const noexcept { return (m_numbers & bitOf(signalNumber)) != 0; }

private:
    static constexpr std::uint64_t bitOf(int signalNumber) noexcept {
        return std::uint64_t{1} << static_cast<unsigned int>(signalNumber);
    }

    std::uint64_t m_numbers = 0;
};

// Finds the first pre-existing record of a signal, if there is one. Result: whether the signal has
// a table at all.
bool findPreexisting(int signalNumber, SVSignalHandler& found) noexcept {
    const SVRegistryPin pin;
    const SVSignalHandlerTable* const table = pin.tableOf(signalNumber);
    if (table == nullptr) {
        return false;
    }
    for (auto position = table->begin(); position != table->end(); position++) {
        if (position.GetValue().preExistsQ()) {
            found = position.GetValue();
            return true;
        }
    }
    return true;
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
    SignalNumbers walked;
    const auto takeOverTheRest = [&] {
        forEachSignal([&](int signalNumber) {
            if (!walked.hasQ(signalNumber) && hasRecordsQ(signalNumber)) {
                walked.add(signalNumber);
                unlock();
                handleSignal(signalNumber);
                lock();
            }
        });
    };
    bool counts = false;
    lock();
    try {
        unsigned int stops = 0;
        do {
            stops = SVLifecycle::timesStopped();
            walked = SignalNumbers();
            takeOverTheRest();
            SVLifecycle::setHandling(true);
            counts = true;
            // A registration that came after its signal's turn, and before this, installed nothing.
            takeOverTheRest();
            // Whoever has started and stopped meanwhile has handed back what was taken over here.
        } while (stops != SVLifecycle::timesStopped() && SVLifecycle::handlingQ());
    } catch (...) {
        // What somebody else has begun meanwhile goes on.
        if (counts) {
            SVLifecycle::setHandling(false);
        }
        throw;
    }
    unlock();
}

// The first pre-existing record goes back, valid or not: the user hands this one signal back
// deliberately, and an invalid record is still what the host had. Without one the signal is left
// ignored and not at its default action, which would end the process for most signals that are
// still on their way.
void SVSignalHandlerManager::stopHandlingSignal(int signalNumber) {
    SVMutex scope;
    scope.setHandle(lockHandle());
    completeTeardown();
    if (!signalDispositionSet.getSignalDisposition(signalNumber)) {
        return;
    }
    SVSignalHandler wanted = ignoreHandler(signalNumber);
    if (!findPreexisting(signalNumber, wanted)) {
        return;
    }
    // A handler that hands back a signal which the code it interrupted is just taking over comes
    // before that: what the host had is not on record yet, and must not be lost.
    if (!wanted.preExistsQ() && SVTakeOver::underWayQ(signalNumber)) {
        return;
    }
    SVSignalHandler displaced = installHandlerInSystem(wanted);
    if (wanted.preExistsQ()) {
        return;
    }
    // The same if it has been taken over since, or is just being; then this comes after it if the
    // host's handler is on record, and before it if not.
    if (SVTakeOver::underWayQ(signalNumber) && ownHandlerQ(displaced)) {
        installHandlerInSystem(displaced);
    } else if (findPreexisting(signalNumber, wanted) && wanted.preExistsQ()) {
        installHandlerInSystem(wanted);
    }
}

void SVSignalHandlerManager::stopHandlingSignals() {
    if (!SVLifecycle::handlingQ()) {
        return;
    }
    SVOwnership::Registrations before;
    forEachSignal([this](int signalNumber) { stopHandlingSignal(signalNumber); });
    SVMutex scope;
    scope.setHandle(lockHandle());
    SVLifecycle::setHandling(false);
    // A registration that came after its signal's turn, and before this, has installed the library.
    forEachSignal([&](int signalNumber) {
        if (before.changedQ(signalNumber)) {
            stopHandlingSignal(signalNumber);
        }
    });
}

void SVSignalHandlerManager::setSignalDisposition(int signalNumber, bool handle) {
    SVLifecycle::resetDispositionsIfTornDown();
    if (handle) {
        signalDispositionSet.handleSignal(signalNumber);
    } else {
        signalDispositionSet.doNotHandleSignal(signalNumber);
    }
}

void SVSignalHandlerManager::setSignalDispositions(SVSignalHandlerDispositionSet dispositions) {
    SVLifecycle::resetDispositionsIfTornDown();
    signalDispositionSet = dispositions;
}

bool SVSignalHandlerManager::getSignalDisposition(int signalNumber) {
    SVLifecycle::resetDispositionsIfTornDown();
    return signalDispositionSet.getSignalDisposition(signalNumber);
}

bool SVSignalHandlerManager::canHandleSignalFromDisposition(int signalNumber) {
    return getSignalDisposition(signalNumber);
}

}  // namespace Sorvane
