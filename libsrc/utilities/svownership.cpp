#include "svownership.h"

#include <csignal>

#include "svregistry.h"
#include "svtakeover.h"

namespace Sorvane {

namespace {

using Count = SVOwnership::Count;

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

bool SVOwnership::sendsOnQ(int signalNumber, Count now) noexcept {
    const bool again = sentOn[signalNumber] == now;
    sentOn[signalNumber] = now;
    return !again;
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
        if (now == seen) {
            takeFromHost(signalNumber);
            return;
        }
        manager.installHandlerInSystem(displaced);
        if (count(signalNumber) == now) {
            return;
        }
        displaced = installOwn(manager, signalNumber);
    }
}

void SVOwnership::settleLateHandBack(SVSignalHandlerManager& manager,
                                     const SVSignalHandler& displaced, Count seen) {
    const int signalNumber = displaced.getSignalNumber();
    const SVTakeOver takeOver(signalNumber);
    const Count before = seen - 1;  // is none that can be found now
    if (hostsQ(count(signalNumber))) {
        settle(manager, displaced, before);
    } else if (ownHandlerQ(displaced)) {
        settle(manager, installOwn(manager, signalNumber), before);
    }
}

}  // namespace Sorvane
