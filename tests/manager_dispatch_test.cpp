// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// How one signal is taken over, and which records are called when it arrives.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <initializer_list>
#include <vector>

#include "support/child_process.h"
#include "support/manager_fixture.h"
#include "support/sanitizers.h"

namespace {

class Dispatch : public ManagerTest {};

TEST_F(Dispatch, SignalWithoutATableCallsNothingAndHasNoHostHandler) {
    Manager manager(true);
    ASSERT_EQ(tableOf(SIGUSR1), nullptr);
    manager.callHandlers(SIGUSR1, nullptr, nullptr);
    manager.callOnlyPreexistingOrExternalHandlers(SIGUSR1, nullptr, nullptr);
    EXPECT_EQ(callCount(), 0U);
    EXPECT_FALSE(manager.hasPreexistingOrExternalHandlerQ(SIGUSR1));
    EXPECT_EQ(tableOf(SIGUSR1), nullptr) << "looking makes no table";
}

TEST_F(Dispatch, EmptyTableCallsNothingAndHasNoHostHandler) {
    Manager manager(true);
    makeTableOf(manager, SIGUSR1);
    manager.callHandlers(SIGUSR1, nullptr, nullptr);
    manager.callOnlyPreexistingOrExternalHandlers(SIGUSR1, nullptr, nullptr);
    EXPECT_EQ(callCount(), 0U);
    EXPECT_FALSE(manager.hasPreexistingOrExternalHandlerQ(SIGUSR1));
}

TEST_F(Dispatch, NumbersThatAreNoSignalsAreLookedUpAndNothingMore) {
    Manager manager(true);
    for (const int signalNumber : {INT_MIN, -1, 0, 61, 1000, INT_MAX}) {
        manager.callHandlers(signalNumber, nullptr, nullptr);
        manager.callOnlyPreexistingOrExternalHandlers(signalNumber, nullptr, nullptr);
        EXPECT_FALSE(manager.hasPreexistingOrExternalHandlerQ(signalNumber)) << signalNumber;
    }
    EXPECT_EQ(callCount(), 0U);
    EXPECT_EQ(Manager::handlerTables->used, 0U);
}

// Two handlers of which the one that comes first, whichever that is, clears the other.
unsigned int callsOfRivals = 0;

void secondRival(int signalNumber);

void firstRival(int signalNumber) {
    ++callsOfRivals;
    Manager inHandler(false);
    inHandler.clearHandlerWithFunction(signalNumber, secondRival);
}

void secondRival(int signalNumber) {
    ++callsOfRivals;
    Manager inHandler(false);
    inHandler.clearHandlerWithFunction(signalNumber, firstRival);
}

TEST_F(Dispatch, HandlerThatIsClearedBeforeItsTurnIsNotCalledAndTheOthersAre) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, firstRival);
    manager.setHandlerFromFunction(SIGUSR1, secondRival);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    raise(SIGUSR1);
    EXPECT_EQ(callsOfRivals, 1U);
    EXPECT_EQ(callsOf(userHandler), 1U);
    EXPECT_EQ(recordCount(SIGUSR1), 2U);
}

// Whether a signal is fatal is a matter of its table alone: a host's handler makes it survivable.
class FatalSignal : public ManagerTest, public ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Each, FatalSignal, ::testing::Values(SIGHUP, SIGBUS, SIGSEGV),
                         [](const auto& tested) { return nameForTest(tested.param); });

TEST_P(FatalSignal, WithoutATableEndsTheProcessWithStatusZero) {
    const ChildEnd end = inChild([] {
        Manager manager(false);
        Record own = manager.theSVHandler(GetParam());
        manager.installHandlerInSystem(own);
        raise(GetParam());
    });
    EXPECT_TRUE(end.exitedWithQ(0)) << end;
}

TEST_P(FatalSignal, WithRegisteredHandlersAloneCallsThemAndEndsTheProcessWithStatusZero) {
    const ChildEnd end = inChild([] {
        Manager manager(false);
        manager.setHandlerFromFunction(GetParam(), userHandler);
        manager.setHandlerFromFunction(GetParam(), userInformationHandler);
        Record invalid(GetParam(), otherUserHandler, false, false, false);
        manager.setHandler(invalid);
        manager.startHandlingSignals();
        raise(GetParam());
    });
    EXPECT_TRUE(end.exitedWithQ(0)) << end;
    EXPECT_EQ(callsOf(userHandler), 1U);
    EXPECT_EQ(callsOf(userInformationHandler), 1U);
    EXPECT_EQ(callsOf(otherUserHandler), 0U) << "it is not valid";
}

TEST_P(FatalSignal, WithAValidHostHandlerCallsOnlySuchAndTheProcessGoesOn) {
    const ChildEnd end = inChild([] {
        hostInstalls(GetParam(), hostHandler);
        Manager manager(false);
        manager.setHandlerFromFunction(GetParam(), userHandler);
        manager.startHandlingSignals();
        putIntoTable(Record(GetParam(), otherHostHandler, false, true, true));
        putIntoTable(Record(GetParam(), otherUserHandler, true, true, false));
        raise(GetParam());
        EXPECT_TRUE(takenOverQ(GetParam()));
        raise(GetParam());
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
    EXPECT_EQ(callsOf(hostHandler), 2U);
    EXPECT_EQ(callsOf(otherHostHandler), 2U) << "external counts like pre-existing";
    EXPECT_EQ(callsOf(userHandler), 0U) << "registered handlers are not called then";
    EXPECT_EQ(callsOf(otherUserHandler), 0U) << "it is not valid";
}

TEST_P(FatalSignal, WithAnInvalidHostHandlerIsAsFatalAsWithNone) {
    const ChildEnd end = inChild([] {
        Manager manager(false);
        manager.setHandlerFromFunction(GetParam(), userHandler);
        manager.startHandlingSignals();
        putIntoTable(Record(GetParam(), hostHandler, true, true, false));
        putIntoTable(Record(GetParam(), otherHostHandler, false, true, false));
        raise(GetParam());
    });
    EXPECT_TRUE(end.exitedWithQ(0)) << end;
    EXPECT_EQ(callsOf(userHandler), 1U);
    EXPECT_EQ(callsOf(hostHandler), 0U);
    EXPECT_EQ(callsOf(otherHostHandler), 0U);
}

TEST_P(FatalSignal, IsSurvivedWithOnlyAnExternalRecord) {
    const ChildEnd end = inChild([] {
        Manager manager(false);
        manager.setHandlerFromFunction(GetParam(), userHandler);
        manager.startHandlingSignals();
        putIntoTable(Record(GetParam(), otherHostHandler, false, true, true));
        raise(GetParam());
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
    EXPECT_EQ(callsOf(otherHostHandler), 1U);
    EXPECT_EQ(callsOf(userHandler), 0U);
}

TEST_P(FatalSignal, RunsNothingAfterTheHandlersButTheEndOfTheProcess) {
    const ChildEnd end = inChild([] {
        Manager manager(false);
        manager.setHandlerFromFunction(GetParam(), userHandler);
        manager.startHandlingSignals();
        std::atexit([] { noteCall(addressOf(&otherUserHandler), 0); });
        raise(GetParam());
    });
    EXPECT_TRUE(end.exitedWithQ(0)) << end;
    EXPECT_EQ(calledFunctions(), std::vector<void*>{addressOf(userHandler)});
    EXPECT_EQ(lastCall().managers, 2U) << "the handler ran while its dispatch's manager lived";
}

class OrdinarySignal : public ManagerTest, public ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Each, OrdinarySignal, ::testing::ValuesIn(ordinarySignals()),
                         [](const auto& tested) { return nameForTest(tested.param); });

// SIGILL, SIGFPE and SIGABRT are among these.
TEST_P(OrdinarySignal, CallsAllValidRecordsThoseOfTheHostIncludedAndTheProcessGoesOn) {
    hostInstalls(GetParam(), hostHandler);
    Manager manager(true);
    manager.setHandlerFromFunction(GetParam(), userHandler);
    manager.setHandlerFromFunction(GetParam(), userInformationHandler);
    Record invalid(GetParam(), otherUserHandler, false, false, false);
    manager.setHandler(invalid);
    manager.startHandlingSignals();
    raise(GetParam());
    EXPECT_EQ(callCount(), 3U);
    for (void* const function :
         {addressOf(hostHandler), addressOf(userHandler), addressOf(userInformationHandler)}) {
        EXPECT_EQ(callsOfAddress(function), 1U);
    }
    EXPECT_EQ(lastCall().signalNumber, GetParam());
    EXPECT_TRUE(takenOverQ(GetParam()));
}

TEST_F(Dispatch, InvalidHostRecordCountsForNothingAndIsNotCalled) {
    Manager manager(true);
    makeTableOf(manager, SIGUSR1);
    putIntoTable(Record(SIGUSR1, hostHandler, true, true, false));
    putIntoTable(Record(SIGUSR1, otherHostHandler, false, true, false));
    EXPECT_FALSE(manager.hasPreexistingOrExternalHandlerQ(SIGUSR1));
    manager.callOnlyPreexistingOrExternalHandlers(SIGUSR1, nullptr, nullptr);
    manager.callHandlers(SIGUSR1, nullptr, nullptr);
    EXPECT_EQ(callCount(), 0U);
}

struct FlagsCase {
    bool preExists;
    bool external;
    bool valid;
};

TEST_F(Dispatch, FlagsDecideByWhichOperationARecordIsCalledAndWhetherItIsTheHosts) {
    for (const FlagsCase& flags : std::initializer_list<FlagsCase>{{false, false, false},
                                                                   {false, false, true},
                                                                   {false, true, false},
                                                                   {false, true, true},
                                                                   {true, false, false},
                                                                   {true, false, true},
                                                                   {true, true, false},
                                                                   {true, true, true}}) {
        SCOPED_TRACE(::testing::Message() << flags.preExists << flags.external << flags.valid);
        Manager manager(true);
        Record record(SIGUSR1, userHandler, flags.preExists, flags.external, flags.valid);
        manager.setHandler(record);
        const bool hosts = (flags.preExists || flags.external) && flags.valid;
        EXPECT_EQ(manager.hasPreexistingOrExternalHandlerQ(SIGUSR1), hosts);
        forgetCalls();
        manager.callOnlyPreexistingOrExternalHandlers(SIGUSR1, nullptr, nullptr);
        EXPECT_EQ(callCount(), hosts ? 1U : 0U);
        forgetCalls();
        manager.callHandlers(SIGUSR1, nullptr, nullptr);
        EXPECT_EQ(callCount(), flags.valid ? 1U : 0U);
    }
}

TEST_F(Dispatch, HostRecordIsFoundBehindOthers) {
    Manager manager(true);
    for (std::size_t i = 0; i < 20; ++i) {
        manager.setHandlerFromFunction(SIGUSR1, numberedHandlers.at(i));
    }
    EXPECT_FALSE(manager.hasPreexistingOrExternalHandlerQ(SIGUSR1));
    for (std::size_t i = 0; i < 20; ++i) {
        Record host = hostRecord(SIGUSR1, numberedHandlers.at(i));
        manager.setHandler(host);
        EXPECT_TRUE(manager.hasPreexistingOrExternalHandlerQ(SIGUSR1));
        Record user = userRecord(SIGUSR1, numberedHandlers.at(i));
        manager.setHandler(user);
    }
}

TEST_F(Dispatch, HandlersAreCalledInSlotOrderWhateverTheOrderOfRegistration) {
    Manager manager(true);
    std::vector<SimpleHandler> handlers(numberedHandlers.begin(), numberedHandlers.end());
    for (int round = 0; round < 2; ++round) {
        for (const SimpleHandler handler : handlers) {
            manager.setHandlerFromFunction(SIGUSR1 + round * (SIGUSR2 - SIGUSR1), handler);
        }
        std::reverse(handlers.begin(), handlers.end());
    }
    manager.startHandlingSignals();
    for (const int signalNumber : {SIGUSR1, SIGUSR2}) {
        forgetCalls();
        raise(signalNumber);
        EXPECT_EQ(calledFunctions(), functionsInSlotOrder(signalNumber));
        EXPECT_EQ(callCount(), numberedHandlers.size());
    }
}

TEST_F(Dispatch, HandlerGetsInformationAndContextUnchangedOrItsSignalAlone) {
    Manager manager(true);
    siginfo information = {};
    int context = 0;
    manager.setHandlerFromFunction(SIGUSR1, userInformationHandler);
    manager.callHandlers(SIGUSR1, &information, &context);
    ASSERT_EQ(callCount(), 1U);
    EXPECT_EQ(lastCall().signalNumber, SIGUSR1);
    EXPECT_EQ(lastCall().information, &information);
    EXPECT_EQ(lastCall().context, &context);

    manager.setHandlerFromFunction(SIGUSR2, userHandler);
    manager.callHandlers(SIGUSR2, &information, &context);
    EXPECT_EQ(callCount(), 2U);
    EXPECT_EQ(lastCall().signalNumber, SIGUSR2);
}

TEST_F(Dispatch, HostHandlerGetsInformationAndContextUnchanged) {
    Manager manager(true);
    siginfo information = {};
    int context = 0;
    hostInstalls(SIGUSR1, hostInformationHandler);
    manager.handleSignal(SIGUSR1);
    manager.callOnlyPreexistingOrExternalHandlers(SIGUSR1, &information, &context);
    ASSERT_EQ(callCount(), 1U);
    EXPECT_EQ(lastCall().information, &information);
    EXPECT_EQ(lastCall().context, &context);
}

// Default and ignore are no functions; calling their addresses would be a fault.
TEST_F(Dispatch, RecordOfDefaultOrIgnoreIsPassedOver) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, SIG_DFL);
    manager.setHandlerFromFunction(SIGUSR1, SIG_IGN);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    raise(SIGUSR1);
    EXPECT_EQ(calledFunctions(), std::vector<void*>{addressOf(userHandler)});
}

Manager* managerOfHandlers = nullptr;

void handlerThatClearsItself(int signalNumber) {
    noteCall(addressOf(&handlerThatClearsItself), signalNumber);
    managerOfHandlers->clearHandlerWithFunction(signalNumber, handlerThatClearsItself);
}

// What is called is a copy, so the record may go while its handler runs.
TEST_F(Dispatch, HandlerMayClearItself) {
    Manager manager(true);
    managerOfHandlers = &manager;
    manager.setHandlerFromFunction(SIGUSR1, handlerThatClearsItself);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.callHandlers(SIGUSR1, nullptr, nullptr);
    manager.callHandlers(SIGUSR1, nullptr, nullptr);
    EXPECT_EQ(callsOf(handlerThatClearsItself), 1U);
    EXPECT_EQ(callsOf(userHandler), 2U);
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
}

void handlerThatMakesItselfInvalid(int signalNumber) {
    noteCall(addressOf(&handlerThatMakesItselfInvalid), signalNumber);
    Record invalid(signalNumber, handlerThatMakesItselfInvalid, false, false, false);
    managerOfHandlers->setHandler(invalid);
}

TEST_F(Dispatch, HandlerMayReplaceItsOwnRecord) {
    Manager manager(true);
    managerOfHandlers = &manager;
    manager.setHandlerFromFunction(SIGUSR1, handlerThatMakesItselfInvalid);
    manager.callHandlers(SIGUSR1, nullptr, nullptr);
    manager.callHandlers(SIGUSR1, nullptr, nullptr);
    EXPECT_EQ(callsOf(handlerThatMakesItselfInvalid), 1U);
}

TEST_F(Dispatch, TemporaryManagerCountsWhileItsHandlersRunAndGoesAfterwards) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    raise(SIGUSR1);
    EXPECT_EQ(lastCall().managers, 2U);
    EXPECT_EQ(Manager::numberOfManagers, 1U);
}

void handlerThatRaisesAnother(int signalNumber) {
    noteCall(addressOf(&handlerThatRaisesAnother), signalNumber);
    raise(SIGUSR2);
}

TEST_F(Dispatch, SignalThatArrivesInAHandlerIsDispatchedWithinIt) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, handlerThatRaisesAnother);
    manager.setHandlerFromFunction(SIGUSR2, userHandler);
    manager.startHandlingSignals();
    raise(SIGUSR1);
    ASSERT_EQ(calledFunctions(),
              (std::vector<void*>{addressOf(handlerThatRaisesAnother), addressOf(userHandler)}));
    // ThreadSanitizer holds a signal that arrives in a handler back until the handler has returned.
    EXPECT_EQ(lastCall().managers, builtWithThreadSanitizer ? 2U : 3U);
    EXPECT_EQ(Manager::numberOfManagers, 1U);
}

TEST_F(Dispatch, HandlerOfTheOperatingSystemIsExportedUnderItsPlainName) {
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "actualSignalHandler"), addressOf(actualSignalHandler));
}

class HandlingOneSignal : public ManagerTest {};

TEST_F(HandlingOneSignal, DefaultOrIgnoredBeforeStoresNoRecordButInstalls) {
    hostInstalls(SIGUSR1, SIG_DFL);
    hostInstalls(SIGUSR2, SIG_IGN);
    Manager manager(true);
    for (const int signalNumber : {SIGUSR1, SIGUSR2}) {
        manager.handleSignal(signalNumber);
        EXPECT_TRUE(takenOverQ(signalNumber)) << signalNumber;
        ASSERT_NE(tableOf(signalNumber), nullptr) << signalNumber;
        EXPECT_EQ(recordCount(signalNumber), 0U) << signalNumber;
    }
}

TEST_F(HandlingOneSignal, SecondTimeStoresNothingAndUsesTheSameTable) {
    hostInstalls(SIGUSR1, hostHandler);
    Manager manager(true);
    manager.handleSignal(SIGUSR1);
    const HandlerTable* const table = tableOf(SIGUSR1);
    ASSERT_EQ(recordCount(SIGUSR1), 1U);
    manager.handleSignal(SIGUSR1);
    EXPECT_EQ(tableOf(SIGUSR1), table);
    EXPECT_EQ(functionsInSlotOrder(SIGUSR1), std::vector<void*>{addressOf(hostHandler)});
}

TEST_F(HandlingOneSignal, ForbiddenSignalGetsAnEmptyTableAndKeepsItsAction) {
    hostInstalls(SIGUSR1, hostHandler);
    Manager manager(true);
    manager.setSignalDisposition(SIGUSR1, false);
    manager.handleSignal(SIGUSR1);
    ASSERT_NE(tableOf(SIGUSR1), nullptr);
    EXPECT_EQ(recordCount(SIGUSR1), 0U);
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
}

TEST_F(HandlingOneSignal, ForbiddenSignalThatHasATableKeepsThatOne) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    const HandlerTable* const table = tableOf(SIGUSR1);
    manager.setSignalDisposition(SIGUSR1, false);
    manager.handleSignal(SIGUSR1);
    EXPECT_EQ(tableOf(SIGUSR1), table);
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
    EXPECT_TRUE(defaultInSystemQ(SIGUSR1));
}

TEST_F(HandlingOneSignal, HostHandlerIsKeptWithItsWholeAction) {
    struct sigaction host = {};
    host.sa_sigaction = hostInformationHandler;
    host.sa_flags = SA_SIGINFO | SA_NODEFER;
    host.sa_mask = setOf({SIGINT});
    ASSERT_EQ(sigaction(SIGUSR1, &host, nullptr), 0);
    Manager manager(true);
    manager.handleSignal(SIGUSR1);
    const Record* const stored = recordOf(SIGUSR1, hostInformationHandler);
    ASSERT_NE(stored, nullptr);
    EXPECT_TRUE(stored->preExistsQ());
    EXPECT_TRUE(stored->externalQ());
    EXPECT_TRUE(stored->validQ());
    EXPECT_EQ(stored->getSignalNumber(), SIGUSR1);
    const struct sigaction kept = Record(*stored).getOSStruct();
    EXPECT_NE(kept.sa_flags & SA_NODEFER, 0);
    EXPECT_EQ(kept.sa_flags & SA_RESTART, 0);
    EXPECT_EQ(sigismember(&kept.sa_mask, SIGINT), 1);
    EXPECT_EQ(sigismember(&kept.sa_mask, SIGTERM), 0);
}

TEST_F(HandlingOneSignal, HostHandlerThatIsRegisteredAlreadyKeepsItsRegistration) {
    hostInstalls(SIGUSR1, hostHandler);
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, hostHandler);
    manager.handleSignal(SIGUSR1);
    ASSERT_EQ(recordCount(SIGUSR1), 1U);
    EXPECT_FALSE(recordOf(SIGUSR1, hostHandler)->preExistsQ());
    EXPECT_TRUE(takenOverQ(SIGUSR1));
}

TEST_F(HandlingOneSignal, HostHandlerInstalledSinceTheFirstTimeIsKeptBesideTheFormer) {
    hostInstalls(SIGUSR1, hostHandler);
    Manager manager(true);
    manager.handleSignal(SIGUSR1);
    hostInstalls(SIGUSR1, otherHostHandler);
    manager.handleSignal(SIGUSR1);
    EXPECT_NE(recordOf(SIGUSR1, hostHandler), nullptr);
    EXPECT_NE(recordOf(SIGUSR1, otherHostHandler), nullptr);
}

TEST_F(HandlingOneSignal, NumbersThatAreNoSignalsGetATableAndNothingElse) {
    Manager manager(true);
    for (const int signalNumber : {INT_MIN, -1, 0, 61, INT_MAX}) {
        EXPECT_NO_THROW(manager.handleSignal(signalNumber)) << signalNumber;
    }
    EXPECT_EQ(Manager::handlerTables->used, 5U);
    // One less than the lowest int wraps to the highest.
    EXPECT_TRUE(Manager::handlerTables->has_key(INT_MAX));
    EXPECT_TRUE(Manager::handlerTables->has_key(INT_MAX - 1));
}

TEST_F(HandlingOneSignal, KeyIsOneLessThanTheSignal) {
    Manager manager(true);
    manager.handleSignal(SIGHUP);
    manager.handleSignal(60);
    EXPECT_TRUE(Manager::handlerTables->has_key(0));
    EXPECT_TRUE(Manager::handlerTables->has_key(59));
    EXPECT_FALSE(Manager::handlerTables->has_key(SIGHUP));
    EXPECT_FALSE(Manager::handlerTables->has_key(60));
}

class RecordsOfTheManager : public ManagerTest {};

void expectPlainRecord(Record record, void* function, int informationFlag) {
    EXPECT_EQ(record.getSignalNumber(), SIGUSR1);
    EXPECT_EQ(record.getHandlerFunction(), function);
    EXPECT_FALSE(record.preExistsQ());
    EXPECT_FALSE(record.externalQ());
    EXPECT_TRUE(record.validQ());
    EXPECT_EQ(record.getOSStruct().sa_flags & SA_SIGINFO, informationFlag);
}

TEST_F(RecordsOfTheManager, AreMadeAsDescribedAndInstallNothing) {
    Manager manager(true);
    const std::vector<void*> before = systemHandlers();
    expectPlainRecord(manager.theSVHandler(SIGUSR1), addressOf(actualSignalHandler), SA_SIGINFO);
    expectPlainRecord(manager.ignoreHandler(SIGUSR1), reinterpret_cast<void*>(SIG_IGN), 0);
    expectPlainRecord(manager.defaultHandler(SIGUSR1), reinterpret_cast<void*>(SIG_DFL), 0);
    EXPECT_EQ(systemHandlers(), before);
    EXPECT_EQ(tableOf(SIGUSR1), nullptr);
}

TEST_F(RecordsOfTheManager, IgnoringASignalReturnsWhatWasThereAndLeavesTheTables) {
    hostInstalls(SIGUSR1, hostHandler);
    Manager manager(true);
    const Record host = manager.ignoreSignal(SIGUSR1);
    EXPECT_EQ(host.getHandlerFunction(), addressOf(hostHandler));
    EXPECT_TRUE(host.preExistsQ());
    EXPECT_TRUE(ignoredInSystemQ(SIGUSR1));
    EXPECT_EQ(tableOf(SIGUSR1), nullptr);

    manager.setHandlerFromFunction(SIGUSR2, userHandler);
    manager.startHandlingSignals();
    const Record own = manager.ignoreSignal(SIGUSR2);
    EXPECT_EQ(own.getHandlerFunction(), addressOf(actualSignalHandler));
    EXPECT_TRUE(ignoredInSystemQ(SIGUSR2));
    EXPECT_EQ(functionsInSlotOrder(SIGUSR2), std::vector<void*>{addressOf(userHandler)});
}

TEST_F(RecordsOfTheManager, IgnoringASignalAsksNoDisposition) {
    Manager manager(true);
    manager.setSignalDisposition(SIGUSR1, false);
    manager.ignoreSignal(SIGUSR1);
    EXPECT_TRUE(ignoredInSystemQ(SIGUSR1));
    EXPECT_FALSE(mayHandleQ(SIGUSR1));
}

}  // namespace
