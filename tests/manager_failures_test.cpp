// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Every failure of the manager: what is thrown, and what is then still as it was.

#include <../utilities/svsharedstate.h>
#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string_view>
#include <vector>

#include "support/child_process.h"
#include "support/failure.h"
#include "support/manager_fixture.h"
#include "support/memory_limit.h"
#include "support/thread_state.h"

namespace {

using Sorvane::SVMutexHandle;

// --- The operating system refuses --------------------------------------------------------------

// SIGKILL is the signal that the operating system lets nobody handle; these tests allow it.
class SystemRefuses : public OneManagerTest {
protected:
    SystemRefuses() {
        m_manager.setSignalDisposition(SIGKILL, true);
        // One signal before it and one after it show how far an operation came.
        m_manager.setHandlerFromFunction(SIGINT, userHandler);
        m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    }
    ~SystemRefuses() noexcept override = default;
};

TEST_F(SystemRefuses, InstallationThrowsAndLocksNothing) {
    Record record = userRecord(SIGKILL, userHandler);
    expectSigactionFailure(failureOf([&] { m_manager.installHandlerInSystem(record); }), EINVAL);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(SystemRefuses, IgnoringThrowsAndLocksNothing) {
    expectSigactionFailure(failureOf([&] { m_manager.ignoreSignal(SIGKILL); }), EINVAL);
    EXPECT_TRUE(lockIsFree());
    EXPECT_EQ(tableOf(SIGKILL), nullptr);
}

TEST_F(SystemRefuses, HandlingOneSignalLeavesItsNewTableAndReleasesTheLock) {
    expectSigactionFailure(failureOf([&] { m_manager.handleSignal(SIGKILL); }), EINVAL);
    ASSERT_NE(tableOf(SIGKILL), nullptr);
    EXPECT_EQ(recordCount(SIGKILL), 0U);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(SystemRefuses, RegistrationLeavesTheRecordStoredAndReleasesTheLock) {
    m_manager.startHandlingSignals();
    expectSigactionFailure(
        failureOf([&] { m_manager.setHandlerFromFunction(SIGKILL, userHandler); }), EINVAL);
    EXPECT_NE(recordOf(SIGKILL, userHandler), nullptr);
    EXPECT_TRUE(lockIsFree());
    EXPECT_TRUE(Manager::currentlyHandlingSignals);
}

TEST_F(SystemRefuses, ClearingLeavesTheRecordStoredAndReleasesTheLock) {
    Record host = hostRecord(SIGKILL, hostHandler);
    m_manager.setHandler(host);
    expectSigactionFailure(failureOf([&] { m_manager.clearHandler(host); }), EINVAL);
    EXPECT_NE(recordOf(SIGKILL, hostHandler), nullptr);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(SystemRefuses, StartLeavesTheSignalsBeforeTakenOverAndALaterOneWalksAllAgain) {
    m_manager.setHandlerFromFunction(SIGKILL, userHandler);
    expectSigactionFailure(failureOf([&] { m_manager.startHandlingSignals(); }), EINVAL);
    EXPECT_TRUE(takenOverQ(SIGINT));
    EXPECT_TRUE(defaultInSystemQ(SIGUSR1));
    EXPECT_FALSE(Manager::currentlyHandlingSignals);
    EXPECT_TRUE(lockIsFree()) << "it was let go for the call that failed";

    m_manager.clearHandlerWithFunction(SIGKILL, userHandler);
    hostInstalls(SIGINT, hostHandler);
    m_manager.startHandlingSignals();
    EXPECT_TRUE(takenOverQ(SIGINT));
    EXPECT_NE(recordOf(SIGINT, hostHandler), nullptr) << "signals before are walked again";
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    EXPECT_TRUE(Manager::currentlyHandlingSignals);
}

TEST_F(SystemRefuses, StopOfOneSignalReleasesTheLock) {
    makeTableOf(m_manager, SIGKILL);
    expectSigactionFailure(failureOf([&] { m_manager.stopHandlingSignal(SIGKILL); }), EINVAL);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(SystemRefuses, StopOfAllLeavesTheSignalsBeforeHandedBackAndSignalsHandled) {
    m_manager.startHandlingSignals();
    makeTableOf(m_manager, SIGKILL);
    expectSigactionFailure(failureOf([&] { m_manager.stopHandlingSignals(); }), EINVAL);
    EXPECT_TRUE(ignoredInSystemQ(SIGINT));
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    EXPECT_TRUE(Manager::currentlyHandlingSignals);
    EXPECT_TRUE(lockIsFree());

    m_manager.setSignalDisposition(SIGKILL, false);
    m_manager.stopHandlingSignals();
    EXPECT_TRUE(ignoredInSystemQ(SIGUSR1));
    EXPECT_FALSE(Manager::currentlyHandlingSignals);
}

TEST_F(SystemRefuses, RestorationReleasesTheLock) {
    makeTableOf(m_manager, SIGKILL);
    putIntoTable(hostRecord(SIGKILL, hostHandler));
    expectSigactionFailure(failureOf([&] { m_manager.restorePreviouslyExistingHandlers(); }),
                           EINVAL);
    EXPECT_TRUE(lockIsFree());
    EXPECT_EQ(recordCount(SIGKILL), 1U);
}

TEST_F(SystemRefuses, DispatchLeavesNoManagerBehindAndTheLockAlone) {
    expectSigactionFailure(failureOf([] { actualSignalHandler(SIGKILL, nullptr, nullptr); }),
                           EINVAL);
    EXPECT_EQ(Manager::numberOfManagers, 1U);
    EXPECT_TRUE(lockIsFree());
}

class LastManager : public ManagerTest {};

// The state is half taken down then, and nobody is to go on with it.
TEST_F(LastManager, ThatCannotRestoreThrowsWithTheLockHeldAndTheTablesKept) {
    const ChildEnd end = inChild([] {
        auto* const manager = new Manager(true);
        manager->setHandlerFromFunction(SIGUSR1, userHandler);
        manager->startHandlingSignals();
        makeTableOf(*manager, SIGKILL);
        putIntoTable(hostRecord(SIGKILL, hostHandler));
        expectSigactionFailure(failureOf([manager] { delete manager; }), EINVAL);
        EXPECT_EQ(Manager::numberOfManagers, 0U);
        EXPECT_TRUE(Manager::currentlyHandlingSignals);
        EXPECT_NE(recordOf(SIGUSR1, userHandler), nullptr);
        ASSERT_NE(Manager::handlerTableLock, nullptr);
        EXPECT_FALSE(lockIsFree());
        tableOf(SIGKILL)->remove(addressOf(hostHandler));
        Manager::handlerTableLock->unlock();
        { const Manager another(true); }
        EXPECT_FALSE(Manager::currentlyHandlingSignals);
        EXPECT_EQ(Manager::handlerTableLock, nullptr) << "it has no users left";
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

// --- There is no memory ------------------------------------------------------------------------

// Registered, never called: the addresses are chosen for their slots.
SimpleHandler handlerAt(std::uintptr_t address) {
    return reinterpret_cast<SimpleHandler>(address);
}

class NoMemory : public OneManagerTest {
protected:
    void SetUp() override { SKIP_WITHOUT_MEMORY_LIMIT(); }
    ~NoMemory() noexcept override = default;
};

TEST_F(NoMemory, RegistrationThatNeedsATableThrowsAndSucceedsLater) {
    Failure failure;
    {
        const MemoryLimit limit;
        failure = failureOf([&] { m_manager.setHandlerFromFunction(SIGUSR1, userHandler); });
    }
    expectNoTableForHandler(failure);
    EXPECT_TRUE(lockIsFree());
    EXPECT_EQ(tableOf(SIGUSR1), nullptr);
    EXPECT_EQ(Manager::handlerTables->used, 0U);
    EXPECT_EQ(Manager::handlerTables->fill, 0U);

    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
}

TEST_F(NoMemory, EveryFormOfRegistrationThrowsTheSame) {
    struct sigaction action = {};
    action.sa_handler = userHandler;
    Record record = userRecord(SIGUSR1, userHandler);
    RecordList records;
    records.push_back(record);
    Failure failures[5];
    {
        const MemoryLimit limit;
        failures[0] = failureOf([&] { m_manager.setHandler(record); });
        failures[1] = failureOf([&] { m_manager.setHandlerFromFunction(SIGUSR1, userHandler); });
        failures[2] =
            failureOf([&] { m_manager.setHandlerFromFunction(SIGUSR1, userInformationHandler); });
        failures[3] = failureOf([&] { m_manager.setHandlerFromOSStruct(SIGUSR1, action); });
        failures[4] = failureOf([&] { m_manager.setHandlers(records); });
    }
    for (const Failure& failure : failures) {
        expectNoTableForHandler(failure);
    }
    EXPECT_EQ(Manager::handlerTables->used, 0U);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(NoMemory, HandlingASignalThatNeedsATableThrowsAndSucceedsLater) {
    hostInstalls(SIGUSR1, hostHandler);
    Failure failure;
    {
        const MemoryLimit limit;
        failure = failureOf([&] { m_manager.handleSignal(SIGUSR1); });
    }
    expectNoTableForSignal(failure);
    EXPECT_TRUE(lockIsFree());
    EXPECT_EQ(Manager::handlerTables->used, 0U);
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler)) << "nothing was installed";

    m_manager.handleSignal(SIGUSR1);
    EXPECT_NE(recordOf(SIGUSR1, hostHandler), nullptr);
}

TEST_F(NoMemory, HandlingAForbiddenSignalThatNeedsATableThrowsToo) {
    m_manager.setSignalDisposition(SIGUSR1, false);
    Failure failure;
    {
        const MemoryLimit limit;
        failure = failureOf([&] { m_manager.handleSignal(SIGUSR1); });
    }
    expectNoTableForSignal(failure);
}

TEST_F(NoMemory, RegistrationOfAForbiddenSignalNeedsNone) {
    m_manager.setSignalDisposition(SIGUSR1, false);
    Failure failure;
    {
        const MemoryLimit limit;
        failure = failureOf([&] { m_manager.setHandlerFromFunction(SIGUSR1, userHandler); });
    }
    EXPECT_FALSE(failure.has_value());
}

TEST_F(NoMemory, FiveHandlersOfASignalThatHasATableNeedNone) {
    makeTableOf(m_manager, SIGUSR1);
    Failure failure;
    {
        const MemoryLimit limit;
        failure = failureOf([&] {
            for (std::size_t i = 0; i < 5; ++i) {
                m_manager.setHandlerFromFunction(SIGUSR1, numberedHandlers.at(i));
            }
        });
    }
    EXPECT_FALSE(failure.has_value());
    EXPECT_EQ(recordCount(SIGUSR1), 5U);
}

// Fails as often as one likes, without using anything up, and succeeds in the end.
TEST_F(NoMemory, SixthHandlerOfASignalThrowsKeepsTheOthersAndSucceedsLater) {
    for (std::size_t i = 0; i < 5; ++i) {
        m_manager.setHandlerFromFunction(SIGUSR1, numberedHandlers.at(i));
    }
    const std::vector<void*> before = functionsInSlotOrder(SIGUSR1);
    for (std::size_t round = 0; round < 10; ++round) {
        Failure failure;
        {
            const MemoryLimit limit;
            failure = failureOf(
                [&] { m_manager.setHandlerFromFunction(SIGUSR1, numberedHandlers.at(5 + round)); });
        }
        expectNoSpaceForLargerTable(failure);
        ASSERT_EQ(functionsInSlotOrder(SIGUSR1), before);
        ASSERT_EQ(tableOf(SIGUSR1)->fill, 5U);
        ASSERT_TRUE(lockIsFree());
    }
    m_manager.setHandlerFromFunction(SIGUSR1, numberedHandlers.at(5));
    EXPECT_EQ(recordCount(SIGUSR1), 6U);
    m_manager.startHandlingSignals();
    raise(SIGUSR1);
    EXPECT_EQ(callCount(), 6U);
}

TEST_F(NoMemory, RegistrationThatCleansATableThrowsAndSucceedsLater) {
    // Five slots deleted and a sixth used: the table is to be rebuilt at the same size, by way of
    // a copy.
    for (std::uintptr_t address = 0x1000; address < 0x1005; ++address) {
        m_manager.setHandlerFromFunction(SIGUSR1, handlerAt(address));
        m_manager.clearHandlerWithFunction(SIGUSR1, handlerAt(address));
    }
    ASSERT_EQ(tableOf(SIGUSR1)->fill, 5U);
    Failure failure;
    {
        const MemoryLimit limit;
        failure = failureOf([&] { m_manager.setHandlerFromFunction(SIGUSR1, handlerAt(0x1005)); });
    }
    expectNoSpaceForCopyOfTable(failure);
    EXPECT_EQ(recordCount(SIGUSR1), 0U);
    EXPECT_EQ(tableOf(SIGUSR1)->fill, 5U);
    EXPECT_TRUE(lockIsFree());

    m_manager.setHandlerFromFunction(SIGUSR1, handlerAt(0x1005));
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
    EXPECT_EQ(tableOf(SIGUSR1)->fill, 1U);
}

// There is memory for the signal's own table and none for the outer one, which is to grow.
TEST_F(NoMemory, SixthSignalThrowsKeepsTheOthersAndSucceedsLater) {
    const std::vector<int> five = {SIGINT, SIGQUIT, SIGUSR1, SIGUSR2, SIGTERM};
    for (const int signalNumber : five) {
        m_manager.setHandlerFromFunction(signalNumber, userHandler);
    }
    Failure ofRegistration;
    Failure ofHandling;
    {
        const MemoryLimit limit{sizeof(HandlerTable)};
        ofRegistration = failureOf([&] { m_manager.setHandlerFromFunction(SIGALRM, userHandler); });
    }
    {
        const MemoryLimit limit{sizeof(HandlerTable)};
        ofHandling = failureOf([&] { m_manager.handleSignal(SIGALRM); });
    }
    expectNoSpaceForLargerTable(ofRegistration);
    expectNoSpaceForLargerTable(ofHandling);
    EXPECT_EQ(tableOf(SIGALRM), nullptr);
    EXPECT_EQ(Manager::handlerTables->used, 5U);
    EXPECT_EQ(Manager::handlerTables->fill, 5U);
    for (const int signalNumber : five) {
        EXPECT_NE(recordOf(signalNumber, userHandler), nullptr) << signalNumber;
    }
    EXPECT_TRUE(defaultInSystemQ(SIGALRM));
    EXPECT_TRUE(lockIsFree());

    m_manager.setHandlerFromFunction(SIGALRM, userHandler);
    EXPECT_EQ(Manager::handlerTables->used, 6U);
}

TEST_F(NoMemory, TakeoverThatCannotRecordTheHostsHandlerKeepsTheUsersHandlers) {
    hostInstalls(SIGUSR1, hostHandler);
    for (std::size_t i = 0; i < 5; ++i) {
        m_manager.setHandlerFromFunction(SIGUSR1, numberedHandlers.at(i));
    }
    const std::vector<void*> before = functionsInSlotOrder(SIGUSR1);
    Failure failure;
    {
        const MemoryLimit limit;
        failure = failureOf([&] { m_manager.startHandlingSignals(); });
    }
    expectNoSpaceForLargerTable(failure);
    EXPECT_EQ(functionsInSlotOrder(SIGUSR1), before);
    EXPECT_FALSE(Manager::currentlyHandlingSignals);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(NoMemory, ListStopsAtTheFirstElementThatNeedsATable) {
    makeTableOf(m_manager, SIGUSR1);
    RecordList records;
    records.push_back(userRecord(SIGUSR1, userHandler));
    records.push_back(userRecord(SIGUSR2, userHandler));
    records.push_back(userRecord(SIGUSR1, otherUserHandler));
    Failure failure;
    {
        const MemoryLimit limit;
        failure = failureOf([&] { m_manager.setHandlers(records); });
    }
    expectNoTableForHandler(failure);
    EXPECT_EQ(functionsInSlotOrder(SIGUSR1), std::vector<void*>{addressOf(userHandler)});
    EXPECT_EQ(tableOf(SIGUSR2), nullptr);
    EXPECT_TRUE(lockIsFree());
}

// The exception's own allocation fails too, and leaves another errno behind.
TEST_F(NoMemory, FailureOfSigactionIsReportedWithTheErrnoThatSigactionLeft) {
    Record record = userRecord(SIGKILL, userHandler);
    Failure failure;
    {
        const MemoryLimit limit;
        failure = failureOf([&] { m_manager.installHandlerInSystem(record); });
    }
    expectSigactionFailure(failure, EINVAL);
}

TEST_F(NoMemory, StartStopClearingAndRestorationNeedNone) {
    hostInstalls(SIGUSR1, hostHandler);
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    Failure failure;
    bool takenOver = false;
    bool restored = false;
    bool stopped = false;
    {
        const MemoryLimit limit;
        failure = failureOf([&] {
            m_manager.startHandlingSignals();
            takenOver = takenOverQ(SIGUSR1);
            m_manager.restorePreviouslyExistingHandlers();
            restored = systemHandler(SIGUSR1) == addressOf(hostHandler);
            m_manager.handleSignal(SIGUSR1);
            m_manager.stopHandlingSignals();
            stopped = systemHandler(SIGUSR1) == addressOf(hostHandler);
            m_manager.clearHandlerWithFunction(SIGUSR1, userHandler);
        });
    }
    EXPECT_FALSE(failure.has_value());
    EXPECT_TRUE(takenOver);
    EXPECT_TRUE(restored);
    EXPECT_TRUE(stopped);
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
}

TEST_F(NoMemory, DeliveryNeedsNone) {
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    m_manager.setHandlerFromFunction(SIGUSR1, userInformationHandler);
    m_manager.startHandlingSignals();
    {
        const MemoryLimit limit;
        raise(SIGUSR1);
    }
    EXPECT_EQ(callsOf(userHandler), 1U);
    EXPECT_EQ(callsOf(userInformationHandler), 1U);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
}

// A stream's buffer that was there before.
class FixedBuffer : public std::streambuf {
public:
    FixedBuffer() { setp(m_room, m_room + sizeof(m_room)); }
    std::string_view text() const {
        return std::string_view(m_room, static_cast<std::size_t>(pptr() - pbase()));
    }

private:
    char m_room[4096];
};

TEST_F(NoMemory, DumpNeedsNone) {
    // An address that no module has: to name a function may well take memory.
    m_manager.setHandlerFromFunction(SIGUSR1, handlerAt(0x10a2c));
    std::ostringstream expected;
    expected << m_manager;
    FixedBuffer buffer;
    std::ostream stream(&buffer);
    {
        const MemoryLimit limit;
        stream << m_manager;
    }
    EXPECT_EQ(buffer.text(), expected.str());
}

// --- What a change needs while there is no more than that ---------------------------------------

/// What one array of so many slots takes, with the count of elements that it carries.
template <typename Table>
std::size_t sizeOfSlots(std::size_t count) {
    using Entry = typename Table::Entry;
    return count * sizeof(Entry) + std::max(sizeof(std::size_t), alignof(Entry));
}

// What keeps displaced tables for their readers: an object with two pointers.
constexpr std::size_t sizeOfRetired = 3 * sizeof(void*);

class Needs : public NoMemory {
protected:
    using Expectation = void (*)(const Failure&);

    // An operation fails without any one of the blocks that it needs, with the failure that goes
    // with it, and changes nothing; with all of them it succeeds.
    struct Block {
        std::size_t size;
        Expectation expectFailureWithoutIt;
    };

    void expectNeeds(const std::vector<Block>& blocks, const std::function<void()>& operation,
                     const std::function<void()>& expectUnchanged) {
        for (std::size_t missing = 0; missing < blocks.size(); ++missing) {
            const Failure failure = failureWith(sizesWithout(blocks, missing), operation);
            blocks[missing].expectFailureWithoutIt(failure);
            expectUnchanged();
            ASSERT_FALSE(HasFailure()) << "without block " << missing;
            EXPECT_TRUE(lockIsFree());
        }
        const Failure failure = failureWith(sizesWithout(blocks, blocks.size()), operation);
        EXPECT_FALSE(failure.has_value());
    }

    void registerNumbered(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            m_manager.setHandlerFromFunction(SIGUSR1, numberedHandlers.at(i));
        }
    }

    // The same records in the same slots.
    static std::function<void()> nothingElseThan(std::vector<void*> functions) {
        return [functions] { EXPECT_EQ(functionsInSlotOrder(SIGUSR1), functions); };
    }

    static Failure failureWith(const std::vector<std::size_t>& spare,
                               const std::function<void()>& operation) {
        const MemoryLimit limit(spare);
        return failureOf([&operation] { operation(); });
    }

private:
    static std::vector<std::size_t> sizesWithout(const std::vector<Block>& blocks,
                                                 std::size_t missing) {
        std::vector<std::size_t> sizes;
        for (std::size_t i = 0; i < blocks.size(); ++i) {
            if (i != missing) {
                sizes.push_back(blocks[i].size);
            }
        }
        return sizes;
    }
};

TEST_F(Needs, OfANewSignalIsItsTable) {
    expectNeeds(
        {{sizeof(HandlerTable), expectNoTableForHandler}},
        [this] { m_manager.setHandlerFromFunction(SIGUSR1, userHandler); },
        [] { EXPECT_EQ(Manager::handlerTables->used, 0U); });
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
}

TEST_F(Needs, OfANewSignalForWhichTheOuterTableGrowsAreItsNewSlotsToo) {
    for (const int signalNumber : {SIGINT, SIGQUIT, SIGUSR1, SIGUSR2, SIGTERM}) {
        m_manager.setHandlerFromFunction(signalNumber, userHandler);
    }
    expectNeeds(
        {{sizeof(HandlerTable), expectNoTableForHandler},
         {sizeOfSlots<SignalTable>(33), expectNoSpaceForLargerTable}},
        [this] { m_manager.setHandlerFromFunction(SIGALRM, userHandler); },
        [] {
            EXPECT_EQ(Manager::handlerTables->used, 5U);
            EXPECT_EQ(Manager::handlerTables->fill, 5U);
            EXPECT_EQ(tableOf(SIGALRM), nullptr);
        });
    EXPECT_EQ(Manager::handlerTables->used, 6U);
}

// What stands in for a table meanwhile can be done without.
TEST_F(Needs, OfGrowthAreTheNewSlots) {
    registerNumbered(5);
    expectNeeds(
        {{sizeOfSlots<HandlerTable>(33), expectNoSpaceForLargerTable}},
        [this] { m_manager.setHandlerFromFunction(SIGUSR1, numberedHandlers[5]); },
        nothingElseThan(functionsInSlotOrder(SIGUSR1)));
    EXPECT_EQ(recordCount(SIGUSR1), 6U);
}

TEST_F(Needs, OfGrowthBeyondTheInlineSlotsAreTheNewOnes) {
    registerNumbered(21);
    ASSERT_EQ(tableOf(SIGUSR1)->mask, 31U);
    expectNeeds(
        {{sizeOfSlots<HandlerTable>(129), expectNoSpaceForLargerTable}},
        [this] { m_manager.setHandlerFromFunction(SIGUSR1, numberedHandlers[21]); },
        nothingElseThan(functionsInSlotOrder(SIGUSR1)));
    EXPECT_EQ(recordCount(SIGUSR1), 22U);
}

TEST_F(Needs, OfACleanIsACopyOfTheSlots) {
    for (std::uintptr_t address = 0x1000; address < 0x1005; ++address) {
        m_manager.setHandlerFromFunction(SIGUSR1, handlerAt(address));
        m_manager.clearHandlerWithFunction(SIGUSR1, handlerAt(address));
    }
    expectNeeds(
        {{sizeOfSlots<HandlerTable>(9), expectNoSpaceForCopyOfTable}},
        [this] { m_manager.setHandlerFromFunction(SIGUSR1, handlerAt(0x1005)); },
        [] { EXPECT_EQ(tableOf(SIGUSR1)->fill, 5U); });
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
}

// While somebody reads the tables they are not changed in place.
class NeedsWhileSomebodyReads : public Needs {
protected:
    ~NeedsWhileSomebodyReads() noexcept override = default;

    // What is had once is published, and need not be had again, so nothing is there at first.
    void expectNeedsCopies(const std::function<void()>& operation,
                           const std::function<void()>& expectUnchanged) {
        expectNoTableForHandler(failureWith({}, operation));
        expectUnchanged();
        EXPECT_TRUE(lockIsFree());
        EXPECT_FALSE(
            failureWith({sizeof(HandlerTable), sizeof(SignalTable), sizeOfRetired}, operation)
                .has_value());
    }
};

TEST_F(NeedsWhileSomebodyReads, OfARegistrationAreCopiesOfBothTables) {
    registerNumbered(1);
    const Sorvane::SVTablesPin reader;
    expectNeedsCopies([this] { m_manager.setHandlerFromFunction(SIGUSR1, numberedHandlers[1]); },
                      nothingElseThan(functionsInSlotOrder(SIGUSR1)));
    EXPECT_EQ(recordCount(SIGUSR1), 2U);
    EXPECT_EQ(reader.tableOf(SIGUSR1)->used, 1U) << "the reader has what it had";
}

TEST_F(NeedsWhileSomebodyReads, OfAClearingAreCopiesOfBothTables) {
    registerNumbered(2);
    const Sorvane::SVTablesPin reader;
    expectNeedsCopies([this] { m_manager.clearHandlerWithFunction(SIGUSR1, numberedHandlers[1]); },
                      nothingElseThan(functionsInSlotOrder(SIGUSR1)));
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
    EXPECT_EQ(reader.tableOf(SIGUSR1)->used, 2U);
}

// Otherwise the record would stay, with the signal handed back.
TEST_F(NeedsWhileSomebodyReads, OfAClearingThatHandsBackAreThereBeforeIt) {
    hostInstalls(SIGUSR1, hostHandler);
    m_manager.handleSignal(SIGUSR1);
    Record host = hostRecord(SIGUSR1, hostHandler);
    const Sorvane::SVTablesPin reader;
    expectNeedsCopies([&] { m_manager.clearHandler(host); },
                      [] {
                          EXPECT_TRUE(takenOverQ(SIGUSR1));
                          EXPECT_EQ(recordCount(SIGUSR1), 1U);
                      });
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
    EXPECT_EQ(recordCount(SIGUSR1), 0U);
}

TEST_F(NeedsWhileSomebodyReads, OfANewSignalAreItsTableAndACopyOfTheOuterOne) {
    const Sorvane::SVTablesPin reader;
    expectNeedsCopies([this] { m_manager.setHandlerFromFunction(SIGUSR1, userHandler); },
                      [] { EXPECT_EQ(tableOf(SIGUSR1), nullptr); });
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
    EXPECT_EQ(reader.tableOf(SIGUSR1), nullptr);
}

Failure ofRegistration;
Failure ofClearing;

void registerAndClear(int signalNumber) {
    Manager inner(false);
    ofRegistration =
        failureOf([&] { inner.setHandlerFromFunction(signalNumber, otherUserHandler); });
    ofClearing = failureOf([&] { inner.clearHandlerWithFunction(signalNumber, userHandler); });
}

TEST_F(NoMemory, HandlerThatChangesWhatIsBeingReadGetsItsFailuresAndTheOthersAreCalled) {
    m_manager.setHandlerFromFunction(SIGUSR1, registerAndClear);
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    m_manager.startHandlingSignals();
    {
        const MemoryLimit limit;
        raise(SIGUSR1);
    }
    expectNoTableForHandler(ofRegistration);
    expectNoTableForHandler(ofClearing);
    EXPECT_EQ(callsOf(userHandler), 1U);
    EXPECT_EQ(recordCount(SIGUSR1), 2U);

    raise(SIGUSR1);
    EXPECT_FALSE(ofRegistration.has_value());
    EXPECT_FALSE(ofClearing.has_value());
    const std::vector<void*> functions = functionsInSlotOrder(SIGUSR1);
    EXPECT_EQ(functions.size(), 2U);
    EXPECT_EQ(std::ranges::count(functions, addressOf(otherUserHandler)), 1);
}

// --- There is no memory for the shared state itself --------------------------------------------

class NoMemoryAtFirst : public ManagerTest {
protected:
    void SetUp() override { SKIP_WITHOUT_MEMORY_LIMIT(); }

    // Makes the first manager while there is memory for nothing but the spare blocks.
    void makeFirst(bool locking, std::initializer_list<std::size_t> spare) {
        const MemoryLimit limit(spare);
        m_first.emplace(locking);
    }

    ~NoMemoryAtFirst() noexcept override = default;

    std::optional<Manager> m_first;
};

TEST_F(NoMemoryAtFirst, ManagerIsMadeAndCountedAndTheDispositionsAreReset) {
    Manager::signalDispositionSet.doNotHandleSignal(SIGUSR1);
    makeFirst(true, {});
    EXPECT_EQ(Manager::numberOfManagers, 1U);
    EXPECT_EQ(Manager::handlerTables, nullptr);
    EXPECT_EQ(Manager::handlerTableLock, nullptr);
    EXPECT_TRUE(mayHandleQ(SIGUSR1));
    m_first.reset();
    EXPECT_EQ(Manager::numberOfManagers, 0U);
}

TEST_F(NoMemoryAtFirst, OperationsThatOnlyLookFindNothing) {
    makeFirst(true, {});
    EXPECT_FALSE(m_first->hasPreexistingOrExternalHandlerQ(SIGUSR1));
    m_first->callHandlers(SIGUSR1, nullptr, nullptr);
    m_first->callOnlyPreexistingOrExternalHandlers(SIGUSR1, nullptr, nullptr);
    m_first->clearHandlerWithFunction(SIGUSR1, userHandler);
    m_first->stopHandlingSignal(SIGUSR1);
    m_first->restorePreviouslyExistingHandlers();
    EXPECT_EQ(callCount(), 0U);
    EXPECT_TRUE(defaultInSystemQ(SIGUSR1));
    std::ostringstream dump;
    dump << *m_first;
    EXPECT_EQ(dump.str(),
              "<SVSignalHandlerManager><numberOfManagers>1</numberOfManagers>"
              "<currentlyHandlingSignals>0</currentlyHandlingSignals></SVSignalHandlerManager>");
}

TEST_F(NoMemoryAtFirst, OperationsThatMustStoreThrow) {
    makeFirst(true, {});
    expectNoTableForHandler(
        failureOf([&] { m_first->setHandlerFromFunction(SIGUSR1, userHandler); }));
    expectNoTableForSignal(failureOf([&] { m_first->handleSignal(SIGUSR1); }));
    EXPECT_EQ(Manager::handlerTables, nullptr);
    EXPECT_TRUE(defaultInSystemQ(SIGUSR1));
}

TEST_F(NoMemoryAtFirst, StartStopAndTeardownWorkOnNothing) {
    makeFirst(true, {});
    m_first->startHandlingSignals();
    EXPECT_TRUE(Manager::currentlyHandlingSignals);
    m_first->stopHandlingSignals();
    EXPECT_FALSE(Manager::currentlyHandlingSignals);
    m_first->startHandlingSignals();
    m_first.reset();
    EXPECT_FALSE(Manager::currentlyHandlingSignals);
    EXPECT_EQ(Manager::numberOfManagers, 0U);
}

TEST_F(NoMemoryAtFirst, NextManagerMakesWhatIsMissing) {
    makeFirst(true, {});
    const Manager second(true);
    EXPECT_NE(Manager::handlerTables, nullptr);
    EXPECT_NE(Manager::handlerTableLock, nullptr);
    m_first->setHandlerFromFunction(SIGUSR1, userHandler);
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(NoMemoryAtFirst, TablesWithoutALockServeAllTheSame) {
    makeFirst(true, {sizeof(SignalTable)});
    ASSERT_NE(Manager::handlerTables, nullptr);
    EXPECT_EQ(Manager::handlerTableLock, nullptr);
    m_first->setHandlerFromFunction(SIGUSR1, userHandler);
    m_first->startHandlingSignals();
    raise(SIGUSR1);
    EXPECT_EQ(callsOf(userHandler), 1U);
    m_first->stopHandlingSignals();
    EXPECT_TRUE(ignoredInSystemQ(SIGUSR1));
    m_first.reset();
    EXPECT_EQ(Manager::numberOfManagers, 0U);
}

TEST_F(NoMemoryAtFirst, LockWithoutTablesIsFreeAfterEachFailure) {
    makeFirst(true, {sizeof(SVMutexHandle)});
    EXPECT_EQ(Manager::handlerTables, nullptr);
    ASSERT_NE(Manager::handlerTableLock, nullptr);
    EXPECT_TRUE(lockIsFree());
    expectNoTableForHandler(
        failureOf([&] { m_first->setHandlerFromFunction(SIGUSR1, userHandler); }));
    EXPECT_TRUE(lockIsFree());
    expectNoTableForSignal(failureOf([&] { m_first->handleSignal(SIGUSR1); }));
    EXPECT_TRUE(lockIsFree());
}

TEST_F(NoMemoryAtFirst, ManagerThatNeverLocksIsMadeToo) {
    makeFirst(false, {});
    EXPECT_EQ(Manager::handlerTables, nullptr);
    EXPECT_EQ(Manager::numberOfManagers, 1U);
    expectNoTableForHandler(
        failureOf([&] { m_first->setHandlerFromFunction(SIGUSR1, userHandler); }));
}

// The handler's own manager is the first one then, and finds no memory for the tables.
TEST_F(NoMemoryAtFirst, SignalThatArrivesWithoutAnyManagerCallsNothingAndGoesOn) {
    hostInstalls(SIGUSR1, actualSignalHandler);
    {
        const MemoryLimit limit;
        raise(SIGUSR1);
    }
    EXPECT_EQ(callCount(), 0U);
    EXPECT_EQ(Manager::handlerTables, nullptr);
    EXPECT_EQ(Manager::numberOfManagers, 0U);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
}

TEST_F(NoMemoryAtFirst, ManagerOnTheHeapIsNotMadeAndNotCounted) {
    Manager* manager = nullptr;
    {
        const MemoryLimit limit;
        manager = new Manager(true);
    }
    EXPECT_EQ(manager, nullptr);
    EXPECT_EQ(Manager::numberOfManagers, 0U);
    EXPECT_EQ(Manager::handlerTables, nullptr);
}

// --- How a failure leaves a change ---------------------------------------------------------------

TEST(Change, IsOverWhenItsFailureIsThrown) {
    bool closedInside = false;
    const auto fail = [&] {
        closedInside = Sorvane::SVGate::closedByThisThreadQ();
        return Sorvane::SVFailure("what failed", "where", 17, Sorvane::svexceptionAllocationFailed,
                                  3);
    };
    const std::uint64_t before = ThreadState().heldBack();
    try {
        Sorvane::svchange(nullptr, fail);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const Sorvane::SVException& exception) {
        EXPECT_FALSE(Sorvane::SVGate::closedByThisThreadQ());
        EXPECT_EQ(ThreadState().heldBack(), before);
        EXPECT_STREQ(exception.getMessage(), "what failed");
        EXPECT_STREQ(exception.getFile(), "where");
        EXPECT_EQ(exception.getLine(), 17U);
        EXPECT_EQ(exception.getType(), Sorvane::svexceptionAllocationFailed);
        EXPECT_EQ(exception.getCode(), 3);
    }
    EXPECT_TRUE(closedInside);
}

TEST(Change, ThrowsNothingWithoutAFailure) {
    EXPECT_FALSE(failureOf([] {
                     Sorvane::svchange(nullptr, [] { return Sorvane::SVFailure(); });
                 }).has_value());
}

}  // namespace
