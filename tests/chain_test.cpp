// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Chains that lead back to the library: a handler that was installed after it calls what it has
// displaced.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <csetjmp>
#include <csignal>
#include <cstddef>
#include <vector>

#include "support/emulation.h"
#include "support/manager_fixture.h"
#include "support/sanitizers.h"

namespace {

constexpr int theSignal = SIGUSR1;

struct sigaction displaced;

void chainsWithAll(int signalNumber, siginfo* information, void* context) {
    noteCall(addressOf(chainsWithAll), signalNumber, information, context);
    displaced.sa_sigaction(signalNumber, information, context);
}

// As one does that knows only the signal's number: what else the library gets is left over from
// something else. Written out, because a sanitizer objects to a call with one argument, and what
// is left over by one would be up to the compiler.
void callDisplacedWithTheNumber(int signalNumber) {
    siginfo leftOver = {};
    displaced.sa_sigaction(signalNumber, &leftOver, nullptr);
}

void chainsWithTheNumber(int signalNumber) {
    noteCall(addressOf(chainsWithTheNumber), signalNumber);
    callDisplacedWithTheNumber(signalNumber);
}

class Chain : public OneManagerTest {
protected:
    void SetUp() override {
        if (builtWithThreadSanitizer || underValgrindQ()) {
            GTEST_SKIP() << "handlers are not called by the kernel itself here";
        }
        hostInstalls(theSignal, hostInformationHandler);
        m_manager.setHandlerFromFunction(theSignal, userHandler);
        m_manager.setHandlerFromFunction(theSignal, otherUserHandler);
        m_manager.startHandlingSignals();
    }
    ~Chain() noexcept override = default;

    static void expectEachCalledOnce(void* chaining) {
        EXPECT_EQ(callsOfAddress(chaining), 1U);
        EXPECT_EQ(callsOf(hostInformationHandler), 1U);
        EXPECT_EQ(callsOf(userHandler), 1U);
        EXPECT_EQ(callsOf(otherUserHandler), 1U);
        EXPECT_TRUE(takenOverQ(theSignal));
        EXPECT_EQ(Manager::numberOfManagers, 1U);
    }
};

TEST_F(Chain, CallsEachHandlerOnceIfTheSignalIsTakenOverOnceMore) {
    struct sigaction chaining = {};
    chaining.sa_sigaction = chainsWithAll;
    chaining.sa_flags = SA_SIGINFO;
    sigaction(theSignal, &chaining, &displaced);
    m_manager.handleSignal(theSignal);
    raise(theSignal);
    expectEachCalledOnce(addressOf(chainsWithAll));
}

TEST_F(Chain, CallsEachHandlerOnceAlsoIfItHandsOnNothingButTheNumber) {
    struct sigaction chaining = {};
    chaining.sa_handler = chainsWithTheNumber;
    sigaction(theSignal, &chaining, &displaced);
    m_manager.handleSignal(theSignal);
    raise(theSignal);
    expectEachCalledOnce(addressOf(chainsWithTheNumber));
    for (std::size_t i = 0; i < callCount(); ++i) {
        if (callAt(i).function == addressOf(hostInformationHandler)) {
            EXPECT_NE(callAt(i).information, nullptr);
            EXPECT_EQ(callAt(i).informationCopy.si_signo, theSignal);
        }
    }
}

// Of two handlers the one that is called first calls the library, so that the other is still to
// come.
constexpr int otherSignal = SIGUSR2;

void* theFirst = nullptr;
void (*chains)(int signalNumber, siginfo* information, void* context) = nullptr;

template <int number>
void chainsIfItIsTheFirst(int signalNumber, siginfo* information, void* context) {
    noteCall(addressOf(chainsIfItIsTheFirst<number>), signalNumber, information, context);
    if (addressOf(chainsIfItIsTheFirst<number>) == theFirst) {
        chains(signalNumber, information, context);
    }
}

void deliverToTwo(Manager& manager) {
    manager.setHandlerFromFunction(otherSignal, chainsIfItIsTheFirst<1>);
    manager.setHandlerFromFunction(otherSignal, chainsIfItIsTheFirst<2>);
    theFirst = functionsInSlotOrder(otherSignal).front();
    displaced = systemAction(otherSignal);
    raise(otherSignal);
    ASSERT_EQ(callCount(), 2U);
    EXPECT_EQ(callAt(0).function, theFirst);
    EXPECT_NE(callAt(1).function, theFirst);
}

TEST_F(Chain, CallsTheRestOnceAlsoIfItIsCalledTwice) {
    chains = [](int signalNumber, siginfo* information, void* context) {
        displaced.sa_sigaction(signalNumber, information, context);
        displaced.sa_sigaction(signalNumber, information, context);
    };
    deliverToTwo(m_manager);
}

TEST_F(Chain, CallsTheRestWithWhatTheDeliveryHasAlsoIfItHandsOnNothingButTheNumber) {
    chains = [](int signalNumber, siginfo*, void*) { callDisplacedWithTheNumber(signalNumber); };
    deliverToTwo(m_manager);
    EXPECT_NE(callAt(0).information, nullptr);
    EXPECT_EQ(callAt(1).information, callAt(0).information);
    EXPECT_EQ(callAt(1).context, callAt(0).context);
}

TEST_F(Chain, CallsNobodyIfNobodyIsLeft) {
    m_manager.setHandlerFromFunction(otherSignal, chainsWithAll);
    displaced = systemAction(otherSignal);
    raise(otherSignal);
    EXPECT_EQ(callCount(), 1U);
    EXPECT_EQ(callsOf(chainsWithAll), 1U);
}

void chainsAfterAnotherSignal(int signalNumber, siginfo* information, void* context) {
    noteCall(addressOf(chainsAfterAnotherSignal), signalNumber, information, context);
    raise(SIGUSR2);
    displaced.sa_sigaction(signalNumber, information, context);
}

TEST_F(Chain, CallsEachHandlerOnceAlsoIfAnotherSignalComesBefore) {
    m_manager.setHandlerFromFunction(SIGUSR2, otherHostHandler);
    struct sigaction chaining = {};
    chaining.sa_sigaction = chainsAfterAnotherSignal;
    chaining.sa_flags = SA_SIGINFO;
    sigaction(theSignal, &chaining, &displaced);
    m_manager.handleSignal(theSignal);
    raise(theSignal);
    expectEachCalledOnce(addressOf(chainsAfterAnotherSignal));
    EXPECT_EQ(callsOf(otherHostHandler), 1U);
}

TEST_F(Chain, CallsEachHandlerOnceAtEveryDelivery) {
    struct sigaction chaining = {};
    chaining.sa_sigaction = chainsWithAll;
    chaining.sa_flags = SA_SIGINFO;
    sigaction(theSignal, &chaining, &displaced);
    m_manager.stopHandlingSignals();
    sigaction(theSignal, &chaining, nullptr);
    m_manager.startHandlingSignals();
    for (int delivery = 0; delivery < 3; ++delivery) {
        forgetCalls();
        raise(theSignal);
        expectEachCalledOnce(addressOf(chainsWithAll));
    }
}

// It has not been called for its own delivery before it calls.
TEST_F(Chain, EndsAlsoIfItBeginsOutsideTheLibrary) {
    struct sigaction chaining = {};
    chaining.sa_sigaction = chainsWithAll;
    chaining.sa_flags = SA_SIGINFO;
    sigaction(theSignal, &chaining, &displaced);
    raise(theSignal);
    EXPECT_EQ(callsOf(chainsWithAll), 1U);
    EXPECT_EQ(callsOf(hostInformationHandler), 1U);
    EXPECT_EQ(callsOf(userHandler), 1U);
    EXPECT_TRUE(takenOverQ(theSignal)) << "the dispatch has installed the library again";
}

// --- What is none --------------------------------------------------------------------------------

unsigned int depth = 0;
unsigned int deepest = 0;

void isInterruptedByItsOwnSignal(int signalNumber) {
    noteCall(addressOf(isInterruptedByItsOwnSignal), signalNumber);
    ++depth;
    deepest = depth > deepest ? depth : deepest;
    if (depth < 10) {
        const sigset_t own = setOf({signalNumber});
        sigset_t before;
        pthread_sigmask(SIG_UNBLOCK, &own, &before);
        raise(signalNumber);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    --depth;
}

TEST_F(Chain, IsNotADeliveryThatInterruptsTheHandlerOfAnother) {
    m_manager.setHandlerFromFunction(theSignal, isInterruptedByItsOwnSignal);
    raise(theSignal);
    EXPECT_EQ(deepest, 10U);
    EXPECT_EQ(callsOf(isInterruptedByItsOwnSignal), 10U);
    EXPECT_EQ(callsOf(userHandler), 10U);
    EXPECT_EQ(callsOf(hostInformationHandler), 10U);
}

void callsForAnotherSignal(int signalNumber) {
    noteCall(addressOf(callsForAnotherSignal), signalNumber);
    actualSignalHandler(SIGUSR2, nullptr, nullptr);
}

TEST_F(Chain, IsNotACallForAnotherSignal) {
    m_manager.setHandlerFromFunction(SIGUSR2, otherHostHandler);
    m_manager.setHandlerFromFunction(theSignal, callsForAnotherSignal);
    raise(theSignal);
    EXPECT_EQ(callsOf(otherHostHandler), 1U);
    EXPECT_EQ(callsOf(userHandler), 1U);
}

void isInterruptedThroughOneThatChains(int signalNumber) {
    noteCall(addressOf(isInterruptedThroughOneThatChains), signalNumber);
    if (callsOf(isInterruptedThroughOneThatChains) == 1) {
        struct sigaction chaining = {};
        chaining.sa_sigaction = chainsWithAll;
        chaining.sa_flags = SA_SIGINFO;
        sigaction(signalNumber, &chaining, &displaced);
        const sigset_t own = setOf({signalNumber});
        sigset_t before;
        pthread_sigmask(SIG_UNBLOCK, &own, &before);
        raise(signalNumber);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
}

TEST_F(Chain, IsNotADeliveryThatComesThroughAnotherOneThatChains) {
    m_manager.setHandlerFromFunction(theSignal, isInterruptedThroughOneThatChains);
    raise(theSignal);
    EXPECT_EQ(callsOf(chainsWithAll), 1U);
    EXPECT_EQ(callsOf(isInterruptedThroughOneThatChains), 2U);
    EXPECT_EQ(callsOf(userHandler), 2U);
    EXPECT_EQ(callsOf(hostInformationHandler), 2U);
}

sigjmp_buf outside;

void leaves(int) {
    siglongjmp(outside, 1);
}

void leavesOnce(int signalNumber) {
    noteCall(addressOf(leavesOnce), signalNumber);
    if (callsOf(leavesOnce) == 1) {
        siglongjmp(outside, 1);
    }
}

constexpr std::size_t largeFrame = std::size_t{64} * 1024;

// From further down the stack than anything that a delivery puts there, which stays as it is.
[[gnu::noinline]] void callsFromFurtherDown(int signalNumber) {
    volatile char room[largeFrame];
    room[0] = 0;
    actualSignalHandler(signalNumber, nullptr, nullptr);
    room[1] = room[0];
}

TEST_F(Chain, IsNotACallAfterTheHandlerHasLeft) {
    m_manager.setHandlerFromFunction(SIGUSR2, leaves);
    if (sigsetjmp(outside, 1) == 0) {
        raise(SIGUSR2);
    }
    m_manager.clearHandlerWithFunction(SIGUSR2, leaves);
    m_manager.setHandlerFromFunction(SIGUSR2, otherHostHandler);
    actualSignalHandler(SIGUSR2, nullptr, nullptr);
    EXPECT_EQ(callsOf(otherHostHandler), 1U);
}

TEST_F(Chain, IsNotACallFromFurtherDownAfterTheHandlerHasLeft) {
    m_manager.setHandlerFromFunction(SIGUSR2, leavesOnce);
    if (sigsetjmp(outside, 1) == 0) {
        raise(SIGUSR2);
    }
    callsFromFurtherDown(SIGUSR2);
    EXPECT_EQ(callsOf(leavesOnce), 2U);
}

// The kernel puts its frame where the one before was.
TEST_F(Chain, IsNotADeliveryAfterTheHandlerHasLeft) {
    m_manager.setHandlerFromFunction(SIGUSR2, leavesOnce);
    for (unsigned int delivery = 1; delivery <= 2; ++delivery) {
        if (sigsetjmp(outside, 1) == 0) {
            raise(SIGUSR2);
        }
        EXPECT_EQ(callsOf(leavesOnce), delivery);
    }
}

TEST_F(Chain, IsNotADeliveryThatComesThroughOneThatChainsAfterTheHandlerHasLeft) {
    m_manager.setHandlerFromFunction(theSignal, leaves);
    if (sigsetjmp(outside, 1) == 0) {
        raise(theSignal);
    }
    m_manager.clearHandlerWithFunction(theSignal, leaves);
    forgetCalls();
    struct sigaction chaining = {};
    chaining.sa_sigaction = chainsWithAll;
    chaining.sa_flags = SA_SIGINFO;
    sigaction(theSignal, &chaining, &displaced);
    raise(theSignal);
    EXPECT_EQ(callsOf(chainsWithAll), 1U);
    EXPECT_EQ(callsOf(hostInformationHandler), 1U);
    EXPECT_EQ(callsOf(userHandler), 1U);
}

void chainsFromFurtherDown(int signalNumber, siginfo* information, void* context) {
    volatile char room[largeFrame];
    for (volatile char& byte : room) {
        byte = 0;
    }
    displaced.sa_sigaction(signalNumber, information, context);
    room[1] = room[0];
}

// What the one that was left had on the stack is overwritten.
TEST_F(Chain, IsNotADeliveryThatComesFromFurtherDownAfterTheHandlerHasLeft) {
    m_manager.setHandlerFromFunction(theSignal, leavesOnce);
    struct sigaction chaining = {};
    chaining.sa_sigaction = chainsFromFurtherDown;
    chaining.sa_flags = SA_SIGINFO;
    for (unsigned int delivery = 1; delivery <= 2; ++delivery) {
        if (sigsetjmp(outside, 1) == 0) {
            raise(theSignal);
        }
        EXPECT_EQ(callsOf(leavesOnce), delivery);
        sigaction(theSignal, &chaining, &displaced);
    }
}

sigjmp_buf inside;

void leavesToTheHandler(int) {
    siglongjmp(inside, 1);
}

void chainsAfterAnotherHandlerHasLeft(int signalNumber, siginfo* information, void* context) {
    noteCall(addressOf(chainsAfterAnotherHandlerHasLeft), signalNumber, information, context);
    if (sigsetjmp(inside, 1) == 0) {
        raise(SIGUSR2);
    }
    if (callsOf(chainsAfterAnotherHandlerHasLeft) < 5) {
        displaced.sa_sigaction(signalNumber, information, context);
    }
}

TEST_F(Chain, CallsEachHandlerOnceAlsoIfTheHandlerOfAnotherSignalHasLeft) {
    m_manager.setHandlerFromFunction(SIGUSR2, leavesToTheHandler);
    struct sigaction chaining = {};
    chaining.sa_sigaction = chainsAfterAnotherHandlerHasLeft;
    chaining.sa_flags = SA_SIGINFO;
    sigaction(theSignal, &chaining, &displaced);
    m_manager.handleSignal(theSignal);
    raise(theSignal);
    EXPECT_EQ(callsOf(chainsAfterAnotherHandlerHasLeft), 1U);
    EXPECT_EQ(callsOf(userHandler), 1U);
}

// Two addresses that the registers happen to hold.
void chainsWithTwoThatLieTogether(int signalNumber) {
    noteCall(addressOf(chainsWithTwoThatLieTogether), signalNumber);
    siginfo leftOver[2] = {};
    if (callsOf(chainsWithTwoThatLieTogether) < 5) {
        displaced.sa_sigaction(signalNumber, &leftOver[0], &leftOver[1]);
    }
}

TEST_F(Chain, CallsEachHandlerOnceAlsoIfWhatIsLeftOverBesideTheNumberLiesTogether) {
    struct sigaction chaining = {};
    chaining.sa_handler = chainsWithTwoThatLieTogether;
    sigaction(theSignal, &chaining, &displaced);
    m_manager.handleSignal(theSignal);
    raise(theSignal);
    expectEachCalledOnce(addressOf(chainsWithTwoThatLieTogether));
}

}  // namespace
