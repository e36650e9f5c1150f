// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The manager's only traffic with the operating system's signal table.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <vector>

#include "support/emulation.h"
#include "support/failure.h"
#include "support/manager_fixture.h"

namespace {

class Installation : public OneManagerTest {};

TEST_F(Installation, InvalidPreExistingRecordIsNotRestored) {
    makeTableOf(m_manager, SIGUSR1);
    putIntoTable(Record(SIGUSR1, hostHandler, true, true, false));
    m_manager.restorePreviouslyExistingHandlers();
    EXPECT_TRUE(defaultInSystemQ(SIGUSR1));
}

TEST_F(Installation, SignalWithoutAPreExistingRecordStaysTakenOverAfterTheRestoration) {
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    m_manager.startHandlingSignals();
    m_manager.restorePreviouslyExistingHandlers();
    EXPECT_TRUE(takenOverQ(SIGUSR1));
}

TEST_F(Installation, TablesOfNumbersOutsideOneToSixtyAreNeverRestored) {
    for (const int signalNumber : {-1, 0, 61, 64}) {
        makeTableOf(m_manager, signalNumber);
        putIntoTable(hostRecord(signalNumber, hostHandler));
    }
    EXPECT_NO_THROW(m_manager.restorePreviouslyExistingHandlers());
    EXPECT_TRUE(defaultInSystemQ(61));
    EXPECT_TRUE(defaultInSystemQ(64));
}

TEST_F(Installation, FailureOfSigactionThrowsItsErrno) {
    // What the operating system has no signal for, lets nobody catch, or the C library keeps.
    for (const int signalNumber : {INT_MIN, -1, 0, SIGKILL, SIGSTOP, 32, 33, 65, 1000, INT_MAX}) {
        SCOPED_TRACE(signalNumber);
        Record record = userRecord(signalNumber, userHandler);
        expectSigactionFailure(failureOf([&] { m_manager.installHandlerInSystem(record); }),
                               EINVAL);
    }
    EXPECT_TRUE(lockIsFree());
}

TEST_F(Installation, InstallsTheWholeActionOfTheRecordForItsSignal) {
    struct sigaction wanted = {};
    wanted.sa_sigaction = hostInformationHandler;
    wanted.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
    wanted.sa_mask = setOf({SIGINT, 60});
    Record record(SIGUSR1, wanted, false, false, false);
    m_manager.installHandlerInSystem(record);
    const struct sigaction installed = systemAction(SIGUSR1);
    EXPECT_EQ(installed.sa_sigaction, hostInformationHandler);
    constexpr int flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK | SA_RESTART;
    EXPECT_EQ(installed.sa_flags & flags, SA_SIGINFO | SA_NODEFER | SA_ONSTACK);
    EXPECT_EQ(sigismember(&installed.sa_mask, SIGINT), 1);
    EXPECT_EQ(sigismember(&installed.sa_mask, 60), 1);
    EXPECT_EQ(sigismember(&installed.sa_mask, SIGTERM), 0);
    EXPECT_TRUE(defaultInSystemQ(SIGUSR2));
}

TEST_F(Installation, InstallsForAnySignalOfTheSystemAlsoAboveSixtyOrForbidden) {
    if (underValgrindQ()) {
        GTEST_SKIP() << "valgrind keeps signal 64 for itself";
    }
    m_manager.setSignalDisposition(SIGUSR1, false);
    for (const int signalNumber : {SIGUSR1, 61, 64}) {
        Record record = userRecord(signalNumber, userHandler);
        m_manager.installHandlerInSystem(record);
        EXPECT_EQ(systemHandler(signalNumber), addressOf(userHandler)) << signalNumber;
    }
    EXPECT_EQ(Manager::handlerTables->used, 0U) << "it touches no table";
}

// What to do with it is the caller's business: the record of what was there is made in any case.
TEST_F(Installation, ReturnsTheActionBeforeWhateverItWas) {
    Record user = userRecord(SIGUSR1, userHandler);
    Record own = m_manager.theSVHandler(SIGUSR1);
    const std::vector<void*> before = {reinterpret_cast<void*>(SIG_DFL),
                                       reinterpret_cast<void*>(SIG_IGN), addressOf(hostHandler)};
    for (void* const function : before) {
        hostInstalls(SIGUSR1, reinterpret_cast<SimpleHandler>(function));
        EXPECT_EQ(m_manager.installHandlerInSystem(own).getHandlerFunction(), function);
    }
    EXPECT_EQ(m_manager.installHandlerInSystem(user).getHandlerFunction(),
              addressOf(actualSignalHandler));
    EXPECT_EQ(m_manager.installHandlerInSystem(user).getHandlerFunction(), addressOf(userHandler));
}

TEST_F(Installation, RecordOfTheActionBeforeIsWholeAndHasAllFlags) {
    struct sigaction host = {};
    host.sa_handler = hostHandler;
    host.sa_flags = SA_NODEFER;
    host.sa_mask = setOf({SIGTERM});
    ASSERT_EQ(sigaction(SIGUSR1, &host, nullptr), 0);
    Record user = userRecord(SIGUSR1, userHandler);
    Record before = m_manager.installHandlerInSystem(user);
    EXPECT_EQ(before.getSignalNumber(), SIGUSR1);
    EXPECT_TRUE(before.preExistsQ());
    EXPECT_TRUE(before.externalQ());
    EXPECT_TRUE(before.validQ());
    EXPECT_NE(before.getOSStruct().sa_flags & SA_NODEFER, 0);
    const sigset_t mask = before.getOSStruct().sa_mask;
    EXPECT_EQ(sigismember(&mask, SIGTERM), 1);
    EXPECT_EQ(sigismember(&mask, SIGINT), 0);
}

TEST_F(Installation, ReturnedRecordPutsBackWhatWasThere) {
    hostInstalls(SIGUSR1, hostInformationHandler, SA_NODEFER);
    Record user = userRecord(SIGUSR1, userHandler);
    Record before = m_manager.installHandlerInSystem(user);
    m_manager.installHandlerInSystem(before);
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostInformationHandler));
    EXPECT_NE(systemAction(SIGUSR1).sa_flags & SA_NODEFER, 0);
}

TEST_F(Installation, RestorationPutsBackEverySignalsHostHandler) {
    for (const int signalNumber : ordinarySignals()) {
        hostInstalls(signalNumber, hostHandler);
        m_manager.setHandlerFromFunction(signalNumber, userHandler);
    }
    const std::vector<void*> before = systemHandlers();
    m_manager.startHandlingSignals();
    ASSERT_NE(systemHandlers(), before);
    m_manager.restorePreviouslyExistingHandlers();
    EXPECT_EQ(systemHandlers(), before);
}

TEST_F(Installation, OfSeveralPreExistingRecordsTheLastInSlotOrderStaysInForce) {
    makeTableOf(m_manager, SIGUSR1);
    for (std::size_t i = 0; i < 10; ++i) {
        putIntoTable(hostRecord(SIGUSR1, numberedHandlers.at(i)));
    }
    m_manager.restorePreviouslyExistingHandlers();
    EXPECT_EQ(systemHandler(SIGUSR1), functionsInSlotOrder(SIGUSR1).back());
}

TEST_F(Installation, OnlyTheFlagsPreExistingAndValidTogetherMakeARecordBeRestored) {
    makeTableOf(m_manager, SIGUSR1);
    putIntoTable(Record(SIGUSR1, userHandler, false, false, true));
    putIntoTable(Record(SIGUSR1, otherUserHandler, false, true, true));
    putIntoTable(Record(SIGUSR1, otherHostHandler, true, true, false));
    m_manager.restorePreviouslyExistingHandlers();
    EXPECT_TRUE(defaultInSystemQ(SIGUSR1));
    putIntoTable(Record(SIGUSR1, hostHandler, true, false, true));
    m_manager.restorePreviouslyExistingHandlers();
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
}

// What was taken over while it was allowed has to go back, whatever was decided since.
TEST_F(Installation, RestorationAsksNoDisposition) {
    hostInstalls(SIGUSR1, hostHandler);
    m_manager.handleSignal(SIGUSR1);
    m_manager.setSignalDisposition(SIGUSR1, false);
    m_manager.restorePreviouslyExistingHandlers();
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
}

TEST_F(Installation, RestorationChangesNeitherTheTablesNorWhetherSignalsAreHandled) {
    hostInstalls(SIGUSR1, hostHandler);
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    m_manager.startHandlingSignals();
    m_manager.restorePreviouslyExistingHandlers();
    EXPECT_EQ(recordCount(SIGUSR1), 2U);
    EXPECT_TRUE(Manager::currentlyHandlingSignals);
}

TEST_F(Installation, RestorationThatFailsReleasesTheLockAndLeavesTheSignalsBeforeRestored) {
    for (const int signalNumber : {SIGINT, SIGKILL, SIGUSR1}) {
        makeTableOf(m_manager, signalNumber);
        putIntoTable(hostRecord(signalNumber, hostHandler));
    }
    expectSigactionFailure(failureOf([&] { m_manager.restorePreviouslyExistingHandlers(); }),
                           EINVAL);
    EXPECT_EQ(systemHandler(SIGINT), addressOf(hostHandler));
    EXPECT_TRUE(defaultInSystemQ(SIGUSR1));
    EXPECT_TRUE(lockIsFree());
}

}  // namespace
