// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What the first manager makes, what all share, and what the last one takes down.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "support/child_process.h"
#include "support/gate.h"
#include "support/joining_thread.h"
#include "support/manager_fixture.h"
#include "support/sanitizers.h"
#include "support/watched_lock.h"

namespace {

using Sorvane::SVMutexHandle;
using Sorvane::SVObject;
using Sorvane::SVSignalHandlerDispositionSet;

// Static objects of a program's own files are made before those of the libraries that it links,
// and destroyed after them. What lies between is open to any manager that such an object holds.
class StaticUser {
public:
    StaticUser() {
        Manager manager(false);
        m_foundAtFirst = manager.getSignalDisposition(SIGUSR1) &&
                         !manager.getSignalDisposition(SIGKILL) &&
                         !manager.getSignalDisposition(61);
        manager.setHandlerFromFunction(SIGUSR1, userHandler);
        m_registered = recordCount(SIGUSR1) == 1;
        // So that nothing of this is left for the tests: handling, the last manager takes it down.
        manager.clearHandlerWithFunction(SIGUSR1, userHandler);
        manager.startHandlingSignals();
    }
    StaticUser(const StaticUser&) = delete;
    StaticUser& operator=(const StaticUser&) = delete;
    ~StaticUser() {
        if (m_endsTheProcess) {
            Manager manager(false);
            _exit(manager.getSignalDisposition(SIGUSR1) ? exitStatusFoundAtLast : EXIT_FAILURE);
        }
    }

    static constexpr int exitStatusFoundAtLast = 77;

    bool m_foundAtFirst = false;
    bool m_registered = false;
    bool m_endsTheProcess = false;
};

StaticUser staticUser;

bool emptyAsConstructedQ(const SignalTable& table) {
    for (unsigned int slot = 0; slot <= table.mask + 1; ++slot) {
        if (table.table[slot].state != Sorvane::svslotEmpty) {
            return false;
        }
    }
    return table.used == 0 && table.fill == 0 && table.mask == 7 && table.table == table.smalltable;
}

class WatchedTable : public HandlerTable {
public:
    explicit WatchedTable(int& destructions) : m_destructions(destructions) {}
    ~WatchedTable() noexcept override { ++m_destructions; }

private:
    int& m_destructions;
};

class ManagerLifetime : public ManagerTest {};

TEST_F(ManagerLifetime, AllSharedStateIsZeroBeforeTheFirstManager) {
    EXPECT_FALSE(Manager::currentlyHandlingSignals);
    EXPECT_EQ(Manager::numberOfManagers, 0U);
    EXPECT_EQ(Manager::handlerTables, nullptr);
    EXPECT_EQ(Manager::handlerTableLock, nullptr);
}

TEST_F(ManagerLifetime, StaticObjectOfAnotherModuleFindsTheDispositionsWholeBeforeMain) {
    EXPECT_TRUE(staticUser.m_foundAtFirst);
    EXPECT_TRUE(staticUser.m_registered);
}

TEST_F(ManagerLifetime, StaticObjectOfAnotherModuleFindsTheDispositionsWholeAfterMain) {
    if (builtWithAddressSanitizer) {
        GTEST_SKIP() << "the sanitizers that go with it count any use after a destructor an error";
    }
    const ChildEnd end = inChild([] {
        staticUser.m_endsTheProcess = true;
        std::exit(EXIT_SUCCESS);
    });
    EXPECT_TRUE(end.exitedWithQ(StaticUser::exitStatusFoundAtLast)) << end;
}

TEST_F(ManagerLifetime, OneThatNeverLocksNorStartsLeavesTablesAndDispositionsAndMakesNoLock) {
    Manager::signalDispositionSet.doNotHandleSignal(SIGUSR1);
    {
        Manager manager(false);
        ASSERT_NE(Manager::handlerTables, nullptr);
        EXPECT_TRUE(emptyAsConstructedQ(*Manager::handlerTables));
        EXPECT_TRUE(mayHandleQ(SIGUSR1)) << "the first manager resets the dispositions";
        EXPECT_EQ(Manager::numberOfManagers, 1U);
        EXPECT_EQ(Manager::handlerTableLock, nullptr);
        manager.setSignalDisposition(SIGUSR2, false);
    }
    EXPECT_EQ(Manager::numberOfManagers, 0U);
    EXPECT_NE(Manager::handlerTables, nullptr);
    EXPECT_FALSE(mayHandleQ(SIGUSR2)) << "without signals being handled, nothing is reset";
    EXPECT_EQ(Manager::handlerTableLock, nullptr);
}

TEST_F(ManagerLifetime, SecondManagerThatLocksMakesTheLockThatTheFirstDidWithout) {
    const Manager first(false);
    ASSERT_EQ(Manager::handlerTableLock, nullptr);
    const Manager second(true);
    EXPECT_NE(Manager::handlerTableLock, nullptr);
    EXPECT_EQ(Manager::numberOfManagers, 2U);
}

TEST_F(ManagerLifetime, LastManagerAfterAStartTakesTheStateDownAndALaterOneBuildsItAfresh) {
    {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGUSR1, userHandler);
        manager.setSignalDisposition(SIGUSR2, false);
        manager.startHandlingSignals();
        ASSERT_TRUE(Manager::currentlyHandlingSignals);
    }
    EXPECT_EQ(Manager::handlerTables, nullptr);
    EXPECT_FALSE(Manager::currentlyHandlingSignals);
    EXPECT_TRUE(mayHandleQ(SIGUSR2)) << "the dispositions are reset";
    EXPECT_EQ(Manager::handlerTableLock, nullptr);

    const Manager later(true);
    ASSERT_NE(Manager::handlerTables, nullptr);
    EXPECT_TRUE(emptyAsConstructedQ(*Manager::handlerTables));
}

TEST_F(ManagerLifetime, LastManagerAfterAStopLeavesItsHandlersToTheNext) {
    {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGUSR1, userHandler);
        manager.startHandlingSignals();
        manager.stopHandlingSignals();
    }
    Manager next(true);
    EXPECT_NE(recordOf(SIGUSR1, userHandler), nullptr);
    next.startHandlingSignals();
    raise(SIGUSR1);
    EXPECT_EQ(callsOf(userHandler), 1U);
}

TEST_F(ManagerLifetime, NothingIsEverDoneForSignalZeroOrAboveSixty) {
    EXPECT_EQ(Manager::maxSignalHandlerNumber, 60);
    const std::vector<void*> before = systemHandlers();
    {
        Manager manager(false);
        for (const int signalNumber : {0, 61, 62, 63, 64}) {
            manager.setSignalDisposition(signalNumber, true);
            manager.setHandlerFromFunction(signalNumber, userHandler);
            EXPECT_EQ(tableOf(signalNumber), nullptr) << signalNumber;
            makeTableOf(manager, signalNumber);
            putIntoTable(hostRecord(signalNumber, hostHandler));
        }
        manager.startHandlingSignals();
        EXPECT_EQ(systemHandlers(), before) << "after the start";
        manager.restorePreviouslyExistingHandlers();
        EXPECT_EQ(systemHandlers(), before) << "after the restoration";
        manager.stopHandlingSignals();
        EXPECT_EQ(systemHandlers(), before) << "after the stop";
        manager.startHandlingSignals();
    }
    EXPECT_EQ(systemHandlers(), before) << "after the last manager";
}

TEST_F(ManagerLifetime, SixtyIsTheLastSignalThatIsWalked) {
    Manager manager(false);
    manager.setHandlerFromFunction(60, userHandler);
    manager.startHandlingSignals();
    EXPECT_TRUE(takenOverQ(60));
    manager.stopHandlingSignals();
    EXPECT_TRUE(ignoredInSystemQ(60));
}

TEST_F(ManagerLifetime, LaterManagersOnlyCount) {
    Manager first(true);
    first.setSignalDisposition(SIGUSR2, false);
    const SignalTable* const tables = Manager::handlerTables;
    const SVMutexHandle* const lock = Manager::handlerTableLock;
    {
        const Manager second(true);
        const Manager third(false);
        EXPECT_EQ(Manager::numberOfManagers, 3U);
        EXPECT_EQ(Manager::handlerTables, tables);
        EXPECT_EQ(Manager::handlerTableLock, lock);
        EXPECT_FALSE(mayHandleQ(SIGUSR2)) << "only a new outer table resets the dispositions";
    }
    EXPECT_EQ(Manager::numberOfManagers, 1U);
    EXPECT_EQ(Manager::handlerTables, tables);
    EXPECT_EQ(Manager::handlerTableLock, lock);
}

TEST_F(ManagerLifetime, OthersThanTheLastTakeNothingDownWhileSignalsAreHandled) {
    Manager stays(true);
    {
        Manager goes(true);
        goes.setHandlerFromFunction(SIGUSR1, userHandler);
        goes.startHandlingSignals();
    }
    EXPECT_TRUE(Manager::currentlyHandlingSignals);
    EXPECT_NE(recordOf(SIGUSR1, userHandler), nullptr);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
}

// The next manager is to find what was registered: users come and go before signals are started.
TEST_F(ManagerLifetime, LastManagerWithoutAStartTakesOnlyTheLockDown) {
    const SignalTable* tables = nullptr;
    {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGUSR1, userHandler);
        tables = Manager::handlerTables;
    }
    EXPECT_EQ(Manager::handlerTables, tables);
    EXPECT_NE(recordOf(SIGUSR1, userHandler), nullptr);
    EXPECT_EQ(Manager::handlerTableLock, nullptr);
}

void expectLockTakenOnceByTheEndOf(std::optional<Manager>& manager, const LockLog& log) {
    const unsigned int locksBefore = log.locks;
    manager.reset();
    EXPECT_EQ(log.locks, locksBefore + 1);
    EXPECT_EQ(log.unlocks, log.locks);
}

TEST_F(ManagerLifetime, LastManagerWithoutAStartTakesTheLockOnlyOnce) {
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    std::optional<Manager> last(std::in_place, true);
    expectLockTakenOnceByTheEndOf(last, *log);
}

TEST_F(ManagerLifetime, ManagerThatIsNotTheLastTakesTheLockOnlyOnce) {
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    Manager staying(true);
    staying.startHandlingSignals();
    std::optional<Manager> going(std::in_place, true);
    expectLockTakenOnceByTheEndOf(going, *log);
}

// A manager that never locks does not know whether somebody else is about to use the lock.
TEST_F(ManagerLifetime, LockSurvivesALastManagerThatNeverLocksAndServesALaterOne) {
    const SVMutexHandle* lock = nullptr;
    {
        const Manager last(false);
        const Manager locking(true);
        lock = Manager::handlerTableLock;
        // Destroyed in reverse order: the locking one first.
    }
    ASSERT_NE(lock, nullptr);
    EXPECT_EQ(Manager::handlerTableLock, lock);
    const Manager later(true);
    EXPECT_EQ(Manager::handlerTableLock, lock);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ManagerLifetime, LastManagerThatLocksDestroysTheLockAsWhatItIs) {
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    {
        const Manager first(true);
        { const Manager second(true); }
        EXPECT_EQ(log->destructions, 0U) << "somebody still needs it";
    }
    EXPECT_EQ(log->destructions, 1U);
    EXPECT_EQ(log->locks, log->unlocks);
    EXPECT_EQ(Manager::handlerTableLock, nullptr);
}

// A manager that is being made knows the lock's address before it is counted.
TEST_F(ManagerLifetime, LastManagerLeavesTheLockToOneThatIsAboutToTakeIt) {
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    const SVMutexHandle* const lock = Manager::handlerTableLock;
    auto last = std::make_unique<Manager>(true);
    Gate aboutToTakeIt;
    Gate lastIsGone;
    static thread_local bool waits = false;
    log->onDemand = [&] {
        if (std::exchange(waits, false)) {
            aboutToTakeIt.open();
            lastIsGone.pass();
        }
    };
    JoiningThread maker([&] {
        waits = true;
        const Manager next(true);
        EXPECT_EQ(Manager::handlerTableLock, lock);
        EXPECT_EQ(log->destructions, 0U);
    });
    aboutToTakeIt.pass();
    last.reset();
    EXPECT_EQ(log->destructions, 0U);
    lastIsGone.open();
    maker.join();
    EXPECT_EQ(log->destructions, 1U);
}

// The last one found signals handled, and is about to take the lock once more.
TEST_F(ManagerLifetime, LastManagerLeavesTheStateOfOneThatHasStoppedMeanwhile) {
    hostInstalls(SIGUSR1, hostHandler);
    auto last = std::make_unique<Manager>(true);
    last->setHandlerFromFunction(SIGUSR1, userHandler);
    last->startHandlingSignals();
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    bool stopped = false;
    log->onDemand = [&] {
        if (Manager::numberOfManagers == 0 && !std::exchange(stopped, true)) {
            JoiningThread([] { Manager(false).stopHandlingSignals(); }).join();
            EXPECT_FALSE(Manager::currentlyHandlingSignals);
            hostInstalls(SIGUSR1, otherHostHandler);
        }
    };
    last.reset();
    EXPECT_TRUE(stopped) << "the moment did not come";
    EXPECT_NE(recordOf(SIGUSR1, userHandler), nullptr);
    EXPECT_NE(recordOf(SIGUSR1, hostHandler), nullptr);
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(otherHostHandler));
    EXPECT_EQ(log->destructions, 1U);
}

TEST_F(ManagerLifetime, LastManagerLeavesTheStateToOneThatIsMadeMeanwhile) {
    auto last = std::make_unique<Manager>(true);
    last->setHandlerFromFunction(SIGUSR1, userHandler);
    last->startHandlingSignals();
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    std::optional<Manager> next;
    log->onDemand = [&] {
        if (Manager::numberOfManagers == 0) {
            JoiningThread([&next] { next.emplace(false); }).join();
        }
    };
    last.reset();
    log->onDemand = nullptr;
    ASSERT_TRUE(next.has_value()) << "the moment did not come";
    EXPECT_NE(recordOf(SIGUSR1, userHandler), nullptr);
    EXPECT_TRUE(Manager::currentlyHandlingSignals);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    EXPECT_EQ(log->destructions, 0U);
}

TEST_F(ManagerLifetime, LockIsReentrantForItsThreadAndShutForOthers) {
    const Manager manager(true);
    Manager::handlerTableLock->lock();
    EXPECT_TRUE(Manager::handlerTableLock->tryLock());
    Manager::handlerTableLock->unlock();
    EXPECT_FALSE(lockIsFree()) << "it is still held once";
    Manager::handlerTableLock->unlock();
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ManagerLifetime, EachTeardownResetsTheDispositions) {
    for (int i = 0; i < 5; ++i) {
        {
            Manager manager(true);
            manager.startHandlingSignals();
            manager.setSignalDisposition(SIGUSR2, false);
        }
        ASSERT_TRUE(mayHandleQ(SIGUSR2)) << "after teardown " << i + 1;
    }
}

TEST_F(ManagerLifetime, TeardownRestoresValidHostHandlersAndKeepsTheSignalsOfOthers) {
    hostInstalls(SIGUSR1, hostHandler, SA_NODEFER);
    {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGUSR1, userHandler);
        manager.setHandlerFromFunction(SIGUSR2, userHandler);
        manager.startHandlingSignals();
    }
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
    EXPECT_NE(systemAction(SIGUSR1).sa_flags & SA_NODEFER, 0)
        << "the host's action comes back whole";
    EXPECT_TRUE(takenOverQ(SIGUSR2)) << "nothing was there to be put back";
}

TEST_F(ManagerLifetime, TeardownDestroysEveryTableAsWhatItIsAndSkipsNull) {
    int destructions = 0;
    {
        Manager manager(false);
        Manager::handlerTables->insert(SIGUSR1 - 1, new WatchedTable(destructions));
        Manager::handlerTables->insert(SIGUSR2 - 1, nullptr);
        // Outside the signals that are walked; the outer table owns it nevertheless.
        Manager::handlerTables->insert(1000, new WatchedTable(destructions));
        manager.startHandlingSignals();
        EXPECT_EQ(destructions, 0);
    }
    EXPECT_EQ(destructions, 2);
    EXPECT_EQ(Manager::handlerTables, nullptr);
}

TEST_F(ManagerLifetime, ManagerOnTheHeapIsDestroyedThroughItsBase) {
    SVObject* const manager = new Manager(false);
    ASSERT_NE(manager, nullptr);
    EXPECT_EQ(Manager::numberOfManagers, 1U);
    delete manager;
    EXPECT_EQ(Manager::numberOfManagers, 0U);
}

// Counted are all, those that a forked child has, and the users of the lock.
TEST_F(ManagerLifetime, ManagersOfManyThreadsAreAllCounted) {
    constexpr int threadCount = 4;
    constexpr int rounds = builtWithThreadSanitizer ? 500 : 5000;
    {
        const Manager first(true);
        {
            std::vector<JoiningThread> threads;
            for (int i = 0; i < threadCount; ++i) {
                threads.emplace_back([locking = i % 2 == 0] {
                    for (int round = 0; round < rounds; ++round) {
                        const Manager another(locking);
                    }
                });
            }
        }
        EXPECT_EQ(Manager::numberOfManagers, 1U);
        EXPECT_TRUE(lockIsFree());
        const ChildEnd end = inChild([] { EXPECT_EQ(Manager::numberOfManagers, 1U); });
        EXPECT_TRUE(end.wentOnQ()) << end;
    }
    EXPECT_EQ(Manager::handlerTableLock, nullptr);
}

TEST_F(ManagerLifetime, DispatchesLeaveTheLockToThoseThatLock) {
    {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGUSR1, userHandler);
        manager.handleSignal(SIGUSR1);
        raise(SIGUSR1);
        raise(SIGUSR1);
        EXPECT_TRUE(lockIsFree());
    }
    EXPECT_EQ(callsOf(userHandler), 2U);
    EXPECT_EQ(Manager::handlerTableLock, nullptr);
}

}  // namespace
