// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Whose a signal is: the counts, what is remembered beside them, and what may be asked of them.

#include <../registry/svgate.h>
#include <../registry/svownership.h>
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <latch>
#include <set>
#include <vector>

#include "support/joining_thread.h"
#include "support/observed_handlers.h"

namespace {

using Sorvane::svsameActionQ;
namespace SVOwnership = Sorvane::SVOwnership;
using SVOwnership::Count;

constexpr int highestSignal = 64;
constexpr int noSignals[] = {INT_MIN, -1, 0, highestSignal + 1, 1000, INT_MAX};

Count count() {
    return SVOwnership::count(SIGUSR1);
}

struct sigaction actionOf(void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    return action;
}

void take() {
    const Sorvane::SVGate gate;
    SVOwnership::take(SIGUSR1);
}

void handBack(void (*handler)(int) = hostHandler) {
    const Sorvane::SVGate gate;
    SVOwnership::beginHandBack(SIGUSR1, actionOf(handler));
    SVOwnership::endHandBack(SIGUSR1);
}

bool sendsOnFirstQ(int signalNumber = SIGUSR1) {
    const Sorvane::SVGate gate;
    return SVOwnership::sendsOnFirstQ(signalNumber);
}

// --- The counts ----------------------------------------------------------------------------------

TEST(Ownership, IsNobodysAtFirst) {
    for (int signalNumber = 1; signalNumber <= highestSignal; ++signalNumber) {
        const Count first = SVOwnership::count(signalNumber);
        EXPECT_EQ(first, 0U);
        EXPECT_FALSE(SVOwnership::librarysQ(signalNumber));
        EXPECT_FALSE(SVOwnership::handedBackQ(first)) << "it never was the library's";
    }
}

TEST(Ownership, ChangesOnceWithATakeOver) {
    take();
    const Count taken = count();
    EXPECT_TRUE(SVOwnership::librarysQ(SIGUSR1));
    EXPECT_FALSE(SVOwnership::handedBackQ(taken));
    take();
    EXPECT_EQ(count(), taken);
}

// Who comes late finds another count, also if the signal was the host's before.
TEST(Ownership, ChangesWithEachHandBack) {
    std::set<Count> counts;
    for (int round = 0; round < 3; ++round) {
        take();
        EXPECT_TRUE(counts.insert(count()).second);
        for (int i = 0; i < 3; ++i) {
            {
                const Sorvane::SVGate gate;
                SVOwnership::beginHandBack(SIGUSR1, actionOf(hostHandler));
                EXPECT_TRUE(counts.insert(count()).second);
                SVOwnership::endHandBack(SIGUSR1);
            }
            EXPECT_TRUE(counts.insert(count()).second);
            EXPECT_FALSE(SVOwnership::librarysQ(SIGUSR1));
            EXPECT_TRUE(SVOwnership::handedBackQ(count()));
        }
    }
}

TEST(Ownership, IsTheHostsAfterAHandBackOfWhatNeverWasTaken) {
    handBack();
    EXPECT_TRUE(SVOwnership::handedBackQ(count()));
}

TEST(Ownership, IsEachSignalsOwn) {
    take();
    for (int signalNumber = 1; signalNumber <= highestSignal; ++signalNumber) {
        EXPECT_EQ(SVOwnership::librarysQ(signalNumber), signalNumber == SIGUSR1) << signalNumber;
    }
}

std::vector<Count> allCounts() {
    std::vector<Count> counts;
    for (int signalNumber = 1; signalNumber <= highestSignal; ++signalNumber) {
        counts.push_back(SVOwnership::count(signalNumber));
    }
    return counts;
}

TEST(Ownership, OfWhatIsNoSignalIsAlwaysNobodys) {
    const std::vector<Count> before = allCounts();
    const Sorvane::SVGate gate;
    for (const int number : noSignals) {
        SVOwnership::take(number);
        EXPECT_EQ(SVOwnership::count(number), 0U) << number;
        SVOwnership::beginHandBack(number, actionOf(hostHandler));
        EXPECT_EQ(SVOwnership::count(number), 0U) << number;
        SVOwnership::endHandBack(number);
        EXPECT_EQ(SVOwnership::count(number), 0U) << number;
    }
    EXPECT_EQ(allCounts(), before);
}

// --- What is remembered --------------------------------------------------------------------------

TEST(Ownership, RemembersTheActionThatASignalWasHandedBackTo) {
    take();
    handBack(hostHandler);
    EXPECT_EQ(SVOwnership::actionOfHost(SIGUSR1).sa_handler, &hostHandler);
    take();
    EXPECT_EQ(SVOwnership::actionOfHost(SIGUSR1).sa_handler, &hostHandler);
    handBack(otherHostHandler);
    EXPECT_EQ(SVOwnership::actionOfHost(SIGUSR1).sa_handler, &otherHostHandler);
    EXPECT_EQ(SVOwnership::actionOfHost(SIGUSR2).sa_handler, SIG_DFL);
}

TEST(Ownership, TellsWhetherAHandBackWasOverWhenTheCountWasRead) {
    take();
    const Count before = count();
    const Sorvane::SVGate gate;
    SVOwnership::beginHandBack(SIGUSR1, actionOf(hostHandler));
    const Count during = count();
    SVOwnership::endHandBack(SIGUSR1);
    const Count after = count();
    SVOwnership::allowSendingOn(SIGUSR1);
    EXPECT_FALSE(SVOwnership::handedBackBeforeQ(SIGUSR1, before));
    EXPECT_FALSE(SVOwnership::handedBackBeforeQ(SIGUSR1, during));
    EXPECT_TRUE(SVOwnership::handedBackBeforeQ(SIGUSR1, after));
    EXPECT_TRUE(SVOwnership::handedBackBeforeQ(SIGUSR1, count()));
}

TEST(Ownership, OfASignalThatWasNeverHandedBackKnowsOfNoHandBack) {
    EXPECT_FALSE(SVOwnership::handedBackBeforeQ(SIGUSR1, count()));
    take();
    EXPECT_FALSE(SVOwnership::handedBackBeforeQ(SIGUSR1, count()));
}

TEST(Unsettled, IsKnownOfForItsSignalAsLongAsThereIsOne) {
    using SVOwnership::Unsettled;
    EXPECT_FALSE(Unsettled::anyQ(SIGUSR1));
    {
        const Unsettled first(SIGUSR1);
        { const Unsettled second(SIGUSR1); }
        EXPECT_TRUE(Unsettled::anyQ(SIGUSR1));
        EXPECT_FALSE(Unsettled::anyQ(SIGUSR2));
    }
    EXPECT_FALSE(Unsettled::anyQ(SIGUSR1));
}

TEST(Unsettled, OfASignalThatDoesNotExistHarmsNoOther) {
    using SVOwnership::Unsettled;
    for (const int signalNumber : {-1, 0, 65, 100000}) {
        const Unsettled none(signalNumber);
        EXPECT_TRUE(Unsettled::anyQ(signalNumber)) << signalNumber;
        for (int other = 1; other <= 64; ++other) {
            EXPECT_FALSE(Unsettled::anyQ(other)) << signalNumber;
        }
    }
}

TEST(Ownership, RemembersWhichThreadHandedASignalBackLast) {
    // One that no other test uses.
    constexpr int signalNumber = SIGTERM;
    const auto handBackHere = [] {
        const Sorvane::SVGate gate;
        SVOwnership::beginHandBack(signalNumber, actionOf(hostHandler));
    };
    const auto byThisThreadQ = [] { return SVOwnership::handedBackByThisThreadQ(signalNumber); };
    EXPECT_FALSE(byThisThreadQ());
    handBackHere();
    EXPECT_TRUE(byThisThreadQ());
    EXPECT_FALSE(SVOwnership::handedBackByThisThreadQ(SIGUSR2));
    bool otherBefore = true;
    bool otherAfter = false;
    JoiningThread([&] {
        otherBefore = byThisThreadQ();
        handBackHere();
        otherAfter = byThisThreadQ();
    }).join();
    EXPECT_FALSE(otherBefore);
    EXPECT_TRUE(otherAfter);
    EXPECT_FALSE(byThisThreadQ());
}

// --- Sending on ----------------------------------------------------------------------------------

TEST(SendingOn, IsTheFirstTimeOnceForEachCount) {
    for (int round = 0; round < 3; ++round) {
        handBack();
        EXPECT_TRUE(sendsOnFirstQ());
        EXPECT_FALSE(sendsOnFirstQ());
        EXPECT_FALSE(sendsOnFirstQ());
    }
}

TEST(SendingOn, IsTheFirstTimeAgainIfThatIsAllowed) {
    handBack();
    EXPECT_TRUE(sendsOnFirstQ());
    {
        const Sorvane::SVGate gate;
        SVOwnership::allowSendingOn(SIGUSR1);
    }
    EXPECT_TRUE(SVOwnership::handedBackQ(count()));
    EXPECT_TRUE(sendsOnFirstQ());
    EXPECT_FALSE(sendsOnFirstQ());
}

TEST(SendingOn, IsTheFirstTimeForEachSignalByItself) {
    handBack();
    for (int signalNumber = 1; signalNumber <= highestSignal; ++signalNumber) {
        EXPECT_TRUE(sendsOnFirstQ(signalNumber)) << signalNumber;
    }
    for (int signalNumber = 1; signalNumber <= highestSignal; ++signalNumber) {
        EXPECT_FALSE(sendsOnFirstQ(signalNumber)) << signalNumber;
    }
}

TEST(SendingOn, IsTheFirstTimeForEachThreadByItself) {
    handBack();
    EXPECT_TRUE(sendsOnFirstQ());
    bool first = false;
    bool second = true;
    JoiningThread([&] {
        first = sendsOnFirstQ();
        second = sendsOnFirstQ();
    }).join();
    EXPECT_TRUE(first);
    EXPECT_FALSE(second);
}

// There are fewer places than threads here, so that some of them share one.
TEST(SendingOn, IsTheFirstTimeForEachOfManyThreads) {
    constexpr unsigned int threadCount = 100;
    handBack();
    std::atomic<unsigned int> first{0};
    std::latch over(threadCount);
    std::vector<JoiningThread> threads;
    for (unsigned int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&] {
            first += sendsOnFirstQ() ? 1U : 0U;
            over.arrive_and_wait();
        });
    }
    threads.clear();
    EXPECT_EQ(first, threadCount);
}

// --- Actions that do the same --------------------------------------------------------------------

class SameAction : public testing::Test {
protected:
    SameAction() {
        m_one = actionOf(hostHandler);
        m_one.sa_flags = SA_RESTART;
        sigaddset(&m_one.sa_mask, SIGUSR2);
        m_other = m_one;
    }

    // Turns over whether the other action holds a signal back, whatever the C library thinks of it.
    void change(int signalNumber) {
        constexpr int bitsOfByte = 8;
        const auto bit = static_cast<unsigned int>(signalNumber - 1);
        auto* const bytes = reinterpret_cast<unsigned char*>(&m_other.sa_mask);
        bytes[bit / bitsOfByte] =
            static_cast<unsigned char>(bytes[bit / bitsOfByte] ^ (1U << bit % bitsOfByte));
    }

    struct sigaction m_one = {};
    struct sigaction m_other = {};
};

TEST_F(SameAction, IsTheSameAsItself) {
    EXPECT_TRUE(svsameActionQ(m_one, m_one));
    EXPECT_TRUE(svsameActionQ(m_one, m_other));
}

TEST_F(SameAction, HasTheSameHandler) {
    m_other.sa_handler = otherHostHandler;
    EXPECT_FALSE(svsameActionQ(m_one, m_other));
    EXPECT_FALSE(svsameActionQ(m_other, m_one));
}

TEST_F(SameAction, HasTheSameFlags) {
    for (const int flag : {SA_NOCLDSTOP, SA_NOCLDWAIT, SA_SIGINFO, SA_ONSTACK, SA_RESTART,
                           SA_NODEFER, static_cast<int>(SA_RESETHAND)}) {
        m_other.sa_flags ^= flag;
        EXPECT_FALSE(svsameActionQ(m_one, m_other)) << flag;
        EXPECT_FALSE(svsameActionQ(m_other, m_one)) << flag;
        m_other.sa_flags ^= flag;
    }
    EXPECT_TRUE(svsameActionQ(m_one, m_other));
}

TEST_F(SameAction, HoldsTheSameSignalsBack) {
    for (int signalNumber = 1; signalNumber <= highestSignal; ++signalNumber) {
        // Nobody can hold those back.
        if (signalNumber == SIGKILL || signalNumber == SIGSTOP) {
            continue;
        }
        change(signalNumber);
        EXPECT_FALSE(svsameActionQ(m_one, m_other)) << signalNumber;
        EXPECT_FALSE(svsameActionQ(m_other, m_one)) << signalNumber;
        change(signalNumber);
    }
    EXPECT_TRUE(svsameActionQ(m_one, m_other));
}

TEST_F(SameAction, MayDifferInWhatTheSystemDoesNotTakeOver) {
    change(SIGKILL);
    change(SIGSTOP);
    change(highestSignal + 1);
    EXPECT_TRUE(svsameActionQ(m_one, m_other));
}

// The C library says in a flag of its own how a handler comes back.
TEST_F(SameAction, IsWhatTheSystemTellsOfOneThatWasInstalled) {
    sigfillset(&m_one.sa_mask);
    m_one.sa_flags = SA_RESTART | SA_ONSTACK | SA_NODEFER;
    struct sigaction told = {};
    ASSERT_EQ(sigaction(SIGUSR1, &m_one, nullptr), 0);
    ASSERT_EQ(sigaction(SIGUSR1, nullptr, &told), 0);
    EXPECT_TRUE(svsameActionQ(m_one, told));
    EXPECT_TRUE(svsameActionQ(told, m_one));
}

}  // namespace
