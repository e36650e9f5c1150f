#include "svownership.h"

#include <csignal>

#include "svregistry.h"
#include "svtakeover.h"

namespace Sorvane {

namespace {

using Count = SVOwnership::Count;

// The same as that of a take-over, of which this is the rest.
constexpr unsigned int lineNoTableForDisplaced = 302;

constinit std::atomic<unsigned int> registrations[highestSignal + 1];

// The counts with which this thread has sent signals on.
constinit thread_local volatile Count sentOn[highestSignal + 1]
    __attribute__((tls_model("initial-exec")));

SVSignalHandler installOwn(SVSignalHandlerManager& manager, int signalNumber) {
    SVSignalHandler own = manager.theSVHandler(signalNumber);
    return manager.installHandlerInSystem(own);
}

// If the signal has changed hands again, there may be no registry, and nothing to be put on record.
void putOnRecord(const SVSignalHandler& displaced, Count now) {
    try {
        SVRegistry::storeRecord(displaced, false, lineNoTableForDisplaced);
    } catch (const SVException&) {
        if (SVOwnership::count(displaced.getSignalNumber()) == now) {
            throw;
        }
    }
}

// Whether the signal is being delivered to this thread, and its handler is not just called: the
// kernel holds it back meanwhile.
bool arrivedQ(int signalNumber) noexcept {
    sigset_t heldBack;
    pthread_sigmask(SIG_BLOCK, nullptr, &heldBack);
    return sigismember(&heldBack, signalNumber) == 1;
}

}  // namespace

bool nobodysHandlerQ(const SVSignalHandler& record) noexcept {
    void* const function = record.getHandlerFunction();
    return ownHandlerQ(record) || function == reinterpret_cast<void*>(SIG_DFL) ||
           function == reinterpret_cast<void*>(SIG_IGN);
}

constinit std::atomic<Count> SVOwnership::counts[highestSignal + 1];

SVOwnership::Registrations::Registrations() noexcept {
    for (int signalNumber = 0; signalNumber <= highestSignal; ++signalNumber) {
        m_before[signalNumber] = registrations[signalNumber].load();
    }
}

bool SVOwnership::Registrations::changedQ(int signalNumber) const noexcept {
    return m_before[signalNumber] != registrations[signalNumber].load();
}

void SVOwnership::Registrations::add(int signalNumber) noexcept {
    if (signalExistsQ(signalNumber)) {
        registrations[signalNumber].fetch_add(1);
    }
}

bool SVOwnership::giveToHost(int signalNumber, Count seen) noexcept {
    if (!signalExistsQ(signalNumber)) {
        return true;
    }
    return counts[signalNumber].compare_exchange_strong(seen, seen | 1U) || hostsQ(seen);
}

void SVOwnership::takeFromHost(int signalNumber) noexcept {
    if (!signalExistsQ(signalNumber)) {
        return;
    }
    Count current = counts[signalNumber].load();
    while (hostsQ(current) && !counts[signalNumber].compare_exchange_weak(current, current + 1)) {
    }
}

bool SVOwnership::sendsOnQ(int signalNumber, Count now, bool recordsQ) noexcept {
    // Only those of the state that is being torn down have the host's handler for certain.
    const bool formerRecords = SVLifecycle::currentTeardown() != 0;
    if (sentOn[signalNumber] == now || (recordsQ && formerRecords) || !arrivedQ(signalNumber)) {
        return false;
    }
    sentOn[signalNumber] = now;
    return true;
}

void SVOwnership::settle(SVSignalHandlerManager& manager, SVSignalHandler displaced, Count seen) {
    const int signalNumber = displaced.getSignalNumber();
    for (;;) {
        const Count now = count(signalNumber);
        if (!hostsQ(now)) {
            if (now != seen && !nobodysHandlerQ(displaced)) {
                putOnRecord(displaced, now);
            }
            return;
        }
        if (ownHandlerQ(displaced)) {
            return;
        }
        manager.installHandlerInSystem(displaced);
        if (count(signalNumber) == now) {
            return;
        }
        displaced = installOwn(manager, signalNumber);
    }
}

void SVOwnership::installAfterDispatch(SVSignalHandlerManager& manager, int signalNumber,
                                       Count seen) {
    const Count now = count(signalNumber);
    if (hostsQ(now) && now == seen) {
        takeFromHost(signalNumber);
        installOwn(manager, signalNumber);
        return;
    }
    const SVTakeOver takeOver(signalNumber);
    if (!hostsQ(now)) {
        settle(manager, installOwn(manager, signalNumber), seen);
    }
}

void SVOwnership::settleLateHandBack(SVSignalHandlerManager& manager,
                                     const SVSignalHandler& displaced, Count seen) {
    const int signalNumber = displaced.getSignalNumber();
    const SVTakeOver takeOver(signalNumber);
    if (hostsQ(count(signalNumber))) {
        settle(manager, displaced, seen);
    } else if (ownHandlerQ(displaced)) {
        settle(manager, installOwn(manager, signalNumber), seen);
    }
}

}  // namespace Sorvane
