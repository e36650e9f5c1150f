// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svownership.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "../support/svhandlercontext.h"

namespace Sorvane {

constinit std::atomic<SVOwnership::Count> SVOwnership::counts[highestSignal + 1];
constinit SVOwnership::Unsettled::Cell SVOwnership::Unsettled::cells[cellCount];
constinit std::atomic<unsigned int> SVOwnership::Unsettled::times[highestSignal + 1];
constinit std::atomic<bool> SVOwnership::displaced[highestSignal + 1];
constinit std::atomic<unsigned int> SVOwnership::leavings[highestSignal + 1];

namespace {

struct HandBack {
    struct sigaction action;
    const void* thread;
    SVOwnership::Count end;
};
constinit HandBack handBacks[highestSignal + 1] = {};

constinit struct sigaction hostsActions[highestSignal + 1] = {};
constinit struct sigaction hostsBefore[highestSignal + 1] = {};

// The C library has a flag for its own way back from a handler.
bool sameFlagsQ(const struct sigaction& one, const struct sigaction& other) noexcept {
    constexpr int restorerFlag = 0x04000000;
    return ((one.sa_flags ^ other.sa_flags) & ~restorerFlag) == 0;
}

int numberOf(int signalNumber) noexcept {
    return signalExistsQ(signalNumber) ? signalNumber : 0;
}

// The last signals that were sent on. A thread has a place of its own here for each signal. Of two
// threads that share one, each may send its signal on more than once, which does no harm as long as
// it ends.
struct SentOn {
    const void* thread;
    SVOwnership::Count count;
};
constexpr unsigned int sentOnCount = 64;
constinit SentOn sentOn[sentOnCount] = {};

SentOn& placeOf(const void* thread, int signalNumber) noexcept {
    const auto bits = static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(thread) >> 12U);
    return sentOn[(bits + static_cast<unsigned int>(signalNumber)) % sentOnCount];
}

}  // namespace

bool SVOwnership::Unsettled::anyQ(int signalNumber) noexcept {
    return timesOf(signalNumber) != 0 ||
           std::any_of(std::begin(cells), std::end(cells), [signalNumber](const Cell& cell) {
               return cell.signalNumber == signalNumber;
           });
}

void SVOwnership::take(int signalNumber) noexcept {
    if (signalExistsQ(signalNumber) && !librarysQ(signalNumber)) {
        counts[signalNumber].fetch_add(1);
    }
}

void SVOwnership::beginHandBack(int signalNumber, const struct sigaction& action) noexcept {
    if (signalExistsQ(signalNumber)) {
        const Count begin = count(signalNumber) + (librarysQ(signalNumber) ? 1 : 2);
        handBacks[signalNumber] = HandBack{action, SVHandlerContext::thisThread(), begin + 2};
        counts[signalNumber].store(begin);
    }
}

const struct sigaction& SVOwnership::actionOfHost(int signalNumber) noexcept {
    return handBacks[signalNumber].action;
}

// Counts go round.
bool SVOwnership::handedBackBeforeQ(int signalNumber, Count count) noexcept {
    const Count end = handBacks[signalNumber].end;
    return end != 0 && static_cast<int>(end - count) <= 0;
}

void SVOwnership::allowSendingOn(int signalNumber) noexcept {
    if (signalExistsQ(signalNumber)) {
        counts[signalNumber].fetch_add(2);
    }
}

bool SVOwnership::handedBackByThisThreadQ(int signalNumber) noexcept {
    return handBacks[signalNumber].thread == SVHandlerContext::thisThread();
}

const struct sigaction& SVOwnership::hostsAction(int signalNumber) noexcept {
    return hostsActions[numberOf(signalNumber)];
}

void SVOwnership::rememberHosts(int signalNumber, const struct sigaction& found) noexcept {
    if (signalExistsQ(signalNumber)) {
        hostsActions[signalNumber] = hostsActionIf(signalNumber, found);
    }
}

// A host that has the same function again has put back in between what it had found. One that has
// installed something when the library was not there has found something else.
void SVOwnership::rememberDisplacement(int signalNumber,
                                       const struct sigaction& installed) noexcept {
    const struct sigaction& last = hostsAction(signalNumber);
    if (signalExistsQ(signalNumber) && installed.sa_handler != last.sa_handler) {
        hostsBefore[signalNumber] = last;
        displaced[signalNumber].store(librarysQ(signalNumber));
    }
    rememberHosts(signalNumber, installed);
}

const struct sigaction& SVOwnership::stoodFor(int signalNumber) noexcept {
    return displacedByHostQ(signalNumber) ? hostsBefore[signalNumber] : hostsAction(signalNumber);
}

const struct sigaction& SVOwnership::hostsActionIf(int signalNumber,
                                                   const struct sigaction& found) noexcept {
    const struct sigaction& left = actionOfHost(numberOf(signalNumber));
    const bool leftIgnored = found.sa_handler == SIG_IGN && left.sa_handler == SIG_IGN &&
                             handedBackQ(count(signalNumber)) && !leftForGoodQ(signalNumber) &&
                             sameFlagsQ(found, left);
    return leftIgnored ? hostsAction(signalNumber) : found;
}

// The walk that sees a record gone has to see this as well.
void SVOwnership::leaveForGood(int signalNumber) noexcept {
    handBacks[numberOf(signalNumber)].thread = nullptr;
    leavings[numberOf(signalNumber)].fetch_add(1);
}

bool SVOwnership::leftForGoodQ(int signalNumber) noexcept {
    return handedBackQ(count(signalNumber)) && handBacks[numberOf(signalNumber)].thread == nullptr;
}

bool SVOwnership::sendsOnFirstQ(int signalNumber) noexcept {
    const void* const thread = SVHandlerContext::thisThread();
    SentOn& last = placeOf(thread, signalNumber);
    const Count now = count(signalNumber);
    if (last.thread == thread && last.count == now) {
        return false;
    }
    last = SentOn{thread, now};
    return true;
}

// As the operating system tells them: the kernel lets nobody hold SIGKILL and SIGSTOP back.
bool svsameActionQ(const struct sigaction& one, const struct sigaction& other) noexcept {
    const auto heldBack = [](const struct sigaction& action) {
        std::uint64_t signals = 0;
        std::memcpy(&signals, &action.sa_mask, sizeof(signals));
        return signals & ~(std::uint64_t{1} << (SIGKILL - 1) | std::uint64_t{1} << (SIGSTOP - 1));
    };
    return sameFlagsQ(one, other) && one.sa_handler == other.sa_handler &&
           heldBack(one) == heldBack(other);
}

}  // namespace Sorvane
