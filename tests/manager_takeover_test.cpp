// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Switching signal handling on and off, and the dispositions that say for which signals.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <csignal>
#include <memory>
#include <vector>

#include "support/manager_fixture.h"
#include "support/watched_lock.h"

namespace {

using Sorvane::SVSignalHandlerDispositionSet;

class Takeover : public ManagerTest {};

TEST_F(Takeover, StartWithoutAnyHandlerInstallsNothingAndStillCountsAsHandling) {
    Manager manager(true);
    const std::vector<void*> before = systemHandlers();
    manager.startHandlingSignals();
    EXPECT_EQ(systemHandlers(), before);
    EXPECT_TRUE(Manager::currentlyHandlingSignals);
    EXPECT_EQ(Manager::handlerTables->used, 0U);
}

TEST_F(Takeover, SecondStartDoesNothing) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    hostInstalls(SIGUSR1, hostHandler);
    manager.startHandlingSignals();
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
}

TEST_F(Takeover, SignalWhoseHandlersWereAllClearedIsSkippedByStartButIgnoredByStop) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.clearHandlerWithFunction(SIGUSR1, userHandler);
    ASSERT_NE(tableOf(SIGUSR1), nullptr);
    ASSERT_EQ(recordCount(SIGUSR1), 0U);
    manager.startHandlingSignals();
    EXPECT_TRUE(defaultInSystemQ(SIGUSR1));
    manager.stopHandlingSignals();
    EXPECT_TRUE(ignoredInSystemQ(SIGUSR1));
}

TEST_F(Takeover, ForbiddenSignalWhoseHandlersWereAllClearedIsNotIgnoredByStop) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.clearHandlerWithFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    manager.setSignalDisposition(SIGUSR1, false);
    manager.stopHandlingSignals();
    EXPECT_TRUE(defaultInSystemQ(SIGUSR1));
}

TEST_F(Takeover, StopPutsTheActionThatPreExistedBackWhole) {
    struct sigaction host = {};
    host.sa_sigaction = hostInformationHandler;
    host.sa_flags = SA_SIGINFO | SA_NODEFER;
    host.sa_mask = setOf({SIGINT, SIGTERM});
    ASSERT_EQ(sigaction(SIGUSR1, &host, nullptr), 0);

    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    ASSERT_TRUE(takenOverQ(SIGUSR1));
    manager.stopHandlingSignals();

    const struct sigaction back = systemAction(SIGUSR1);
    EXPECT_EQ(back.sa_sigaction, hostInformationHandler);
    EXPECT_NE(back.sa_flags & SA_SIGINFO, 0);
    EXPECT_NE(back.sa_flags & SA_NODEFER, 0);
    EXPECT_EQ(back.sa_flags & SA_RESTART, 0);
    EXPECT_EQ(sigismember(&back.sa_mask, SIGINT), 1);
    EXPECT_EQ(sigismember(&back.sa_mask, SIGTERM), 1);
    EXPECT_EQ(sigismember(&back.sa_mask, SIGUSR2), 0);
}

TEST_F(Takeover, StopOfASignalThatNobodyHadLeavesItIgnored) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    manager.stopHandlingSignal(SIGUSR1);
    EXPECT_TRUE(ignoredInSystemQ(SIGUSR1));
}

// Whoever hands one signal back says so deliberately, and an invalid record is still what the host
// had; the restoration at the end puts back only what counts.
TEST_F(Takeover, InvalidPreExistingRecordIsPutBackByStopButNotByTheRestoration) {
    Manager manager(true);
    makeTableOf(manager, SIGUSR1);
    putIntoTable(Record(SIGUSR1, hostHandler, true, true, false));
    manager.restorePreviouslyExistingHandlers();
    EXPECT_TRUE(defaultInSystemQ(SIGUSR1));
    manager.stopHandlingSignal(SIGUSR1);
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
}

TEST_F(Takeover, SignalZeroAndThoseAboveSixtyAreWalkedByNeitherStartNorStop) {
    Manager manager(true);
    for (const int signalNumber : {0, 61, 64}) {
        makeTableOf(manager, signalNumber);
        putIntoTable(hostRecord(signalNumber, hostHandler));
    }
    // Walking signal 0 would fail loudly, for the operating system has no such signal.
    manager.startHandlingSignals();
    EXPECT_TRUE(defaultInSystemQ(61));
    EXPECT_TRUE(defaultInSystemQ(64));
    manager.stopHandlingSignals();
    EXPECT_TRUE(defaultInSystemQ(61));
    EXPECT_TRUE(defaultInSystemQ(64));
}

TEST_F(Takeover, StopOfAForbiddenSignalChangesNothingEvenIfItIsTakenOver) {
    hostInstalls(SIGUSR1, hostHandler);
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    manager.setSignalDisposition(SIGUSR1, false);
    manager.stopHandlingSignal(SIGUSR1);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    manager.stopHandlingSignals();
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    EXPECT_EQ(recordCount(SIGUSR1), 2U);
}

TEST_F(Takeover, StartTakesOverExactlyTheSignalsThatHaveRecords) {
    Manager manager(true);
    const std::vector<void*> before = systemHandlers();
    manager.setHandlerFromFunction(SIGINT, userHandler);
    manager.setHandlerFromFunction(SIGTERM, userInformationHandler);
    manager.setHandlerFromFunction(60, userHandler);
    EXPECT_EQ(systemHandlers(), before) << "registration alone installs nothing";
    manager.startHandlingSignals();
    for (const int signalNumber : ordinarySignals()) {
        const bool wanted = signalNumber == SIGINT || signalNumber == SIGTERM || signalNumber == 60;
        EXPECT_EQ(takenOverQ(signalNumber), wanted) << signalNumber;
    }
}

TEST_F(Takeover, StartKeepsWhatPreExistedAsARecordWithAllItsFlags) {
    hostInstalls(SIGUSR1, hostHandler);
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    const Record* const host = recordOf(SIGUSR1, hostHandler);
    ASSERT_NE(host, nullptr);
    EXPECT_TRUE(host->preExistsQ());
    EXPECT_TRUE(host->externalQ());
    EXPECT_TRUE(host->validQ());
    EXPECT_EQ(host->getSignalNumber(), SIGUSR1);
    EXPECT_EQ(recordCount(SIGUSR1), 2U);
}

// The disposition is tested where a signal is taken over, and nowhere before.
TEST_F(Takeover, StartLeavesAForbiddenSignalWithRecordsAloneAndStillCountsAsHandling) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.setSignalDisposition(SIGUSR1, false);
    manager.startHandlingSignals();
    EXPECT_TRUE(defaultInSystemQ(SIGUSR1));
    EXPECT_TRUE(Manager::currentlyHandlingSignals);
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
}

TEST_F(Takeover, StartTakesSignalsOverInIncreasingOrderAndCountsAsHandlingOnlyAtItsEnd) {
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    Manager manager(true);
    for (const int signalNumber : {SIGTERM, SIGINT, SIGUSR1}) {
        manager.setHandlerFromFunction(signalNumber, userHandler);
    }
    std::vector<std::vector<int>> takenOver;
    bool handlingEarly = false;
    log->onTaken = [&] {
        std::vector<int> now;
        for (const int signalNumber : {SIGINT, SIGUSR1, SIGTERM}) {
            if (takenOverQ(signalNumber)) {
                now.push_back(signalNumber);
            }
        }
        if (takenOver.empty() || takenOver.back() != now) {
            takenOver.push_back(now);
        }
        handlingEarly = handlingEarly || Manager::currentlyHandlingSignals;
    };
    manager.startHandlingSignals();
    log->onTaken = nullptr;
    const std::vector<std::vector<int>> increasing = {
        {}, {SIGINT}, {SIGINT, SIGUSR1}, {SIGINT, SIGUSR1, SIGTERM}};
    EXPECT_EQ(takenOver, increasing);
    EXPECT_FALSE(handlingEarly);
    EXPECT_TRUE(Manager::currentlyHandlingSignals);
}

TEST_F(Takeover, StopOfOneSignalWorksWithoutSignalsBeingHandledAndLeavesTablesAndFlag) {
    hostInstalls(SIGUSR1, hostHandler);
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.handleSignal(SIGUSR1);
    ASSERT_FALSE(Manager::currentlyHandlingSignals);
    manager.stopHandlingSignal(SIGUSR1);
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
    EXPECT_EQ(recordCount(SIGUSR1), 2U);
    EXPECT_FALSE(Manager::currentlyHandlingSignals);
}

TEST_F(Takeover, StopOfOneSignalLeavesTheOthersHandled) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.setHandlerFromFunction(SIGUSR2, userHandler);
    manager.startHandlingSignals();
    manager.stopHandlingSignal(SIGUSR1);
    EXPECT_TRUE(Manager::currentlyHandlingSignals);
    EXPECT_TRUE(takenOverQ(SIGUSR2));
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
}

TEST_F(Takeover, StopOfASignalWithoutATableDoesNothing) {
    Manager manager(true);
    const std::vector<void*> before = systemHandlers();
    manager.stopHandlingSignal(SIGUSR1);
    manager.stopHandlingSignal(0);
    manager.stopHandlingSignal(-1);
    manager.stopHandlingSignal(1000);
    EXPECT_EQ(systemHandlers(), before);
}

TEST_F(Takeover, StopTakesTheFirstPreExistingRecordInSlotOrder) {
    Manager manager(true);
    makeTableOf(manager, SIGUSR1);
    putIntoTable(hostRecord(SIGUSR1, hostHandler));
    putIntoTable(hostRecord(SIGUSR1, otherHostHandler));
    putIntoTable(userRecord(SIGUSR1, userHandler));
    void* first = nullptr;
    for (void* const function : functionsInSlotOrder(SIGUSR1)) {
        if (first == nullptr && function != addressOf(userHandler)) {
            first = function;
        }
    }
    manager.stopHandlingSignal(SIGUSR1);
    EXPECT_EQ(systemHandler(SIGUSR1), first);
}

TEST_F(Takeover, StopPutsBackARecordThatIsOnlyPreExistingButNotOneThatIsOnlyExternal) {
    Manager manager(true);
    makeTableOf(manager, SIGUSR1);
    putIntoTable(Record(SIGUSR1, hostHandler, true, false, true));
    makeTableOf(manager, SIGUSR2);
    putIntoTable(Record(SIGUSR2, hostHandler, false, true, true));
    manager.stopHandlingSignal(SIGUSR1);
    manager.stopHandlingSignal(SIGUSR2);
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
    EXPECT_TRUE(ignoredInSystemQ(SIGUSR2));
}

TEST_F(Takeover, StopOfAllDoesNothingWhileSignalsAreNotHandled) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.handleSignal(SIGUSR1);
    manager.stopHandlingSignals();
    EXPECT_TRUE(takenOverQ(SIGUSR1));
}

TEST_F(Takeover, StopOfAllHandsEverySignalWithATableBack) {
    hostInstalls(SIGTERM, hostHandler);
    Manager manager(true);
    manager.setHandlerFromFunction(SIGINT, userHandler);
    manager.setHandlerFromFunction(SIGTERM, userHandler);
    manager.startHandlingSignals();
    manager.stopHandlingSignals();
    EXPECT_TRUE(ignoredInSystemQ(SIGINT));
    EXPECT_EQ(systemHandler(SIGTERM), addressOf(hostHandler));
    EXPECT_TRUE(defaultInSystemQ(SIGUSR1)) << "it never had a table";
    EXPECT_FALSE(Manager::currentlyHandlingSignals);
}

TEST_F(Takeover, RecordsSurviveAStopAndTheNextStartTakesTheSameSignalsOver) {
    hostInstalls(SIGUSR1, hostHandler);
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    manager.stopHandlingSignals();
    manager.startHandlingSignals();
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    EXPECT_EQ(recordCount(SIGUSR1), 2U) << "the host's handler is known already";
    raise(SIGUSR1);
    EXPECT_EQ(callsOf(userHandler), 1U);
    EXPECT_EQ(callsOf(hostHandler), 1U);
}

TEST_F(Takeover, IgnoringThatAStopLeftIsNotRecordedByTheNextStart) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    manager.stopHandlingSignals();
    manager.startHandlingSignals();
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
    manager.stopHandlingSignals();
    EXPECT_TRUE(ignoredInSystemQ(SIGUSR1));
}

TEST_F(Takeover, RegistrationAfterAStopInstallsNothing) {
    Manager manager(true);
    manager.startHandlingSignals();
    manager.stopHandlingSignals();
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    EXPECT_TRUE(defaultInSystemQ(SIGUSR1));
}

TEST_F(Takeover, StartedByOneManagerIsStartedForAll) {
    Manager first(true);
    Manager second(false);
    first.setHandlerFromFunction(SIGUSR1, userHandler);
    second.startHandlingSignals();
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    first.stopHandlingSignals();
    EXPECT_TRUE(ignoredInSystemQ(SIGUSR1));
    EXPECT_FALSE(Manager::currentlyHandlingSignals);
}

class Dispositions : public ManagerTest {};

TEST_F(Dispositions, AnswerIsWhatWasSetForThatSignalAlone) {
    Manager manager(true);
    manager.setSignalDisposition(SIGUSR1, false);
    EXPECT_FALSE(manager.getSignalDisposition(SIGUSR1));
    EXPECT_TRUE(manager.getSignalDisposition(SIGUSR2));
    manager.setSignalDisposition(SIGUSR1, true);
    EXPECT_TRUE(manager.getSignalDisposition(SIGUSR1));
}

// Two names for one question: callers ask in the words of what they are about to do.
TEST_F(Dispositions, BothQuestionsHaveTheSameAnswerForEverySignal) {
    Manager manager(false);
    for (int signalNumber = 1; signalNumber <= 60; signalNumber += 3) {
        manager.setSignalDisposition(signalNumber, !manager.getSignalDisposition(signalNumber));
    }
    for (int signalNumber = -1; signalNumber <= lastSystemSignal + 1; ++signalNumber) {
        EXPECT_EQ(manager.canHandleSignalFromDisposition(signalNumber),
                  manager.getSignalDisposition(signalNumber))
            << signalNumber;
        EXPECT_EQ(manager.getSignalDisposition(signalNumber), mayHandleQ(signalNumber))
            << signalNumber;
    }
}

TEST_F(Dispositions, AtFirstAllOfOneToSixtyMayBeHandledButWhatCannotBeCaughtOrIsTheCLibrarys) {
    Manager manager(false);
    for (int signalNumber = -1; signalNumber <= lastSystemSignal + 1; ++signalNumber) {
        const bool wanted = signalNumber >= 1 && signalNumber <= 60 && signalNumber != SIGKILL &&
                            signalNumber != SIGSTOP && signalNumber != 32 && signalNumber != 33;
        EXPECT_EQ(manager.getSignalDisposition(signalNumber), wanted) << signalNumber;
    }
}

TEST_F(Dispositions, NumbersOutsideOneToSixtyStayForbidden) {
    Manager manager(false);
    for (const int signalNumber : {-1, 0, 61, 64, 1000}) {
        manager.setSignalDisposition(signalNumber, true);
        EXPECT_FALSE(manager.getSignalDisposition(signalNumber)) << signalNumber;
    }
}

TEST_F(Dispositions, WholeSetReplacesEveryAnswer) {
    Manager manager(false);
    manager.setSignalDisposition(SIGUSR2, false);
    SVSignalHandlerDispositionSet set;
    set.doNotHandleSignal(SIGUSR1);
    set.handleSignal(SIGKILL);
    manager.setSignalDispositions(set);
    EXPECT_FALSE(manager.getSignalDisposition(SIGUSR1));
    EXPECT_TRUE(manager.getSignalDisposition(SIGUSR2));
    EXPECT_TRUE(manager.getSignalDisposition(SIGKILL));
    set.handleSignal(SIGUSR1);
    EXPECT_FALSE(manager.getSignalDisposition(SIGUSR1)) << "the manager keeps a copy";
}

TEST_F(Dispositions, ChangeTouchesNeitherTheTablesNorTheOperatingSystem) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    const std::vector<void*> before = systemHandlers();
    manager.setSignalDisposition(SIGUSR1, false);
    manager.setSignalDispositions(SVSignalHandlerDispositionSet());
    EXPECT_EQ(systemHandlers(), before);
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
}

// Dispositions say what may be changed; a handler that is registered goes on being called.
TEST_F(Dispositions, SignalThatBecomesForbiddenWhileHandledIsStillDispatched) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    manager.setSignalDisposition(SIGUSR1, false);
    raise(SIGUSR1);
    EXPECT_EQ(callsOf(userHandler), 1U);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
}

}  // namespace
