// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// How handler records come into the tables and out again.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <memory>
#include <vector>

#include "support/failure.h"
#include "support/manager_fixture.h"
#include "support/watched_lock.h"

namespace {

class Registration : public OneManagerTest {};

// Asked first, unlike where a signal is taken over: what may not be handled leaves no trace.
TEST_F(Registration, ForForbiddenSignalMakesNoTableInstallsNothingAndIsSilent) {
    m_manager.startHandlingSignals();
    m_manager.setSignalDisposition(SIGUSR1, false);
    EXPECT_NO_THROW(m_manager.setHandlerFromFunction(SIGUSR1, userHandler));
    EXPECT_EQ(tableOf(SIGUSR1), nullptr);
    EXPECT_TRUE(defaultInSystemQ(SIGUSR1));
}

TEST_F(Registration, SameFunctionTwiceForASignalIsOneEntryWithTheSecondRecord) {
    Record first(SIGUSR1, userHandler, false, false, false);
    Record second(SIGUSR1, userHandler, true, false, true);
    m_manager.setHandler(first);
    m_manager.setHandler(second);
    ASSERT_EQ(tableOf(SIGUSR1)->used, 1U);
    EXPECT_TRUE(recordOf(SIGUSR1, userHandler)->preExistsQ());
    EXPECT_TRUE(recordOf(SIGUSR1, userHandler)->validQ());
}

TEST_F(Registration, SameFunctionForTwoSignalsIsOneEntryInEachTable) {
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    m_manager.setHandlerFromFunction(SIGUSR2, userHandler);
    EXPECT_NE(tableOf(SIGUSR1), tableOf(SIGUSR2));
    for (const int signalNumber : {SIGUSR1, SIGUSR2}) {
        ASSERT_EQ(recordCount(signalNumber), 1U);
        EXPECT_EQ(recordOf(signalNumber, userHandler)->getSignalNumber(), signalNumber);
    }
}

TEST_F(Registration, BeforeTheStartInstallsNothingAndTheStartKeepsTheHostsHandler) {
    hostInstalls(SIGUSR1, hostHandler);
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
    m_manager.startHandlingSignals();
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    ASSERT_NE(recordOf(SIGUSR1, hostHandler), nullptr);
    EXPECT_TRUE(recordOf(SIGUSR1, hostHandler)->preExistsQ());
}

// Only taking a signal over makes a record of what was there. A registration while signals are
// handled is a registration, and the host has had its chance before the start.
TEST_F(Registration, WhileHandlingInstallsAtOnceAndKeepsThePreviousActionNowhere) {
    hostInstalls(SIGUSR1, hostHandler);
    m_manager.startHandlingSignals();
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    EXPECT_EQ(functionsInSlotOrder(SIGUSR1), std::vector<void*>{addressOf(userHandler)});
    raise(SIGUSR1);
    EXPECT_EQ(calledFunctions(), std::vector<void*>{addressOf(userHandler)});
    m_manager.stopHandlingSignals();
    EXPECT_TRUE(ignoredInSystemQ(SIGUSR1));
}

TEST_F(Registration, WhileHandlingInstallsAgainEachTime) {
    m_manager.startHandlingSignals();
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    hostInstalls(SIGUSR1, hostHandler);
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    EXPECT_EQ(recordCount(SIGUSR1), 1U) << "what the host had installed is not kept";
}

TEST_F(Registration, OfDefaultAndIgnoreIsStoredUnderZeroAndOne) {
    m_manager.setHandlerFromFunction(SIGUSR1, SIG_DFL);
    m_manager.setHandlerFromFunction(SIGUSR1, SIG_IGN);
    EXPECT_EQ(recordCount(SIGUSR1), 2U);
    ASSERT_NE(recordUnder(SIGUSR1, nullptr), nullptr);
    EXPECT_TRUE(recordUnder(SIGUSR1, nullptr)->validQ());
    EXPECT_NE(recordUnder(SIGUSR1, reinterpret_cast<void*>(SIG_IGN)), nullptr);
    m_manager.clearHandlerWithFunction(SIGUSR1, SIG_DFL);
    EXPECT_EQ(recordUnder(SIGUSR1, nullptr), nullptr);
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
}

TEST_F(Registration, ClearingWhatWasNeverRegisteredChangesNothing) {
    m_manager.clearHandlerWithFunction(SIGUSR2, userHandler);
    Record nobodys = hostRecord(SIGUSR2, hostHandler);
    m_manager.clearHandler(nobodys);
    EXPECT_EQ(tableOf(SIGUSR2), nullptr) << "clearing makes no table";
    EXPECT_TRUE(defaultInSystemQ(SIGUSR2));
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    m_manager.clearHandlerWithFunction(SIGUSR1, otherUserHandler);
    Record never = hostRecord(SIGUSR1, hostHandler);
    m_manager.clearHandler(never);
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
    EXPECT_TRUE(defaultInSystemQ(SIGUSR1));
}

TEST_F(Registration, ClearingTheOnlyRecordAsPreExistingGivesTheSignalBackFirst) {
    Record user = userRecord(SIGUSR1, userHandler);
    m_manager.setHandler(user);
    m_manager.startHandlingSignals();
    Record asPreExisting = hostRecord(SIGUSR1, userHandler);
    m_manager.clearHandler(asPreExisting);
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(userHandler));
    ASSERT_NE(tableOf(SIGUSR1), nullptr) << "the empty table remains";
    EXPECT_EQ(recordCount(SIGUSR1), 0U);
}

TEST_F(Registration, ClearingAsPreExistingAmongOthersInstallsNothing) {
    hostInstalls(SIGUSR1, hostHandler);
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    m_manager.startHandlingSignals();
    Record host = *recordOf(SIGUSR1, hostHandler);
    m_manager.clearHandler(host);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    EXPECT_EQ(functionsInSlotOrder(SIGUSR1), std::vector<void*>{addressOf(userHandler)});
}

TEST_F(Registration, ClearingTheLastRecordAsExternalInstallsNothing) {
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    m_manager.startHandlingSignals();
    Record external(SIGUSR1, userHandler, false, true, true);
    m_manager.clearHandler(external);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    EXPECT_EQ(recordCount(SIGUSR1), 0U);
}

// The deleted slot is another one than that in which the search for the host's handler begins, and
// so not in its way.
TEST_F(Registration, ClearingTheLastRecordAsPreExistingGivesTheSignalBackBesideDeletedSlots) {
    hostInstalls(SIGUSR1, hostHandler);
    const std::uintptr_t slotOfHost = reinterpret_cast<std::uintptr_t>(hostHandler) & 7;
    const auto elsewhere = reinterpret_cast<void (*)(int)>(0x1000 + (slotOfHost ^ 4));
    m_manager.setHandlerFromFunction(SIGUSR1, elsewhere);
    m_manager.startHandlingSignals();
    Record host = *recordOf(SIGUSR1, hostHandler);
    Record user(SIGUSR1, elsewhere, true, false, true);
    m_manager.clearHandler(user);
    ASSERT_EQ(tableOf(SIGUSR1)->fill, 2U);
    m_manager.clearHandler(host);
    EXPECT_EQ(recordCount(SIGUSR1), 0U);
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
}

// A function says nothing of what was there before, so nothing can be handed back.
TEST_F(Registration, ClearingTheLastRecordByFunctionInstallsNothing) {
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    m_manager.setHandlerFromFunction(SIGUSR2, userInformationHandler);
    m_manager.startHandlingSignals();
    m_manager.clearHandlerWithFunction(SIGUSR1, userHandler);
    m_manager.clearHandlerWithFunction(SIGUSR2, userInformationHandler);
    for (const int signalNumber : {SIGUSR1, SIGUSR2}) {
        EXPECT_TRUE(takenOverQ(signalNumber));
        ASSERT_NE(tableOf(signalNumber), nullptr);
        EXPECT_EQ(recordCount(signalNumber), 0U);
    }
}

// A forbidden signal is left alone in every way, also by those who want to take their handlers out.
TEST_F(Registration, ClearingAfterTheSignalWasForbiddenRemovesNothing) {
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    m_manager.setSignalDisposition(SIGUSR1, false);
    m_manager.clearHandlerWithFunction(SIGUSR1, userHandler);
    Record record = hostRecord(SIGUSR1, userHandler);
    m_manager.clearHandler(record);
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
    EXPECT_TRUE(defaultInSystemQ(SIGUSR1));
}

TEST_F(Registration, EmptyListsDoNothingAndTakeNoLock) {
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    RecordList none;
    m_manager.setHandlers(none);
    m_manager.clearHandlers(none);
    EXPECT_EQ(log->locks, 0U);
    EXPECT_EQ(Manager::handlerTables->used, 0U);
}

// The set answers no for these whatever it was told, so that registration never gets as far as
// storing what no walk over signals would ever visit.
TEST_F(Registration, NumbersOutsideOneToSixtyAreSilentlyRefusedAlsoWhileHandling) {
    m_manager.startHandlingSignals();
    for (const int signalNumber : {INT_MIN, -1, 0, 61, 64, 65, INT_MAX}) {
        m_manager.setSignalDisposition(signalNumber, true);
        EXPECT_NO_THROW(m_manager.setHandlerFromFunction(signalNumber, userHandler));
    }
    EXPECT_EQ(Manager::handlerTables->used, 0U);
    EXPECT_TRUE(defaultInSystemQ(61));
    EXPECT_TRUE(defaultInSystemQ(64));
}

TEST_F(Registration, OfKillAndStopWhileHandlingStoresTheRecordAndThrows) {
    m_manager.startHandlingSignals();
    for (const int signalNumber : {SIGKILL, SIGSTOP}) {
        m_manager.setSignalDisposition(signalNumber, true);
        expectSigactionFailure(
            failureOf([&] { m_manager.setHandlerFromFunction(signalNumber, userHandler); }),
            EINVAL);
        EXPECT_NE(recordOf(signalNumber, userHandler), nullptr);
        EXPECT_TRUE(lockIsFree());
    }
}

TEST_F(Registration, OfKillAndStopIsSilentlyRefusedUntilTheUserSaysOtherwise) {
    m_manager.startHandlingSignals();
    for (const int signalNumber : {SIGKILL, SIGSTOP, 32, 33}) {
        EXPECT_NO_THROW(m_manager.setHandlerFromFunction(signalNumber, userHandler));
        EXPECT_EQ(tableOf(signalNumber), nullptr);
    }
}

void expectUserFlags(const Record* record, int signalNumber) {
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->getSignalNumber(), signalNumber);
    EXPECT_FALSE(record->preExistsQ());
    EXPECT_FALSE(record->externalQ());
    EXPECT_TRUE(record->validQ());
}

TEST_F(Registration, FromFunctionsAndFromAnActionBuildsUsersRecords) {
    struct sigaction action = {};
    action.sa_handler = otherUserHandler;
    action.sa_flags = SA_NODEFER;
    action.sa_mask = setOf({SIGINT});
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    m_manager.setHandlerFromFunction(SIGUSR1, userInformationHandler);
    m_manager.setHandlerFromOSStruct(SIGUSR1, action);
    EXPECT_EQ(recordCount(SIGUSR1), 3U);
    expectUserFlags(recordOf(SIGUSR1, userHandler), SIGUSR1);
    expectUserFlags(recordOf(SIGUSR1, userInformationHandler), SIGUSR1);
    expectUserFlags(recordOf(SIGUSR1, otherUserHandler), SIGUSR1);

    const struct sigaction kept = Record(*recordOf(SIGUSR1, otherUserHandler)).getOSStruct();
    EXPECT_EQ(kept.sa_flags, SA_NODEFER) << "an action is copied whole";
    EXPECT_EQ(sigismember(&kept.sa_mask, SIGINT), 1);
    const struct sigaction made = Record(*recordOf(SIGUSR1, userInformationHandler)).getOSStruct();
    EXPECT_NE(made.sa_flags & SA_SIGINFO, 0);
}

TEST_F(Registration, FromAnActionKeepsNoReferenceToIt) {
    struct sigaction action = {};
    action.sa_sigaction = userInformationHandler;
    action.sa_flags = SA_SIGINFO;
    m_manager.setHandlerFromOSStruct(SIGUSR1, action);
    action = {};
    const Record* const record = recordOf(SIGUSR1, userInformationHandler);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(Record(*record).getOSStruct().sa_sigaction, userInformationHandler);
}

TEST_F(Registration, OfARecordStoresACopyWithItsFlagsAndLeavesItUnchanged) {
    Record record(SIGUSR1, userHandler, true, false, false);
    m_manager.setHandler(record);
    const Record* const stored = recordOf(SIGUSR1, userHandler);
    ASSERT_NE(stored, nullptr);
    EXPECT_NE(stored, &record);
    EXPECT_TRUE(stored->preExistsQ());
    EXPECT_FALSE(stored->externalQ());
    EXPECT_FALSE(stored->validQ()) << "whether a record is valid is not tested";
    EXPECT_TRUE(record.preExistsQ());
    EXPECT_EQ(record.getHandlerFunction(), addressOf(userHandler));
}

TEST_F(Registration, CallsNoHandler) {
    hostInstalls(SIGUSR1, hostHandler);
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    m_manager.startHandlingSignals();
    m_manager.setHandlerFromFunction(SIGUSR1, otherUserHandler);
    m_manager.clearHandlerWithFunction(SIGUSR1, userHandler);
    m_manager.stopHandlingSignals();
    EXPECT_EQ(callCount(), 0U);
}

// One function, two ways to call it: there is one address, and so one key.
TEST_F(Registration, OneAndThreeArgumentFormsAtOneAddressAreTheSameKey) {
    struct sigaction action = {};
    action.sa_sigaction = userInformationHandler;
    action.sa_flags = SA_SIGINFO;
    Record threeArguments(SIGUSR1, action, false, false, true);
    action.sa_flags = 0;
    Record oneArgument(SIGUSR1, action, false, false, false);
    m_manager.setHandler(threeArguments);
    m_manager.setHandler(oneArgument);
    ASSERT_EQ(recordCount(SIGUSR1), 1U);
    EXPECT_FALSE(recordOf(SIGUSR1, userInformationHandler)->validQ());
    m_manager.clearHandlerWithFunction(SIGUSR1, userInformationHandler);
    EXPECT_EQ(recordCount(SIGUSR1), 0U);
}

TEST_F(Registration, AnActionsRecordIsClearedByItsFunction) {
    struct sigaction action = {};
    action.sa_handler = userHandler;
    m_manager.setHandlerFromOSStruct(SIGUSR1, action);
    m_manager.clearHandlerWithFunction(SIGUSR1, userHandler);
    EXPECT_EQ(recordCount(SIGUSR1), 0U);
}

TEST_F(Registration, ClearedRecordStaysInItsSlotUntilThatIsUsedAgain) {
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    m_manager.clearHandlerWithFunction(SIGUSR1, userHandler);
    const HandlerTable& table = *tableOf(SIGUSR1);
    EXPECT_EQ(table.used, 0U);
    EXPECT_EQ(table.fill, 1U);
    void* const key = addressOf(userHandler);
    const HandlerTable::Entry* const slot = table.lookup(key, table.hashFunction(key));
    EXPECT_EQ(slot->state, Sorvane::svslotDeleted);
    EXPECT_EQ(slot->key, key);
    EXPECT_EQ(slot->value.getHandlerFunction(), key);
    EXPECT_TRUE(slot->value.validQ());
}

TEST_F(Registration, ClearedHandlerIsNoLongerCalledAndItsReturnIs) {
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    m_manager.startHandlingSignals();
    m_manager.clearHandlerWithFunction(SIGUSR1, userHandler);
    raise(SIGUSR1);
    EXPECT_EQ(callCount(), 0U);
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    raise(SIGUSR1);
    EXPECT_EQ(callsOf(userHandler), 1U);
}

TEST_F(Registration, TableOfASignalOnceMadeStaysTheSameObjectThroughAnythingThatIsRegistered) {
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    const HandlerTable* const table = tableOf(SIGUSR1);
    m_manager.clearHandlerWithFunction(SIGUSR1, userHandler);
    for (const int signalNumber : ordinarySignals()) {
        m_manager.setHandlerFromFunction(signalNumber, userHandler);
    }
    for (const SimpleHandler handler : numberedHandlers) {
        m_manager.setHandlerFromFunction(SIGUSR1, handler);
    }
    m_manager.startHandlingSignals();
    m_manager.stopHandlingSignals();
    EXPECT_EQ(tableOf(SIGUSR1), table);
}

TEST_F(Registration, AnyNumberOfSignalsAndOfHandlersIsFoundAgain) {
    for (const int signalNumber : ordinarySignals()) {
        for (const SimpleHandler handler : numberedHandlers) {
            m_manager.setHandlerFromFunction(signalNumber, handler);
        }
    }
    EXPECT_EQ(Manager::handlerTables->used, ordinarySignals().size());
    for (const int signalNumber : ordinarySignals()) {
        ASSERT_EQ(recordCount(signalNumber), numberedHandlers.size()) << signalNumber;
        for (const SimpleHandler handler : numberedHandlers) {
            ASSERT_NE(recordOf(signalNumber, handler), nullptr) << signalNumber;
            ASSERT_EQ(recordOf(signalNumber, handler)->getSignalNumber(), signalNumber);
        }
    }
}

TEST_F(Registration, SixthHandlerOfASignalMakesItsTableGrowAndTheFifthDoesNot) {
    for (std::size_t i = 0; i < 5; ++i) {
        m_manager.setHandlerFromFunction(SIGUSR1, numberedHandlers.at(i));
    }
    EXPECT_EQ(tableOf(SIGUSR1)->mask, 7U);
    m_manager.setHandlerFromFunction(SIGUSR1, numberedHandlers.at(5));
    EXPECT_EQ(tableOf(SIGUSR1)->mask, 31U);
    EXPECT_EQ(recordCount(SIGUSR1), 6U);
}

TEST_F(Registration, ListRegistersAndClearsEveryElementAndStaysUnchanged) {
    RecordList records;
    records.push_back(userRecord(SIGUSR1, userHandler));
    records.push_back(userRecord(SIGUSR1, otherUserHandler));
    records.push_back(userRecord(SIGUSR2, userHandler));
    m_manager.setHandlers(records);
    EXPECT_EQ(recordCount(SIGUSR1), 2U);
    EXPECT_EQ(recordCount(SIGUSR2), 1U);
    EXPECT_EQ(records.size(), 3U);
    records.pop_front();
    m_manager.clearHandlers(records);
    EXPECT_EQ(functionsInSlotOrder(SIGUSR1), std::vector<void*>{addressOf(userHandler)});
    EXPECT_EQ(recordCount(SIGUSR2), 0U);
    EXPECT_EQ(records.size(), 2U);
}

TEST_F(Registration, ListIsWalkedFrontToBackSoThatTheLastOfOneFunctionWins) {
    RecordList records;
    records.push_back(Record(SIGUSR1, userHandler, false, false, false));
    records.push_back(Record(SIGUSR1, userHandler, false, true, true));
    m_manager.setHandlers(records);
    ASSERT_EQ(recordCount(SIGUSR1), 1U);
    EXPECT_TRUE(recordOf(SIGUSR1, userHandler)->externalQ());
}

TEST_F(Registration, ForbiddenElementOfAListIsPassedOver) {
    m_manager.setSignalDisposition(SIGUSR1, false);
    RecordList records;
    records.push_back(userRecord(SIGUSR1, userHandler));
    records.push_back(userRecord(SIGUSR2, userHandler));
    m_manager.setHandlers(records);
    EXPECT_EQ(tableOf(SIGUSR1), nullptr);
    EXPECT_EQ(recordCount(SIGUSR2), 1U);
}

TEST_F(Registration, ListStopsAtTheFirstFailureAndWhatCameBeforeStays) {
    m_manager.setSignalDisposition(SIGKILL, true);
    m_manager.startHandlingSignals();
    RecordList records;
    records.push_back(userRecord(SIGUSR1, userHandler));
    records.push_back(userRecord(SIGKILL, userHandler));
    records.push_back(userRecord(SIGUSR2, userHandler));
    expectSigactionFailure(failureOf([&] { m_manager.setHandlers(records); }), EINVAL);
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
    EXPECT_EQ(recordCount(SIGKILL), 1U) << "the failing one is stored before it fails";
    EXPECT_EQ(tableOf(SIGUSR2), nullptr);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(Registration, ListOfClearingsStopsAtTheFirstFailureAndTheFailingRecordStays) {
    m_manager.setSignalDisposition(SIGKILL, true);
    RecordList records;
    records.push_back(userRecord(SIGUSR1, userHandler));
    records.push_back(hostRecord(SIGKILL, userHandler));
    records.push_back(userRecord(SIGUSR2, userHandler));
    m_manager.setHandlers(records);
    expectSigactionFailure(failureOf([&] { m_manager.clearHandlers(records); }), EINVAL);
    EXPECT_EQ(recordCount(SIGUSR1), 0U);
    EXPECT_EQ(recordCount(SIGKILL), 1U);
    EXPECT_EQ(recordCount(SIGUSR2), 1U);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(Registration, IsSharedByAllManagers) {
    Manager other(false);
    other.setHandlerFromFunction(SIGUSR1, userHandler);
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
    m_manager.clearHandlerWithFunction(SIGUSR1, userHandler);
    EXPECT_EQ(recordCount(SIGUSR1), 0U);
}

}  // namespace
