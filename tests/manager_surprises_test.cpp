// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What looks like a mistake and is not. Programs rely on each of these as it is; whoever wants to
// repair one finds the reason here.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <vector>

#include "support/child_process.h"
#include "support/collision.h"
#include "support/failure.h"
#include "support/faults.h"
#include "support/manager_fixture.h"

namespace {

class Surprise : public ManagerTest {};

// The default action of most signals ends the process, and one may be on its way while the signal
// is handed back. Ignoring is the only action that harms nobody.
TEST_F(Surprise, SignalThatNobodyHadIsLeftIgnoredWhenItIsHandedBack) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGTERM, userHandler);
    manager.startHandlingSignals();
    manager.stopHandlingSignals();
    raise(SIGTERM);
    EXPECT_EQ(callCount(), 0U);
    EXPECT_TRUE(ignoredInSystemQ(SIGTERM));
}

void* volatile nowhere = nullptr;

// The handlers have done what there was to do, and whoever waits for the process is not to see a
// second failure in the way it ended.
TEST_F(Surprise, FaultThatNoHostHandlerTakesEndsTheProcessWithStatusZero) {
    const ChildEnd end = inChild([] {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGSEGV, userHandler);
        manager.startHandlingSignals();
        writeTo(nowhere);
    });
    EXPECT_TRUE(end.exitedWithQ(0)) << end;
    EXPECT_EQ(callsOf(userHandler), 1U);
}

// A host that handles the signal knows how to go on after it; the users' handlers expect the end of
// the process, so they are not called then.
TEST_F(Surprise, HostHandlerOfAFatalSignalKeepsTheUsersHandlersFromBeingCalled) {
    hostInstalls(SIGHUP, hostHandler);
    Manager manager(true);
    manager.setHandlerFromFunction(SIGHUP, userHandler);
    manager.startHandlingSignals();
    raise(SIGHUP);
    EXPECT_EQ(callsOf(hostHandler), 1U);
    EXPECT_EQ(callsOf(userHandler), 0U);
}

// Handlers of these may know how to go on, unlike after a bad memory access; and abort() ends the
// process itself, with the status that everybody expects of it.
TEST_F(Surprise, AbortIsNotAmongTheFatalSignalsAndEndsTheProcessInItsOwnWay) {
    const ChildEnd end = inChild([] {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGABRT, userHandler);
        manager.startHandlingSignals();
        std::abort();
    });
    EXPECT_TRUE(end.endedBySignalQ(SIGABRT)) << end;
    EXPECT_EQ(callsOf(userHandler), 1U);
}

TEST_F(Surprise, IllegalInstructionsAndArithmeticErrorsAreNotAmongTheFatalSignals) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGILL, userHandler);
    manager.setHandlerFromFunction(SIGFPE, userHandler);
    manager.startHandlingSignals();
    raise(SIGILL);
    raise(SIGFPE);
    EXPECT_EQ(callsOf(userHandler), 2U);
}

void handlerThatHandsItsSignalBack(int signalNumber) {
    noteCall(addressOf(&handlerThatHandsItsSignalBack), signalNumber);
    Manager manager(false);
    manager.stopHandlingSignal(signalNumber);
}

// Handlers of foreign libraries like to reset their signal. The library can't tell that from a
// deliberate hand-back, and keeps what it has taken over.
TEST_F(Surprise, SignalIsTakenOverAgainAfterADispatchAlsoIfAHandlerHandedItBack) {
    hostInstalls(SIGUSR1, hostHandler);
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, handlerThatHandsItsSignalBack);
    manager.startHandlingSignals();
    raise(SIGUSR1);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    raise(SIGUSR1);
    EXPECT_EQ(callsOf(handlerThatHandsItsSignalBack), 2U);
}

// A walk through a table ends at a deleted slot, except at the first one. Which slot a key has is
// what the dump shows and the order of calls follows from, so the walk stays as it is.
TEST_F(Surprise, HandlerBehindADeletedSlotIsNotFoundAndRegisteredAgainIsCalledTwice) {
    const Collision handlers = findCollision();
    Manager manager(true);
    manager.startHandlingSignals();
    manager.setHandlerFromFunction(SIGUSR1, handlers.first);
    manager.setHandlerFromFunction(SIGUSR1, handlers.middle);
    manager.setHandlerFromFunction(SIGUSR1, handlers.last);
    ASSERT_NE(recordOf(SIGUSR1, handlers.last), nullptr);
    manager.clearHandlerWithFunction(SIGUSR1, handlers.middle);

    EXPECT_EQ(recordOf(SIGUSR1, handlers.last), nullptr);
    raise(SIGUSR1);
    EXPECT_EQ(callsOf(handlers.last), 1U) << "it can't be found, but it is still there";
    manager.clearHandlerWithFunction(SIGUSR1, handlers.last);
    EXPECT_EQ(recordCount(SIGUSR1), 2U) << "what can't be found can't be cleared";

    manager.setHandlerFromFunction(SIGUSR1, handlers.last);
    EXPECT_EQ(recordCount(SIGUSR1), 3U);
    forgetCalls();
    raise(SIGUSR1);
    EXPECT_EQ(callsOf(handlers.first), 1U);
    EXPECT_EQ(callsOf(handlers.middle), 0U);
    EXPECT_EQ(callsOf(handlers.last), 2U);
}

// A function says which entry to take out, and nothing of where it came from.
TEST_F(Surprise, ClearingByFunctionNeverHandsASignalBackNotEvenTheHostsLastHandler) {
    hostInstalls(SIGUSR1, hostHandler);
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    manager.clearHandlerWithFunction(SIGUSR1, userHandler);
    ASSERT_TRUE(recordOf(SIGUSR1, hostHandler)->preExistsQ());
    manager.clearHandlerWithFunction(SIGUSR1, hostHandler);
    EXPECT_EQ(recordCount(SIGUSR1), 0U);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    manager.stopHandlingSignals();
    EXPECT_TRUE(ignoredInSystemQ(SIGUSR1)) << "nothing is known of the host any more";
}

// Whoever clears says whether the signal goes back to that handler; the stored mark does not.
TEST_F(Surprise, MarkThatCountsInClearingIsThatOfTheGivenRecord) {
    Manager manager(true);
    Record storedAsHosts = hostRecord(SIGUSR1, userHandler);
    Record givenAsUsers = userRecord(SIGUSR1, userHandler);
    manager.setHandler(storedAsHosts);
    manager.clearHandler(givenAsUsers);
    EXPECT_TRUE(defaultInSystemQ(SIGUSR1));

    Record storedAsUsers = userRecord(SIGUSR2, userHandler);
    Record givenAsHosts = hostRecord(SIGUSR2, userHandler);
    manager.setHandler(storedAsUsers);
    manager.clearHandler(givenAsHosts);
    EXPECT_EQ(systemHandler(SIGUSR2), addressOf(userHandler))
        << "also while signals are not being handled";
}

// The later registration wins, whole: a signal has one record for each function.
TEST_F(Surprise, RegisteringTheVeryFunctionThatPreExistedTakesItsMarkAway) {
    hostInstalls(SIGUSR1, hostHandler);
    Manager manager(true);
    manager.handleSignal(SIGUSR1);
    ASSERT_TRUE(recordOf(SIGUSR1, hostHandler)->preExistsQ());
    manager.setHandlerFromFunction(SIGUSR1, hostHandler);
    EXPECT_FALSE(recordOf(SIGUSR1, hostHandler)->preExistsQ());
    manager.stopHandlingSignal(SIGUSR1);
    EXPECT_TRUE(ignoredInSystemQ(SIGUSR1));
}

TEST_F(Surprise, FunctionRegisteredBeforeItIsFoundInstalledIsNotPutBackEither) {
    hostInstalls(SIGUSR1, hostHandler);
    {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGUSR1, hostHandler);
        manager.startHandlingSignals();
    }
    EXPECT_TRUE(takenOverQ(SIGUSR1));
}

// Records are only ever taken out by those who clear them; the library can't know that the host
// has done with a handler of its own.
TEST_F(Surprise, HostHandlerChangedBetweenStopAndStartStaysRecordedBesideTheNewOne) {
    hostInstalls(SIGUSR1, hostHandler);
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    manager.stopHandlingSignals();
    hostInstalls(SIGUSR1, otherHostHandler);
    manager.startHandlingSignals();
    EXPECT_TRUE(recordOf(SIGUSR1, hostHandler)->preExistsQ());
    EXPECT_TRUE(recordOf(SIGUSR1, otherHostHandler)->preExistsQ());
    raise(SIGUSR1);
    EXPECT_EQ(callsOf(hostHandler), 1U);
    EXPECT_EQ(callsOf(otherHostHandler), 1U);
    EXPECT_EQ(callsOf(userHandler), 1U);
}

// What was in force is asked for when a signal is taken over, and at no other time.
TEST_F(Surprise, HostHandlerInstalledWhileSignalsAreHandledIsForgottenByTheStop) {
    hostInstalls(SIGUSR1, hostHandler);
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    hostInstalls(SIGUSR1, otherHostHandler);
    manager.stopHandlingSignals();
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
    EXPECT_EQ(recordOf(SIGUSR1, otherHostHandler), nullptr);
}

// A user registers, and lets its manager go, before another one starts.
TEST_F(Surprise, RegistrationsAndDispositionsSurviveTheLastManagerIfSignalsWereNotHandled) {
    {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGUSR1, userHandler);
        manager.setSignalDisposition(SIGUSR2, false);
    }
    Manager next(true);
    EXPECT_NE(recordOf(SIGUSR1, userHandler), nullptr);
    EXPECT_FALSE(next.getSignalDisposition(SIGUSR2));
}

// The lock is made by the first that needs it and deleted by the last that knows of it.
TEST_F(Surprise, LastManagerThatNeverLocksLeavesTheLockBehindAlsoInATeardown) {
    {
        Manager last(false);
        { const Manager locking(true); }
        ASSERT_NE(Manager::handlerTableLock, nullptr);
        last.startHandlingSignals();
    }
    EXPECT_EQ(Manager::handlerTables, nullptr);
    EXPECT_NE(Manager::handlerTableLock, nullptr);
}

sigjmp_buf recovery;

void handlerThatJumpsOut(int) {
    siglongjmp(recovery, 1);
}

void raiseAndComeBack(int signalNumber) {
    if (sigsetjmp(recovery, 1) == 0) {
        raise(signalNumber);
    }
}

// The jump skips the destructor of the manager that dispatch has on its stack, as it skips all.
TEST_F(Surprise, HandlerThatLeavesByALongJumpLeavesItsManagerCounted) {
    const ChildEnd end = inChild([] {
        {
            Manager manager(true);
            manager.setHandlerFromFunction(SIGUSR1, handlerThatJumpsOut);
            manager.startHandlingSignals();
            raiseAndComeBack(SIGUSR1);
            EXPECT_EQ(Manager::numberOfManagers, 2U);
            raiseAndComeBack(SIGUSR1);
            EXPECT_EQ(Manager::numberOfManagers, 3U);
        }
        EXPECT_EQ(Manager::numberOfManagers, 2U);
        EXPECT_NE(Manager::handlerTables, nullptr) << "the last was not the last one counted";
        EXPECT_TRUE(Manager::currentlyHandlingSignals);
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

// Nothing says for which signals the default action would be wanted back.
TEST_F(Surprise, SignalsWithoutAHostHandlerStayWithTheManagersHandlerAfterTheLastManager) {
    {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGUSR1, userHandler);
        manager.startHandlingSignals();
    }
    EXPECT_TRUE(takenOverQ(SIGUSR1));
}

// A dispatch's manager is a manager like any other, and here it is the first one and the last.
TEST_F(Surprise, SignalAfterTheLastManagerMakesTheTablesAgainAndCallsNothing) {
    {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGUSR1, userHandler);
        manager.startHandlingSignals();
    }
    ASSERT_EQ(Manager::handlerTables, nullptr);
    Manager::signalDispositionSet.doNotHandleSignal(SIGUSR2);
    raise(SIGUSR1);
    EXPECT_EQ(callCount(), 0U);
    ASSERT_NE(Manager::handlerTables, nullptr);
    EXPECT_EQ(Manager::handlerTables->used, 0U);
    EXPECT_TRUE(mayHandleQ(SIGUSR2)) << "whoever makes the tables resets the dispositions";
    EXPECT_EQ(Manager::numberOfManagers, 0U);
    EXPECT_EQ(Manager::handlerTableLock, nullptr);
}

// A manager has handled the signal, and its end has given it back.
void giveBackToHost() {
    hostInstalls(SIGUSR1, hostHandler);
    {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGUSR1, userHandler);
        manager.startHandlingSignals();
    }
    ASSERT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
}

// Nothing of an earlier life of the shared state is left in a dispatch.
TEST_F(Surprise, DispatchByHandAfterAnEarlierLifeIsAnOrdinaryOne) {
    giveBackToHost();
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, otherUserHandler);
    siginfo_t information = {};
    actualSignalHandler(SIGUSR1, &information, nullptr);
    EXPECT_EQ(calledFunctions(), std::vector<void*>{addressOf(otherUserHandler)});
    EXPECT_TRUE(takenOverQ(SIGUSR1));
}

// Whoever does so has not told the library to handle signals, and is served all the same.
TEST_F(Surprise, LibraryInstalledByHandForASignalThatWasGivenBackGetsIt) {
    giveBackToHost();
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    Sorvane::SVSignalHandler own = manager.theSVHandler(SIGUSR1);
    manager.installHandlerInSystem(own);
    for (int i = 0; i < 2; ++i) {
        forgetCalls();
        raise(SIGUSR1);
        EXPECT_EQ(calledFunctions(), std::vector<void*>{addressOf(userHandler)});
    }
}

// Whoever does so has the signal taken over again, as after any dispatch.
TEST_F(Surprise, DispatchByHandOfASignalThatWasGivenBackTakesItFromTheHost) {
    giveBackToHost();
    actualSignalHandler(SIGUSR1, nullptr, nullptr);
    EXPECT_EQ(callCount(), 0U);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
}

void hostInstallsInAHandler(int signalNumber) {
    hostInstalls(signalNumber, otherHostHandler);
}

TEST_F(Surprise, SignalThatWasGivenBackAndIsRegisteredForAgainStaysTakenOver) {
    giveBackToHost();
    Manager manager(true);
    manager.startHandlingSignals();
    manager.setHandlerFromFunction(SIGUSR1, hostInstallsInAHandler);
    raise(SIGUSR1);
    EXPECT_TRUE(takenOverQ(SIGUSR1)) << "also if a handler has installed another one";
}

TEST_F(Surprise, FatalSignalAfterTheLastManagerStillEndsTheProcessWithStatusZero) {
    const ChildEnd end = inChild([] {
        {
            Manager manager(true);
            manager.setHandlerFromFunction(SIGHUP, userHandler);
            manager.startHandlingSignals();
        }
        raise(SIGHUP);
    });
    EXPECT_TRUE(end.exitedWithQ(0)) << end;
    EXPECT_EQ(callCount(), 0U);
}

TEST_F(Surprise, SignalWithoutAnyOtherManagerWhileHandlingTakesTheStateDownWithinTheHandler) {
    hostInstalls(SIGUSR1, hostHandler);
    auto* const manager = new Manager(false);
    manager->setHandlerFromFunction(SIGUSR1, userHandler);
    manager->startHandlingSignals();
    // A teardown that fails leaves signals handled without a manager.
    makeTableOf(*manager, SIGKILL);
    putIntoTable(hostRecord(SIGKILL, hostHandler));
    expectSigactionFailure(failureOf([manager] { delete manager; }), EINVAL);
    ASSERT_TRUE(Manager::currentlyHandlingSignals);
    ASSERT_EQ(Manager::numberOfManagers, 0U);
    tableOf(SIGKILL)->remove(addressOf(hostHandler));
    ASSERT_TRUE(takenOverQ(SIGUSR1));

    raise(SIGUSR1);
    EXPECT_EQ(callsOf(userHandler), 1U);
    EXPECT_EQ(Manager::handlerTables, nullptr);
    EXPECT_FALSE(Manager::currentlyHandlingSignals);
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
}

// Refused and not reported: a batch for many signals is to do what it can.
TEST_F(Surprise, RequestsThatCannotApplyAreSilent) {
    Manager manager(true);
    manager.setSignalDisposition(SIGUSR1, false);
    EXPECT_NO_THROW(manager.setHandlerFromFunction(SIGUSR1, userHandler));
    EXPECT_NO_THROW(manager.setHandlerFromFunction(SIGKILL, userHandler));
    EXPECT_NO_THROW(manager.setHandlerFromFunction(1000, userHandler));
    EXPECT_NO_THROW(manager.clearHandlerWithFunction(SIGUSR2, userHandler));
    EXPECT_NO_THROW(manager.stopHandlingSignal(SIGUSR2));
    EXPECT_EQ(Manager::handlerTables->used, 0U);
}

// The operating system knows 64, and a user of the last four would wait for them in vain.
TEST_F(Surprise, SignalsAboveSixtyAreNobodysBusiness) {
    Manager manager(true);
    manager.startHandlingSignals();
    manager.setSignalDisposition(SIGRTMAX, true);
    manager.setHandlerFromFunction(SIGRTMAX, userHandler);
    EXPECT_TRUE(defaultInSystemQ(SIGRTMAX));
    EXPECT_EQ(recordCount(SIGRTMAX), 0U);
}

}  // namespace
