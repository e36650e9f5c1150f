#include "svownership.h"

#include <csignal>

#include "svlifecycle.h"
#include "svregistry.h"
#include "svtakeover.h"

namespace Sorvane {

namespace {

using Count = SVOwnership::Count;

constexpr unsigned int lineNoTableForDisplaced = 302;

// The counts with which this thread has sent signals on.
constinit thread_local volatile Count sentOn[highestSignal + 1]
    __attribute__((tls_model("initial-exec")));

bool hostsQ(Count count) noexcept {
    return count % 2 == 1;
}

SVSignalHandler installOwn(SVSignalHandlerManager& manager, int signalNumber) {
    SVSignalHandler own = manager.theSVHandler(signalNumber);
    return manager.installHandlerInSystem(own);
}

// False: the signal has changed hands again.
bool putOnRecord(const SVSignalHandler& displaced, Count now) {
    const int signalNumber = displaced.getSignalNumber();
    try {
        SVRegistry::storeRecord(displaced, false, lineNoTableForDisplaced);
    } catch (const SVException&) {
        if (SVOwnership::count(signalNumber) == now) {
            throw;
        }
    }
    return SVOwnership::count(signalNumber) == now;
}

}  // namespace

bool nobodysHandlerQ(const SVSignalHandler& record) noexcept {
    void* const function = record.getHandlerFunction();
    return ownHandlerQ(record) || function == reinterpret_cast<void*>(SIG_DFL) ||
           function == reinterpret_cast<void*>(SIG_IGN);
}

constinit std::atomic<Count> SVOwnership::counts[highestSignal + 1];

bool SVOwnership::giveToHost(int signalNumber, Count seen) noexcept {
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

// The records that are found while a teardown goes on are those that it is to end, the host's
// handler among them.
bool SVOwnership::changedHandsQ(int signalNumber, Count now, bool recordsQ) noexcept {
    if (sentOn[signalNumber] == now ||
        (recordsQ && (!hostsQ(now) || SVLifecycle::currentTeardown() != 0))) {
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
            if (now == seen || nobodysHandlerQ(displaced) || putOnRecord(displaced, now)) {
                return;
            }
            continue;
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

void SVOwnership::settleLateHandBack(SVSignalHandlerManager& manager,
                                     const SVSignalHandler& displaced, Count seen) {
    const int signalNumber = displaced.getSignalNumber();
    const SVTakeOver takeOver(signalNumber);
    const bool takenOver = !hostsQ(count(signalNumber));
    settle(manager, takenOver ? installOwn(manager, signalNumber) : displaced, seen);
}

}  // namespace Sorvane
