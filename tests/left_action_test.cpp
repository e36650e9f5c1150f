// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What becomes of a signal whose handler has put another action in its place: the one that is still
// to come goes to that, and not to the handler once more.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>
#include <unistd.h>

#include <csignal>
#include <vector>

#include "support/child_process.h"
#include "support/faults.h"
#include "support/joining_thread.h"
#include "support/manager_fixture.h"
#include "support/sanitizers.h"

namespace {

class LeftAction : public OneManagerTest {
protected:
    ~LeftAction() noexcept override = default;

    // With a user's handler beside the host's.
    void takeOver(int signalNumber) {
        m_manager.setHandlerFromFunction(signalNumber, userHandler);
        m_manager.startHandlingSignals();
    }
};

// --- A signal that is pending --------------------------------------------------------------------

void restoresTheDefaultAndRaises(int signalNumber) {
    noteCall(addressOf(restoresTheDefaultAndRaises), signalNumber);
    signal(signalNumber, SIG_DFL);
    raise(signalNumber);
}

void restoresTheDefaultAndKills(int signalNumber) {
    noteCall(addressOf(restoresTheDefaultAndKills), signalNumber);
    signal(signalNumber, SIG_DFL);
    kill(getpid(), signalNumber);
}

TEST_F(LeftAction, EndsTheProcessIfTheHandlerRestoresItAndRaisesItsSignal) {
    for (const int signalNumber : {SIGTERM, SIGINT, SIGHUP, SIGABRT, SIGSEGV, SIGRTMIN}) {
        const ChildEnd end = inChildWithoutCore([&] {
            hostInstalls(signalNumber, restoresTheDefaultAndRaises);
            takeOver(signalNumber);
            raise(signalNumber);
        });
        EXPECT_TRUE(end.endedBySignalQ(signalNumber)) << signalNumber << ": " << end;
        EXPECT_EQ(callsOf(restoresTheDefaultAndRaises), 1U) << signalNumber;
        forgetCalls();
    }
}

TEST_F(LeftAction, EndsTheProcessIfTheHandlerRestoresItAndSendsItsSignalToTheProcess) {
    const ChildEnd end = inChildWithoutCore([&] {
        hostInstalls(SIGTERM, restoresTheDefaultAndKills);
        takeOver(SIGTERM);
        raise(SIGTERM);
    });
    EXPECT_TRUE(end.endedBySignalQ(SIGTERM)) << end;
    EXPECT_EQ(callsOf(restoresTheDefaultAndKills), 1U);
}

void installsAnotherAndRaises(int signalNumber) {
    noteCall(addressOf(installsAnotherAndRaises), signalNumber);
    hostInstalls(signalNumber, otherHostHandler);
    raise(signalNumber);
}

TEST_F(LeftAction, GetsTheSignalThatIsPendingIfItIsAHandlerAndGivesItsPlaceUpAgain) {
    hostInstalls(SIGUSR1, installsAnotherAndRaises);
    takeOver(SIGUSR1);
    raise(SIGUSR1);
    EXPECT_EQ(callsOf(installsAnotherAndRaises), 1U);
    EXPECT_EQ(callsOf(otherHostHandler), 1U);
    EXPECT_EQ(callsOf(userHandler), 1U);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    sigset_t heldBack;
    pthread_sigmask(SIG_BLOCK, nullptr, &heldBack);
    EXPECT_EQ(sigismember(&heldBack, SIGUSR1), 0);
}

// As the code does that waits for it.
TEST_F(LeftAction, GetsNoPendingSignalThatTheInterruptedCodeHoldsBack) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "signals are delivered one after the other here";
    }
    hostInstalls(SIGUSR1, installsAnotherAndRaises);
    takeOver(SIGUSR1);
    {
        const BlockedSignals held{SIGUSR1};
        raise(SIGUSR1);
        held.waitForHandler();
        EXPECT_EQ(callsOf(installsAnotherAndRaises), 1U);
        EXPECT_EQ(callsOf(otherHostHandler), 0U);
        EXPECT_TRUE(takenOverQ(SIGUSR1));
    }
    EXPECT_EQ(callsOf(installsAnotherAndRaises), 2U);
    EXPECT_EQ(callsOf(otherHostHandler), 1U);
}

// Who calls it holds the signal back on purpose.
TEST_F(LeftAction, GetsNoPendingSignalAtTheEndOfACallByHand) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "signals are delivered one after the other here";
    }
    hostInstalls(SIGUSR1, installsAnotherAndRaises);
    takeOver(SIGUSR1);
    {
        const BlockedSignals held{SIGUSR1};
        actualSignalHandler(SIGUSR1, nullptr, nullptr);
        EXPECT_EQ(callsOf(otherHostHandler), 0U);
        EXPECT_TRUE(takenOverQ(SIGUSR1));
        sigset_t pending;
        sigpending(&pending);
        EXPECT_EQ(sigismember(&pending, SIGUSR1), 1);
    }
    EXPECT_EQ(callsOf(installsAnotherAndRaises), 2U);
    EXPECT_EQ(callsOf(otherHostHandler), 1U);
}

struct sigaction displaced;
bool heldBackAfterwards = false;

void chainsAndLooksWhatIsHeldBack(int signalNumber, siginfo* information, void* context) {
    displaced.sa_sigaction(signalNumber, information, context);
    sigset_t heldBack;
    pthread_sigmask(SIG_BLOCK, nullptr, &heldBack);
    heldBackAfterwards = sigismember(&heldBack, signalNumber) == 1;
}

// The kernel has called that one, and holds its signal back.
TEST_F(LeftAction, GetsThePendingSignalInAHandlerThatChainsAndLeavesItHeldBack) {
    hostInstalls(SIGUSR1, installsAnotherAndRaises);
    takeOver(SIGUSR1);
    struct sigaction chaining = {};
    chaining.sa_sigaction = chainsAndLooksWhatIsHeldBack;
    chaining.sa_flags = SA_SIGINFO;
    sigaction(SIGUSR1, &chaining, &displaced);
    raise(SIGUSR1);
    EXPECT_EQ(callsOf(otherHostHandler), 1U);
    EXPECT_TRUE(heldBackAfterwards);
}

unsigned int times = 0;

// As one does that was meant for systems on which it has to.
void installsItselfAndRaisesOnce(int signalNumber) {
    noteCall(addressOf(installsItselfAndRaisesOnce), signalNumber);
    hostInstalls(signalNumber, installsItselfAndRaisesOnce);
    if (++times == 1) {
        raise(signalNumber);
    }
}

TEST_F(LeftAction, IsNoneForTheSignalThatIsPendingIfTheHandlerInstallsItself) {
    hostInstalls(SIGUSR1, installsItselfAndRaisesOnce);
    takeOver(SIGUSR1);
    raise(SIGUSR1);
    EXPECT_EQ(callsOf(installsItselfAndRaisesOnce), 2U);
    EXPECT_EQ(callsOf(userHandler), 2U);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
}

void ignoresAndRaises(int signalNumber) {
    noteCall(addressOf(ignoresAndRaises), signalNumber);
    signal(signalNumber, SIG_IGN);
    raise(signalNumber);
}

TEST_F(LeftAction, ThatIgnoresIsFollowed) {
    hostInstalls(SIGUSR1, ignoresAndRaises);
    takeOver(SIGUSR1);
    raise(SIGUSR1);
    EXPECT_EQ(callsOf(ignoresAndRaises), 1U);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
}

void restoresTheDefault(int signalNumber) {
    noteCall(addressOf(restoresTheDefault), signalNumber);
    signal(signalNumber, SIG_DFL);
}

// Nothing is to come: the library is installed again, as always.
TEST_F(LeftAction, IsGoneIfNothingIsPending) {
    hostInstalls(SIGUSR1, restoresTheDefault);
    takeOver(SIGUSR1);
    for (int delivery = 0; delivery < 3; ++delivery) {
        raise(SIGUSR1);
        EXPECT_TRUE(takenOverQ(SIGUSR1));
    }
    EXPECT_EQ(callsOf(restoresTheDefault), 3U);
}

// --- A fault that comes again --------------------------------------------------------------------

TEST_F(LeftAction, EndsTheProcessIfTheHandlerRestoresItAndReturnsToTheFault) {
    SKIP_WITHOUT_FAULTS();
    const ChildEnd end = inChildWithoutCore([this] {
        const ClosedPage page;
        hostInstalls(SIGSEGV, restoresTheDefault);
        takeOver(SIGSEGV);
        writeTo(page.address());
    });
    EXPECT_TRUE(end.endedBySignalQ(SIGSEGV)) << end;
    EXPECT_EQ(callsOf(restoresTheDefault), 1U);
    EXPECT_EQ(callsOf(userHandler), 0U);
}

void ignores(int signalNumber) {
    noteCall(addressOf(ignores), signalNumber);
    signal(signalNumber, SIG_IGN);
}

TEST_F(LeftAction, EndsTheProcessIfTheHandlerIgnoresWhatItReturnsTo) {
    SKIP_WITHOUT_FAULTS();
    const ChildEnd end = inChildWithoutCore([this] {
        const ClosedPage page;
        hostInstalls(SIGSEGV, ignores);
        takeOver(SIGSEGV);
        writeTo(page.address());
    });
    EXPECT_TRUE(end.endedBySignalQ(SIGSEGV)) << end;
    EXPECT_EQ(callsOf(ignores), 1U);
}

const ClosedPage* thePage = nullptr;

void repairs(int signalNumber, siginfo* information, void* context) {
    noteCall(addressOf(repairs), signalNumber, information, context);
    thePage->open();
}

void leavesItToOneThatRepairs(int signalNumber) {
    noteCall(addressOf(leavesItToOneThatRepairs), signalNumber);
    hostInstalls(signalNumber, repairs);
}

TEST_F(LeftAction, GetsTheFaultThatComesAgainIfItIsAHandler) {
    SKIP_WITHOUT_FAULTS();
    const ClosedPage page;
    thePage = &page;
    hostInstalls(SIGSEGV, leavesItToOneThatRepairs);
    takeOver(SIGSEGV);
    writeTo(page.address());
    EXPECT_EQ(callsOf(leavesItToOneThatRepairs), 1U);
    ASSERT_EQ(callsOf(repairs), 1U);
    ASSERT_NE(lastCall().information, nullptr);
    EXPECT_EQ(lastCall().informationCopy.si_addr, page.address());
    EXPECT_NE(lastCall().context, nullptr);
    EXPECT_TRUE(takenOverQ(SIGSEGV));
    page.close();
    writeTo(page.address());
    EXPECT_EQ(callsOf(repairs), 2U) << "for as long as nobody replaces it";
}

void repairsAndGivesItsPlaceBack(int signalNumber);

void leavesItToOneThatComesBack(int signalNumber) {
    noteCall(addressOf(leavesItToOneThatComesBack), signalNumber);
    hostInstalls(signalNumber, repairsAndGivesItsPlaceBack);
}

void repairsAndGivesItsPlaceBack(int signalNumber) {
    noteCall(addressOf(repairsAndGivesItsPlaceBack), signalNumber);
    thePage->open();
    hostInstalls(signalNumber, leavesItToOneThatComesBack);
}

TEST_F(LeftAction, EndsWhenTheOneOnRecordIsInstalledAgain) {
    SKIP_WITHOUT_FAULTS();
    const ClosedPage page;
    thePage = &page;
    hostInstalls(SIGSEGV, leavesItToOneThatComesBack);
    takeOver(SIGSEGV);
    for (unsigned int fault = 1; fault <= 3; ++fault) {
        page.close();
        writeTo(page.address());
        EXPECT_EQ(callsOf(leavesItToOneThatComesBack), fault);
        EXPECT_EQ(callsOf(repairsAndGivesItsPlaceBack), fault);
    }
    EXPECT_TRUE(takenOverQ(SIGSEGV));
}

// What one thread's handler leaves does not take the place of what another one's has left.
TEST_F(LeftAction, IsEachThreadsOwn) {
    SKIP_WITHOUT_FAULTS();
    const ClosedPage page;
    const ClosedPage otherThreads;
    hostInstalls(SIGSEGV, leavesItToOneThatRepairs);
    takeOver(SIGSEGV);
    const auto fault = [](const ClosedPage& closed) {
        thePage = &closed;
        writeTo(closed.address());
        closed.close();
    };
    fault(page);
    {
        const JoiningThread other([&] { fault(otherThreads); });
    }
    EXPECT_EQ(callsOf(leavesItToOneThatRepairs), 2U);
    fault(page);
    EXPECT_EQ(callsOf(leavesItToOneThatRepairs), 2U);
    EXPECT_EQ(callsOf(repairs), 3U);
}

const ClosedPage* otherPage = nullptr;
unsigned int faults = 0;

// As a handler does that was meant for systems on which it has to.
void installsItselfAndRepairsTheSecondTime(int signalNumber) {
    noteCall(addressOf(installsItselfAndRepairsTheSecondTime), signalNumber);
    hostInstalls(signalNumber, installsItselfAndRepairsTheSecondTime);
    if (++faults == 2) {
        thePage->open();
    }
}

TEST_F(LeftAction, IsNoneIfTheHandlerInstallsItself) {
    SKIP_WITHOUT_FAULTS();
    const ClosedPage page;
    thePage = &page;
    hostInstalls(SIGSEGV, installsItselfAndRepairsTheSecondTime);
    takeOver(SIGSEGV);
    Record beside(SIGSEGV, otherUserHandler, false, true, true);
    m_manager.setHandler(beside);
    writeTo(page.address());
    EXPECT_EQ(callsOf(installsItselfAndRepairsTheSecondTime), 2U);
    EXPECT_EQ(callsOf(otherUserHandler), 2U);
    EXPECT_TRUE(takenOverQ(SIGSEGV));
}

// Out of habit, and repairs all the same.
void restoresTheDefaultAndRepairs(int signalNumber) {
    noteCall(addressOf(restoresTheDefaultAndRepairs), signalNumber);
    signal(signalNumber, SIG_DFL);
    thePage->open();
    otherPage->open();
}

TEST_F(LeftAction, HasNothingToDoWithAFaultAtAnotherPlace) {
    SKIP_WITHOUT_FAULTS();
    const ClosedPage page;
    const ClosedPage another;
    thePage = &page;
    otherPage = &another;
    hostInstalls(SIGSEGV, restoresTheDefaultAndRepairs);
    takeOver(SIGSEGV);
    writeTo(page.address());
    another.close();
    writeTo(another.address());
    another.close();
    EXPECT_EQ(readFrom(another.address()), 1) << "of another instruction";
    EXPECT_EQ(callsOf(restoresTheDefaultAndRepairs), 3U);
    EXPECT_TRUE(takenOverQ(SIGSEGV));
}

TEST_F(LeftAction, IsForgottenWhenTheSignalChangesHands) {
    SKIP_WITHOUT_FAULTS();
    const ClosedPage page;
    thePage = &page;
    otherPage = &page;
    hostInstalls(SIGSEGV, restoresTheDefaultAndRepairs);
    takeOver(SIGSEGV);
    writeTo(page.address());
    m_manager.stopHandlingSignals();
    m_manager.startHandlingSignals();
    page.close();
    writeTo(page.address());
    EXPECT_EQ(callsOf(restoresTheDefaultAndRepairs), 2U);
    EXPECT_TRUE(takenOverQ(SIGSEGV));
}

void restoresTheDefaultOnceAndRepairs(int signalNumber) {
    noteCall(addressOf(restoresTheDefaultOnceAndRepairs), signalNumber);
    if (callsOf(restoresTheDefaultOnceAndRepairs) == 1) {
        signal(signalNumber, SIG_DFL);
    }
    thePage->open();
}

TEST_F(LeftAction, IsForgottenWhenItsSignalIsSentBeforeTheFaultComesAgain) {
    SKIP_WITHOUT_FAULTS();
    const ClosedPage page;
    thePage = &page;
    hostInstalls(SIGSEGV, restoresTheDefaultOnceAndRepairs);
    takeOver(SIGSEGV);
    writeTo(page.address());
    raise(SIGSEGV);
    page.close();
    writeTo(page.address());
    EXPECT_EQ(callsOf(restoresTheDefaultOnceAndRepairs), 3U);
    EXPECT_TRUE(takenOverQ(SIGSEGV));
}

// A signal that was sent has no instruction that brings it again.
TEST_F(LeftAction, HasNothingToDoWithASignalThatIsSent) {
    hostInstalls(SIGSEGV, restoresTheDefault);
    takeOver(SIGSEGV);
    for (int delivery = 0; delivery < 3; ++delivery) {
        raise(SIGSEGV);
    }
    EXPECT_EQ(callsOf(restoresTheDefault), 3U);
    EXPECT_TRUE(takenOverQ(SIGSEGV));
}

// The other thread has the same instruction fault at the same address.
TEST_F(LeftAction, HasNothingToDoWithAFaultOfAnotherThread) {
    SKIP_WITHOUT_FAULTS();
    const ClosedPage page;
    const ClosedPage another;
    thePage = &page;
    otherPage = &another;
    hostInstalls(SIGSEGV, restoresTheDefaultAndRepairs);
    takeOver(SIGSEGV);
    writeTo(page.address());
    page.close();
    JoiningThread([&page] { writeTo(page.address()); }).join();
    EXPECT_EQ(callsOf(restoresTheDefaultAndRepairs), 2U);
    EXPECT_TRUE(takenOverQ(SIGSEGV));
}

void repairsAndChains(int signalNumber, siginfo* information, void* context) {
    noteCall(addressOf(repairsAndChains), signalNumber, information, context);
    thePage->open();
    if (callsOf(repairsAndChains) < 100) {
        displaced.sa_sigaction(signalNumber, information, context);
    }
}

void leavesItOnceToOneThatChains(int signalNumber) {
    noteCall(addressOf(leavesItOnceToOneThatChains), signalNumber);
    if (callsOf(leavesItOnceToOneThatChains) == 1) {
        struct sigaction chaining = {};
        chaining.sa_sigaction = repairsAndChains;
        chaining.sa_flags = SA_SIGINFO;
        sigaction(signalNumber, &chaining, &displaced);
    }
}

TEST_F(LeftAction, IsCalledOnceForAFaultAlsoIfItChains) {
    SKIP_WITHOUT_FAULTS();
    const ClosedPage page;
    thePage = &page;
    hostInstalls(SIGSEGV, leavesItOnceToOneThatChains);
    takeOver(SIGSEGV);
    writeTo(page.address());
    EXPECT_EQ(callsOf(repairsAndChains), 1U);
    EXPECT_EQ(callsOf(leavesItOnceToOneThatChains), 2U);
}

}  // namespace
