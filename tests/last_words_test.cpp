// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Subscribers of a signal whose handler of the host's gives up, and those who end the process by
// the default action themselves. What they are called with, and how the process ends.

#include <gtest/gtest.h>
#include <sched.h>
#include <sorvane/svsignalsubscription.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <memory>

#include "support/child_process.h"
#include "support/faults.h"
#include "support/gate.h"
#include "support/joining_thread.h"
#include "support/manager_fixture.h"
#include "support/sanitizers.h"

namespace {

using Subscription = Sorvane::SVSignalSubscription;
using Sorvane::endByDefaultAction;

class LastWords : public ManagerTest {};
class EndByDefaultAction : public ManagerTest {};

void givesUp(int signalNumber) {
    noteCall(addressOf(givesUp), signalNumber);
    signal(signalNumber, SIG_DFL);
    raise(signalNumber);
}

void givesUpAndReturns(int signalNumber) {
    noteCall(addressOf(givesUpAndReturns), signalNumber);
    signal(signalNumber, SIG_DFL);
}

// --- Last words ----------------------------------------------------------------------------------

TEST_F(LastWords, AreHadOnceIfTheHostsHandlerRaisesItsSignalAgain) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "signals are delivered one after the other here";
    }
    for (const int signalNumber : {SIGSEGV, SIGBUS, SIGHUP}) {
        forgetCalls();
        const ChildEnd end = inChildWithoutCore([=] {
            hostInstalls(signalNumber, givesUp);
            const Subscription one(signalNumber, userInformationHandler);
            const Subscription other(signalNumber, userHandler);
            sigqueue(getpid(), signalNumber, sigval{.sival_int = 7});
        });
        EXPECT_TRUE(end.endedBySignalQ(signalNumber)) << signalNumber << ": " << end;
        EXPECT_EQ(callsOf(givesUp), 1U);
        EXPECT_EQ(callsOf(userInformationHandler), 1U);
        EXPECT_EQ(callsOf(userHandler), 1U);
        ASSERT_EQ(callCount(), 3U);
        EXPECT_EQ(callAt(0).function, addressOf(givesUp)) << "the host comes first";
    }
}

TEST_F(LastWords, HaveTheInformationOfTheSignal) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "signals are delivered one after the other here";
    }
    const ChildEnd end = inChildWithoutCore([] {
        hostInstalls(SIGHUP, givesUp);
        const Subscription subscription(SIGHUP, userInformationHandler);
        sigqueue(getpid(), SIGHUP, sigval{.sival_int = 7});
    });
    EXPECT_TRUE(end.endedBySignalQ(SIGHUP)) << end;
    ASSERT_EQ(callsOf(userInformationHandler), 1U);
    EXPECT_EQ(lastCall().informationCopy.si_code, SI_QUEUE);
    EXPECT_EQ(lastCall().informationCopy.si_value.sival_int, 7);
    EXPECT_NE(lastCall().context, nullptr);
}

TEST_F(LastWords, AreHadOnceIfTheHostsHandlerReturnsToTheFault) {
    SKIP_WITHOUT_FAULTS();
    ClosedPage page;
    const ChildEnd end = inChildWithoutCore([&page] {
        hostInstalls(SIGSEGV, givesUpAndReturns);
        const Subscription subscription(SIGSEGV, userInformationHandler);
        writeTo(page.address());
    });
    EXPECT_TRUE(end.endedBySignalQ(SIGSEGV)) << end;
    EXPECT_EQ(callsOf(givesUpAndReturns), 1U);
    ASSERT_EQ(callsOf(userInformationHandler), 1U);
    EXPECT_EQ(lastCall().informationCopy.si_addr, page.address());
    EXPECT_NE(lastCall().context, nullptr);
}

TEST_F(LastWords, OfABusErrorAreHadOnceIfTheHostsHandlerReturnsToTheFault) {
    SKIP_WITHOUT_FAULTS();
    TruncatedFile file;
    const ChildEnd end = inChildWithoutCore([&file] {
        hostInstalls(SIGBUS, givesUpAndReturns);
        const Subscription subscription(SIGBUS, userInformationHandler);
        writeTo(file.address());
    });
    EXPECT_TRUE(end.endedBySignalQ(SIGBUS)) << end;
    EXPECT_EQ(callsOf(givesUpAndReturns), 1U);
    EXPECT_EQ(callsOf(userInformationHandler), 1U);
}

void ignoresAndReturns(int signalNumber) {
    noteCall(addressOf(ignoresAndReturns), signalNumber);
    signal(signalNumber, SIG_IGN);
}

// The system lets nobody ignore a fault.
TEST_F(LastWords, AreHadIfTheHostsHandlerIgnoresTheFaultThatItReturnsTo) {
    SKIP_WITHOUT_FAULTS();
    ClosedPage page;
    const ChildEnd end = inChildWithoutCore([&page] {
        hostInstalls(SIGSEGV, ignoresAndReturns);
        const Subscription subscription(SIGSEGV, userHandler);
        writeTo(page.address());
    });
    EXPECT_TRUE(end.endedBySignalQ(SIGSEGV)) << end;
    EXPECT_EQ(callsOf(userHandler), 1U);
}

void leavesItToTheOneBefore(int signalNumber) {
    noteCall(addressOf(leavesItToTheOneBefore), signalNumber);
    hostInstalls(signalNumber, givesUp);
    raise(signalNumber);
}

TEST_F(LastWords, AreHadIfTheHandlerThatWasLeftGivesUp) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "signals are delivered one after the other here";
    }
    const ChildEnd end = inChildWithoutCore([] {
        hostInstalls(SIGHUP, leavesItToTheOneBefore);
        const Subscription subscription(SIGHUP, userHandler);
        raise(SIGHUP);
    });
    EXPECT_TRUE(end.endedBySignalQ(SIGHUP)) << end;
    EXPECT_EQ(callsOf(leavesItToTheOneBefore), 1U);
    EXPECT_EQ(callsOf(givesUp), 1U);
    EXPECT_EQ(callsOf(userHandler), 1U);
}

void returns(int signalNumber) {
    noteCall(addressOf(returns), signalNumber);
}

TEST_F(LastWords, AreHadIfTheHostsHandlerWasToBeCalledOnceAndReturnsToTheFault) {
    SKIP_WITHOUT_FAULTS();
    const ChildEnd end = inChildWithoutCore([] {
        const ClosedPage page;
        hostInstalls(SIGSEGV, returns, static_cast<int>(SA_RESETHAND));
        const Subscription subscription(SIGSEGV, userHandler);
        writeTo(page.address());
    });
    EXPECT_TRUE(end.endedBySignalQ(SIGSEGV)) << end;
    EXPECT_EQ(callsOf(returns), 1U);
    EXPECT_EQ(callsOf(userHandler), 1U);
}

Gate* speaking = nullptr;
Gate* otherGaveUp = nullptr;
std::atomic<bool> oneSpeaks{false};

void speaksSlowly(int signalNumber) {
    noteCall(addressOf(speaksSlowly), signalNumber);
    oneSpeaks = true;
    speaking->open();
    otherGaveUp->pass();
    // If the other one ended the process now, it would have done it by then.
    for (int i = 0; i < 20000; ++i) {
        sched_yield();
    }
    noteCall(addressOf(returns), signalNumber);
}

// The other thread is about to end the process, and waits.
void givesUpOnEither(int signalNumber) {
    if (oneSpeaks) {
        otherGaveUp->open();
    }
    givesUp(signalNumber);
}

TEST_F(LastWords, AreWaitedForByAnotherThreadThatGivesUp) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "signals are delivered one after the other here";
    }
    const ChildEnd end = inChildWithoutCore([] {
        Gate theirs;
        Gate others;
        speaking = &theirs;
        otherGaveUp = &others;
        hostInstalls(SIGHUP, givesUpOnEither);
        const Subscription subscription(SIGHUP, speaksSlowly);
        const JoiningThread other([] {
            speaking->pass();
            raise(SIGHUP);
        });
        raise(SIGHUP);
    });
    EXPECT_TRUE(end.endedBySignalQ(SIGHUP)) << end;
    EXPECT_EQ(callsOf(speaksSlowly), 1U);
    EXPECT_EQ(callsOf(returns), 1U) << "to their end";
}

TEST_F(LastWords, AreHadOfEndedSubscriptionsByNobody) {
    const ChildEnd end = inChildWithoutCore([] {
        hostInstalls(SIGHUP, givesUp);
        const Subscription staying(SIGHUP, userHandler);
        const Subscription ofAnotherSignal(SIGSEGV, userInformationHandler);
        { const Subscription ended(SIGHUP, otherUserHandler); }
        raise(SIGHUP);
    });
    EXPECT_TRUE(end.endedBySignalQ(SIGHUP)) << end;
    EXPECT_EQ(callsOf(userHandler), 1U);
    EXPECT_EQ(callsOf(otherUserHandler), 0U);
    EXPECT_EQ(callsOf(userInformationHandler), 0U);
}

TEST_F(LastWords, AreNotForThoseWhoHaveRegistered) {
    const ChildEnd end = inChildWithoutCore([] {
        hostInstalls(SIGHUP, givesUp);
        Manager manager(true);
        manager.setHandlerFromFunction(SIGHUP, otherUserHandler);
        manager.startHandlingSignals();
        raise(SIGHUP);
    });
    EXPECT_TRUE(end.endedBySignalQ(SIGHUP)) << end;
    EXPECT_EQ(callsOf(otherUserHandler), 0U);
}

TEST_F(LastWords, AreNotHadIfTheHostsHandlerGoesOn) {
    hostInstalls(SIGHUP, hostHandler);
    const Subscription subscription(SIGHUP, userHandler);
    raise(SIGHUP);
    EXPECT_EQ(callsOf(hostHandler), 1U);
    EXPECT_EQ(callsOf(userHandler), 0U);
}

// Out of habit; nothing is to come.
TEST_F(LastWords, AreNotHadIfNothingIsToCome) {
    hostInstalls(SIGHUP, givesUpAndReturns);
    const Subscription subscription(SIGHUP, userHandler);
    raise(SIGHUP);
    raise(SIGHUP);
    EXPECT_EQ(callsOf(givesUpAndReturns), 2U);
    EXPECT_EQ(callsOf(userHandler), 0U);
    EXPECT_TRUE(takenOverQ(SIGHUP));
}

void leavesItToAnother(int signalNumber) {
    noteCall(addressOf(leavesItToAnother), signalNumber);
    hostInstalls(signalNumber, otherHostHandler);
    raise(signalNumber);
}

TEST_F(LastWords, AreNotHadIfTheSignalGoesToAnotherHandler) {
    hostInstalls(SIGHUP, leavesItToAnother);
    const Subscription subscription(SIGHUP, userHandler);
    raise(SIGHUP);
    EXPECT_EQ(callsOf(otherHostHandler), 1U);
    EXPECT_EQ(callsOf(userHandler), 0U);
}

void ignoresAndRaises(int signalNumber) {
    noteCall(addressOf(ignoresAndRaises), signalNumber);
    signal(signalNumber, SIG_IGN);
    raise(signalNumber);
}

TEST_F(LastWords, AreNotHadIfTheSignalIsIgnored) {
    hostInstalls(SIGHUP, ignoresAndRaises);
    const Subscription subscription(SIGHUP, userHandler);
    raise(SIGHUP);
    EXPECT_EQ(callsOf(ignoresAndRaises), 1U);
    EXPECT_EQ(callsOf(userHandler), 0U);
}

TEST_F(LastWords, OfAnOrdinarySignalHaveBeenHadAlready) {
    const ChildEnd end = inChildWithoutCore([] {
        hostInstalls(SIGTERM, givesUp);
        const Subscription subscription(SIGTERM, userHandler);
        raise(SIGTERM);
    });
    EXPECT_TRUE(end.endedBySignalQ(SIGTERM)) << end;
    EXPECT_EQ(callsOf(givesUp), 1U);
    EXPECT_EQ(callsOf(userHandler), 1U);
}

void endsTheProcess(int signalNumber) {
    noteCall(addressOf(endsTheProcess), signalNumber);
    _exit(17);
}

TEST_F(LastWords, MayEndTheProcess) {
    const ChildEnd end = inChildWithoutCore([] {
        hostInstalls(SIGHUP, givesUp);
        const Subscription subscription(SIGHUP, endsTheProcess);
        raise(SIGHUP);
    });
    EXPECT_TRUE(end.exitedWithQ(17)) << end;
}

// --- Without a handler of the host's -------------------------------------------------------------

TEST_F(LastWords, AreTheOrdinaryCallWithoutAHandlerOfTheHosts) {
    for (const int signalNumber : {SIGSEGV, SIGBUS, SIGHUP}) {
        forgetCalls();
        const ChildEnd end = inChildWithoutCore([=] {
            const Subscription subscription(signalNumber, userHandler);
            raise(signalNumber);
        });
        EXPECT_TRUE(end.exitedWithQ(0)) << signalNumber << ": " << end;
        EXPECT_EQ(callsOf(userHandler), 1U);
    }
}

// --- The default action --------------------------------------------------------------------------

void reportsAndEnds(int signalNumber) {
    noteCall(addressOf(reportsAndEnds), signalNumber);
    endByDefaultAction(signalNumber);
}

TEST_F(EndByDefaultAction, GivesTheProcessTheStatusOfItsSignal) {
    for (const int signalNumber : {SIGSEGV, SIGABRT, SIGTERM, SIGHUP, SIGBUS, SIGRTMIN}) {
        forgetCalls();
        const ChildEnd end = inChildWithoutCore([=] {
            const Subscription subscription(signalNumber, reportsAndEnds);
            raise(signalNumber);
        });
        EXPECT_TRUE(end.endedBySignalQ(signalNumber)) << signalNumber << ": " << end;
        EXPECT_EQ(callsOf(reportsAndEnds), 1U);
    }
}

TEST_F(EndByDefaultAction, EndsAbort) {
    const ChildEnd end = inChildWithoutCore([] {
        const Subscription subscription(SIGABRT, reportsAndEnds);
        std::abort();
    });
    EXPECT_TRUE(end.endedBySignalQ(SIGABRT)) << end;
    EXPECT_EQ(callsOf(reportsAndEnds), 1U);
}

TEST_F(EndByDefaultAction, EndsARealFault) {
    SKIP_WITHOUT_FAULTS();
    ClosedPage page;
    const ChildEnd end = inChildWithoutCore([&page] {
        const Subscription subscription(SIGSEGV, reportsAndEnds);
        writeTo(page.address());
    });
    EXPECT_TRUE(end.endedBySignalQ(SIGSEGV)) << end;
    EXPECT_EQ(callsOf(reportsAndEnds), 1U);
}

TEST_F(EndByDefaultAction, EndsTheProcessOnEveryThread) {
    const ChildEnd end = inChildWithoutCore([] {
        const Subscription subscription(SIGTERM, reportsAndEnds);
        JoiningThread([] { raise(SIGTERM); }).join();
    });
    EXPECT_TRUE(end.endedBySignalQ(SIGTERM)) << end;
}

TEST_F(EndByDefaultAction, IsForNormalContextToo) {
    const ChildEnd end = inChildWithoutCore([] {
        const BlockedSignals held{SIGTERM};
        hostInstalls(SIGTERM, hostHandler);
        endByDefaultAction(SIGTERM);
    });
    EXPECT_TRUE(end.endedBySignalQ(SIGTERM)) << end;
    EXPECT_EQ(callsOf(hostHandler), 0U);
}

TEST_F(EndByDefaultAction, ReturnsIfThatEndsNothing) {
    hostInstalls(SIGURG, hostHandler);
    errno = 4711;
    endByDefaultAction(SIGURG);
    EXPECT_EQ(errno, 4711);
    EXPECT_TRUE(defaultInSystemQ(SIGURG));
    EXPECT_EQ(callsOf(hostHandler), 0U);
}

TEST_F(EndByDefaultAction, DoesNothingForWhatNobodyMayHandle) {
    for (const int signalNumber : {-1, 0, SIGKILL, SIGSTOP, 65, 1000}) {
        errno = 4711;
        endByDefaultAction(signalNumber);
        EXPECT_EQ(errno, 4711);
    }
}

}  // namespace
