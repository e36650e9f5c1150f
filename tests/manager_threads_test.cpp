// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Who takes the lock, when, and for how long; and several threads at once.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/failure.h"
#include "support/gate.h"
#include "support/joining_thread.h"
#include "support/manager_fixture.h"
#include "support/stepping.h"
#include "support/watched_lock.h"

namespace {

using Sorvane::SVSignalHandlerDispositionSet;

// --- Which operation takes the lock, and for how much of its work ------------------------------

struct Operation {
    const char* name;
    std::function<void(Manager&)> prepare;
    std::function<void(Manager&)> act;
    std::function<bool()> doneQ;  ///< whether its work is done; empty if none can be seen
};

std::ostringstream& dumpStream() {
    static std::ostringstream stream;
    return stream;
}

void nothing(Manager&) {}

void registerUser(Manager& manager) {
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
}

void takeOverFromHost(Manager& manager) {
    hostInstalls(SIGUSR1, hostHandler);
    manager.handleSignal(SIGUSR1);
}

std::vector<Operation> operationsThatLockOnce() {
    return {
        {"HandleSignal", [](Manager&) { hostInstalls(SIGUSR1, hostHandler); },
         [](Manager& manager) { manager.handleSignal(SIGUSR1); },
         [] { return takenOverQ(SIGUSR1) && recordOf(SIGUSR1, hostHandler) != nullptr; }},
        {"CallHandlers", registerUser,
         [](Manager& manager) { manager.callHandlers(SIGUSR1, nullptr, nullptr); },
         [] { return callsOf(userHandler) == 1; }},
        {"CallOnlyPreexistingOrExternalHandlers", takeOverFromHost,
         [](Manager& manager) {
             manager.callOnlyPreexistingOrExternalHandlers(SIGUSR1, nullptr, nullptr);
         },
         [] { return callsOf(hostHandler) == 1; }},
        {"HasPreexistingOrExternalHandlerQ", takeOverFromHost,
         [](Manager& manager) { EXPECT_TRUE(manager.hasPreexistingOrExternalHandlerQ(SIGUSR1)); },
         nullptr},
        {"SetHandlerWhileHandling", [](Manager& manager) { manager.startHandlingSignals(); },
         [](Manager& manager) { manager.setHandlerFromFunction(SIGUSR1, userHandler); },
         [] { return takenOverQ(SIGUSR1) && recordOf(SIGUSR1, userHandler) != nullptr; }},
        {"SetHandlerOfAForbiddenSignal", nothing,
         [](Manager& manager) { manager.setHandlerFromFunction(SIGKILL, userHandler); }, nullptr},
        {"ClearHandlerThatGoesBack", registerUser,
         [](Manager& manager) {
             Record record = hostRecord(SIGUSR1, userHandler);
             manager.clearHandler(record);
         },
         [] {
             return systemHandler(SIGUSR1) == addressOf(userHandler) && recordCount(SIGUSR1) == 0;
         }},
        {"ClearHandlerOfASignalWithoutATable", nothing,
         [](Manager& manager) { manager.clearHandlerWithFunction(SIGUSR1, userHandler); }, nullptr},
        {"StopHandlingSignal", takeOverFromHost,
         [](Manager& manager) { manager.stopHandlingSignal(SIGUSR1); },
         [] { return systemHandler(SIGUSR1) == addressOf(hostHandler); }},
        {"RestorePreviouslyExistingHandlers", takeOverFromHost,
         [](Manager& manager) { manager.restorePreviouslyExistingHandlers(); },
         [] { return systemHandler(SIGUSR1) == addressOf(hostHandler); }},
        {"Print", [](Manager&) { dumpStream().str(""); },
         [](Manager& manager) { manager.print(dumpStream()); },
         [] { return dumpStream().str().ends_with("</SVSignalHandlerManager>"); }},
    };
}

class LockedOnce : public ManagerTest, public ::testing::WithParamInterface<Operation> {};

INSTANTIATE_TEST_SUITE_P(By, LockedOnce, ::testing::ValuesIn(operationsThatLockOnce()),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST_P(LockedOnce, NothingIsDoneBeforeTheLockIsTakenAndAllBeforeItIsReleased) {
    const Operation& operation = GetParam();
    Manager manager(true);
    operation.prepare(manager);
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    bool doneWhenTaken = false;
    bool doneWhenReleased = true;
    if (operation.doneQ) {
        log->onTaken = [&] { doneWhenTaken = operation.doneQ(); };
        log->onRelease = [&] { doneWhenReleased = operation.doneQ(); };
    }
    operation.act(manager);
    EXPECT_EQ(log->locks, 1U);
    EXPECT_EQ(log->unlocks, 1U);
    EXPECT_FALSE(doneWhenTaken);
    EXPECT_TRUE(doneWhenReleased);
    log->onTaken = nullptr;
    log->onRelease = nullptr;
}

TEST_P(LockedOnce, ManagerThatNeverLocksLeavesTheLockAloneAndDoesTheSame) {
    const Operation& operation = GetParam();
    Manager manager(false);
    operation.prepare(manager);
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    operation.act(manager);
    EXPECT_EQ(log->locks, 0U);
    EXPECT_EQ(log->unlocks, 0U);
    if (operation.doneQ) {
        EXPECT_TRUE(operation.doneQ());
    }
}

class Locking : public ManagerTest {};

// Whoever sets a disposition or installs an action may be within an operation that holds the lock,
// or in a signal handler, and there is nothing here that a lock would guard.
TEST_F(Locking, DispositionsInstallationAndRecordsTakeNone) {
    Manager manager(true);
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    manager.setSignalDisposition(SIGUSR1, false);
    manager.setSignalDispositions(SVSignalHandlerDispositionSet());
    EXPECT_TRUE(manager.getSignalDisposition(SIGUSR1));
    EXPECT_TRUE(manager.canHandleSignalFromDisposition(SIGUSR1));
    Record record = userRecord(SIGUSR1, userHandler);
    manager.installHandlerInSystem(record);
    manager.ignoreSignal(SIGUSR1);
    manager.theSVHandler(SIGUSR1);
    manager.ignoreHandler(SIGUSR1);
    manager.defaultHandler(SIGUSR1);
    EXPECT_EQ(log->locks, 0U);
}

TEST_F(Locking, StartThatIsSecondAndStopOfWhatIsNotStartedTakeNone) {
    Manager manager(true);
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    manager.stopHandlingSignals();
    EXPECT_EQ(log->locks, 0U);
    manager.startHandlingSignals();
    const unsigned int afterStart = log->locks;
    manager.startHandlingSignals();
    EXPECT_EQ(log->locks, afterStart);
}

TEST_F(Locking, ManagerThatNeverLocksTakesNoneFromItsConstructionToATeardown) {
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    {
        Manager manager(false);
        RecordList records;
        records.push_back(userRecord(SIGUSR1, userHandler));
        manager.setHandlers(records);
        manager.startHandlingSignals();
        manager.stopHandlingSignals();
        manager.startHandlingSignals();
        manager.clearHandlers(records);
    }
    EXPECT_EQ(log->locks, 0U);
    EXPECT_EQ(log->unlocks, 0U);
    EXPECT_EQ(log->destructions, 0U);
}

TEST_F(Locking, DeliveryTakesNone) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    raise(SIGUSR1);
    EXPECT_EQ(callCount(), 1U);
    EXPECT_EQ(log->locks, 0U);
    EXPECT_EQ(log->unlocks, 0U);
    EXPECT_EQ(log->destructions, 0U);
}

// A signal can arrive while the very thread that it interrupts holds the lock.
TEST_F(Locking, DeliveryWithinALockedOperationWaitsForNothing) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    log->onTaken = [] { raise(SIGUSR1); };
    manager.setHandlerFromFunction(SIGUSR2, userHandler);
    log->onTaken = nullptr;
    EXPECT_EQ(callCount(), 1U);
    EXPECT_EQ(log->locks, 1U);
}

TEST_F(Locking, ListsLockForEachElementByItself) {
    Manager manager(true);
    RecordList records;
    records.push_back(userRecord(SIGUSR1, userHandler));
    records.push_back(userRecord(SIGUSR1, otherUserHandler));
    records.push_back(userRecord(SIGUSR2, userHandler));
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    manager.setHandlers(records);
    EXPECT_EQ(log->locks, 3U);
    manager.clearHandlers(records);
    EXPECT_EQ(log->locks, 6U);
    EXPECT_EQ(log->unlocks, 6U);
    EXPECT_EQ(log->deepest, 1U);
}

// So that an exception out of the call leaves nothing locked, and others can register meanwhile.
TEST_F(Locking, StartLetsTheLockGoAroundEachSignalThatItTakesOver) {
    Manager manager(true);
    for (const int signalNumber : {SIGINT, SIGUSR1, SIGTERM}) {
        manager.setHandlerFromFunction(signalNumber, userHandler);
    }
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    manager.startHandlingSignals();
    EXPECT_EQ(log->locks, 7U) << "its own first one, and for each signal the signal's and its own";
    EXPECT_EQ(log->unlocks, 7U);
    EXPECT_EQ(log->deepest, 1U);
}

TEST_F(Locking, StartWithNothingToTakeOverLocksOnce) {
    Manager manager(true);
    makeTableOf(manager, SIGUSR1);
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    bool handlingWhenTaken = true;
    bool handlingWhenReleased = false;
    log->onTaken = [&] { handlingWhenTaken = Manager::currentlyHandlingSignals; };
    log->onRelease = [&] { handlingWhenReleased = Manager::currentlyHandlingSignals; };
    manager.startHandlingSignals();
    EXPECT_EQ(log->locks, 1U);
    EXPECT_FALSE(handlingWhenTaken);
    EXPECT_TRUE(handlingWhenReleased);
    log->onTaken = nullptr;
    log->onRelease = nullptr;
}

TEST_F(Locking, StopOfAllLocksForEachSignalByItselfAndOnceMoreAtItsEnd) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    bool handlingBeforeTheLast = true;
    log->onTaken = [&] {
        handlingBeforeTheLast = handlingBeforeTheLast && Manager::currentlyHandlingSignals;
    };
    manager.stopHandlingSignals();
    log->onTaken = nullptr;
    EXPECT_EQ(log->locks, 61U);
    EXPECT_EQ(log->unlocks, 61U);
    EXPECT_EQ(log->deepest, 1U);
    EXPECT_TRUE(handlingBeforeTheLast) << "signals are handled until the last one is handed back";
}

TEST_F(Locking, LastManagersTeardownHoldsTheLockThroughoutAndTakesItOnceMoreWithin) {
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGUSR1, userHandler);
        manager.startHandlingSignals();
        log->locks = 0;
        log->unlocks = 0;
        log->onTaken = [] { EXPECT_NE(Manager::handlerTables, nullptr); };
        log->onRelease = [] {
            EXPECT_EQ(Manager::handlerTables, nullptr);
            EXPECT_FALSE(Manager::currentlyHandlingSignals);
        };
        log->onFree = [&log] { EXPECT_EQ(log->destructions, 0U); };
    }
    EXPECT_EQ(log->locks, 2U);
    EXPECT_EQ(log->unlocks, 2U);
    EXPECT_EQ(log->deepest, 2U);
    EXPECT_EQ(log->destructions, 1U);
}

TEST_F(Locking, ConstructionOfTheFirstManagerLocksOnceForAllThatItMakes) {
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    log->onTaken = [] {
        EXPECT_EQ(Manager::handlerTables, nullptr);
        EXPECT_EQ(Manager::numberOfManagers, 0U);
    };
    log->onRelease = [] {
        EXPECT_NE(Manager::handlerTables, nullptr);
        EXPECT_EQ(Manager::numberOfManagers, 1U);
    };
    const Manager manager(true);
    log->onTaken = nullptr;
    log->onRelease = nullptr;
    EXPECT_EQ(log->locks, 1U);
    EXPECT_EQ(log->unlocks, 1U);
}

TEST_F(Locking, DestructionOfAnyManagerLocksOnce) {
    const Manager stays(true);
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    auto goes = std::make_unique<Manager>(true);
    EXPECT_EQ(log->locks, 1U);
    log->onTaken = [] { EXPECT_EQ(Manager::numberOfManagers, 2U); };
    log->onRelease = [] { EXPECT_EQ(Manager::numberOfManagers, 1U); };
    goes.reset();
    log->onTaken = nullptr;
    log->onRelease = nullptr;
    EXPECT_EQ(log->locks, 2U);
    EXPECT_EQ(log->unlocks, 2U);
}

TEST_F(Locking, OperationWithinAHandlerTakesTheLockOnceMore) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, [](int) {
        Manager inner(true);
        inner.setHandlerFromFunction(SIGUSR2, userHandler);
    });
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    manager.callHandlers(SIGUSR1, nullptr, nullptr);
    EXPECT_EQ(recordCount(SIGUSR2), 1U);
    EXPECT_EQ(log->deepest, 2U);
    EXPECT_EQ(log->locks, log->unlocks);
}

TEST_F(Locking, IsReleasedWhenAHandlerThrows) {
    struct Thrown {};
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, [](int) { throw Thrown(); });
    EXPECT_THROW(manager.callHandlers(SIGUSR1, nullptr, nullptr), Thrown);
    EXPECT_TRUE(lockIsFree());
    Record host(
        SIGUSR1, [](int) { throw Thrown(); }, true, true, true);
    manager.setHandler(host);
    EXPECT_THROW(manager.callOnlyPreexistingOrExternalHandlers(SIGUSR1, nullptr, nullptr), Thrown);
    EXPECT_TRUE(lockIsFree());
}

// --- Two threads -------------------------------------------------------------------------------

// What the handler below has to say to its test, and to wait for.
struct Meeting {
    Gate handlerRuns;
    Gate otherIsThere;
    std::atomic<bool> otherIsDone = false;
    std::atomic<bool> otherWasDoneWhileHandlerRan = false;
};

Meeting* meeting = nullptr;

void handlerThatMeetsAnotherThread(int) {
    meeting->handlerRuns.open();
    meeting->otherIsThere.pass();
    meeting->otherWasDoneWhileHandlerRan = meeting->otherIsDone.load();
}

class TwoThreads : public ManagerTest {
protected:
    TwoThreads() { meeting = &m_meeting; }
    ~TwoThreads() override { meeting = nullptr; }

    // Does something while a handler runs that a manager calls on another thread. The other thread
    // reports when it asks for the lock, or when it has done without.
    void whileAHandlerRuns(bool locking, const std::function<void()>& act) {
        const Manager first(true);
        Manager dispatching(locking);
        dispatching.setHandlerFromFunction(SIGUSR1, handlerThatMeetsAnotherThread);
        const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
        std::thread::id other;
        log->onDemand = [&] {
            if (std::this_thread::get_id() == other) {
                m_meeting.otherIsThere.open();
            }
        };
        Gate known;
        JoiningThread thread([&] {
            known.pass();
            m_meeting.handlerRuns.pass();
            act();
            m_meeting.otherIsDone = true;
            m_meeting.otherIsThere.open();
        });
        other = thread.get_id();
        known.open();
        dispatching.callHandlers(SIGUSR1, nullptr, nullptr);
        thread.join();
        log->onDemand = nullptr;
    }

    bool waitedQ() const { return !m_meeting.otherWasDoneWhileHandlerRan; }

private:
    Meeting m_meeting;
};

TEST_F(TwoThreads, RegistrationWaitsForTheHandlersThatALockingManagerCalls) {
    whileAHandlerRuns(true, [] { Manager(true).setHandlerFromFunction(SIGUSR2, userHandler); });
    EXPECT_TRUE(waitedQ());
    EXPECT_EQ(recordCount(SIGUSR2), 1U);
}

TEST_F(TwoThreads, DumpWaitsForTheHandlersThatALockingManagerCalls) {
    std::ostringstream stream;
    whileAHandlerRuns(true, [&stream] { stream << Manager(true); });
    EXPECT_TRUE(waitedQ());
}

TEST_F(TwoThreads, NothingWaitsForTheHandlersThatANonLockingManagerCalls) {
    bool lockWasFree = false;
    whileAHandlerRuns(false, [&lockWasFree] { lockWasFree = lockIsFree(); });
    EXPECT_FALSE(waitedQ());
    EXPECT_TRUE(lockWasFree);
}

TEST_F(TwoThreads, ManagerThatNeverLocksDoesNotWait) {
    whileAHandlerRuns(true, [] {
        const Manager manager(false);
        std::ostringstream stream;
        stream << manager;
    });
    EXPECT_FALSE(waitedQ());
}

TEST_F(TwoThreads, DispositionsDoNotWait) {
    whileAHandlerRuns(true, [] {
        Manager manager(false);
        manager.setSignalDisposition(SIGUSR2, false);
    });
    EXPECT_FALSE(waitedQ());
    EXPECT_FALSE(mayHandleQ(SIGUSR2));
}

TEST_F(TwoThreads, DeliveryOnAnotherThreadDoesNotWait) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR2, userHandler);
    manager.startHandlingSignals();
    whileAHandlerRuns(true, [] { raise(SIGUSR2); });
    EXPECT_FALSE(waitedQ());
    EXPECT_EQ(callsOf(userHandler), 1U);
}

// A stream that holds up whoever writes into it.
class StreamThatWaits : public std::streambuf {
public:
    explicit StreamThatWaits(const std::function<void()>& atFirst) : m_atFirst(atFirst) {}

protected:
    int_type overflow(int_type character) override {
        if (m_atFirst) {
            m_atFirst();
            m_atFirst = nullptr;
        }
        return character;
    }

private:
    std::function<void()> m_atFirst;
};

TEST_F(TwoThreads, RegistrationWaitsUntilADumpIsWritten) {
    Manager manager(true);
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    Gate writing;
    Gate otherIsThere;
    std::atomic<bool> registered = false;
    bool registeredWhileWriting = true;
    JoiningThread other([&] {
        writing.pass();
        Manager(true).setHandlerFromFunction(SIGUSR1, userHandler);
        registered = true;
        otherIsThere.open();
    });
    StreamThatWaits buffer([&] {
        log->onDemand = [&otherIsThere] { otherIsThere.open(); };
        writing.open();
        otherIsThere.pass();
        registeredWhileWriting = registered;
    });
    std::ostream stream(&buffer);
    stream << manager;
    other.join();
    log->onDemand = nullptr;
    EXPECT_FALSE(registeredWhileWriting);
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
}

TEST_F(TwoThreads, RegistrationFallsBetweenTheElementsOfAList) {
    Manager manager(true);
    RecordList records;
    records.push_back(userRecord(SIGUSR1, userHandler));
    records.push_back(userRecord(SIGUSR2, userHandler));
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    bool first = true;
    unsigned int tablesSeen = 0;
    log->onFree = [&] {
        if (std::exchange(first, false)) {
            std::thread([&] {
                Manager(true).setHandlerFromFunction(SIGTERM, userHandler);
                tablesSeen = Manager::handlerTables->used;
            }).join();
        }
    };
    manager.setHandlers(records);
    log->onFree = nullptr;
    EXPECT_EQ(tablesSeen, 2U) << "the first element's and its own, and not yet the second's";
    EXPECT_EQ(Manager::handlerTables->used, 3U);
}

// One of the two has had its turn.
TEST_F(TwoThreads, RegistrationFallsBetweenTheSignalsOfAStartAndIsTakenOver) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGINT, userHandler);
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    bool first = true;
    log->onFree = [&] {
        if (std::exchange(first, false)) {
            std::thread([] {
                Manager other(true);
                other.setHandlerFromFunction(SIGHUP, userHandler);
                other.setHandlerFromFunction(SIGTERM, userHandler);
            }).join();
        }
    };
    manager.startHandlingSignals();
    log->onFree = nullptr;
    EXPECT_TRUE(takenOverQ(SIGHUP));
    EXPECT_TRUE(takenOverQ(SIGINT));
    EXPECT_TRUE(takenOverQ(SIGTERM));
}

// SIGKILL can't be taken over. It and the one after it have had their turns by then.
TEST_F(TwoThreads, RegistrationThatTheSystemRefusesFallsBetweenTheSignalsOfAStartAndEndsIt) {
    Manager manager(true);
    manager.setSignalDisposition(SIGKILL, true);
    manager.setHandlerFromFunction(SIGTERM, userHandler);
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    bool first = true;
    log->onFree = [&] {
        if (std::exchange(first, false)) {
            std::thread([] {
                Manager other(true);
                other.setHandlerFromFunction(SIGKILL, userHandler);
                other.setHandlerFromFunction(SIGUSR1, userHandler);
            }).join();
        }
    };
    expectSigactionFailure(failureOf([&] { manager.startHandlingSignals(); }), EINVAL);
    log->onFree = nullptr;
    EXPECT_TRUE(takenOverQ(SIGTERM));
    EXPECT_FALSE(takenOverQ(SIGUSR1)) << "it comes after the one that failed";
    EXPECT_FALSE(Manager::currentlyHandlingSignals);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(TwoThreads, HandBackFallsBetweenTheSignalsOfAStartAndIsTakenOverAgain) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGINT, userHandler);
    manager.setHandlerFromFunction(SIGTERM, userHandler);
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    bool handedBack = false;
    log->onFree = [&] {
        if (takenOverQ(SIGINT) && !std::exchange(handedBack, true)) {
            std::thread([] { Manager(true).stopHandlingSignal(SIGINT); }).join();
        }
    };
    manager.startHandlingSignals();
    log->onFree = nullptr;
    EXPECT_TRUE(handedBack);
    EXPECT_TRUE(takenOverQ(SIGINT));
    EXPECT_TRUE(takenOverQ(SIGTERM));
}

TEST_F(TwoThreads, RegistrationFallsBetweenTheSignalsOfAStopAndIsHandedBack) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGINT, userHandler);
    manager.setHandlerFromFunction(SIGTERM, userHandler);
    manager.startHandlingSignals();
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    bool registered = false;
    log->onFree = [&] {
        if (!takenOverQ(SIGINT) && !std::exchange(registered, true)) {
            std::thread([] {
                Manager(true).setHandlerFromFunction(SIGINT, userHandler);
                EXPECT_TRUE(takenOverQ(SIGINT));
            }).join();
        }
    };
    manager.stopHandlingSignals();
    log->onFree = nullptr;
    EXPECT_TRUE(registered);
    EXPECT_FALSE(takenOverQ(SIGINT));
    EXPECT_FALSE(takenOverQ(SIGTERM));
}

// --- Many threads ------------------------------------------------------------------------------

class ManyThreads : public ManagerTest {};

TEST_F(ManyThreads, RegisteringAndClearingForOneSignalLosesNothing) {
    constexpr std::size_t threadCount = 4;
    constexpr std::size_t handlersEach = 12;
    constexpr int rounds = 50;
    static_assert(threadCount * handlersEach == numberedHandlers.size());
    Manager manager(true);
    {
        std::vector<JoiningThread> threads;
        for (std::size_t thread = 0; thread < threadCount; ++thread) {
            threads.emplace_back([thread] {
                Manager own(true);
                for (int round = 0; round < rounds; ++round) {
                    for (std::size_t i = 0; i < handlersEach; ++i) {
                        own.setHandlerFromFunction(SIGUSR1 + (round % 2) * (SIGUSR2 - SIGUSR1),
                                                   numberedHandlers.at(thread * handlersEach + i));
                    }
                }
            });
        }
    }
    EXPECT_EQ(Manager::numberOfManagers, 1U);
    for (const int signalNumber : {SIGUSR1, SIGUSR2}) {
        EXPECT_EQ(recordCount(signalNumber), numberedHandlers.size());
        for (const SimpleHandler handler : numberedHandlers) {
            EXPECT_NE(recordOf(signalNumber, handler), nullptr);
        }
    }
    EXPECT_TRUE(lockIsFree());
}

// Handlers of one signal each, which nothing collides with, so that nothing can get hidden.
TEST_F(ManyThreads, EveryOperationAtOnceLeavesTheStateAsItsLastOperationsSay) {
    constexpr int rounds = 100;
    const std::vector<int> signals = {SIGINT, SIGUSR1, SIGUSR2, SIGTERM};
    Manager manager(true);
    manager.setHandlerFromFunction(SIGALRM, userHandler);
    {
        std::vector<JoiningThread> threads;
        for (const int signalNumber : signals) {
            threads.emplace_back([signalNumber] {
                Manager own(true);
                for (int round = 0; round < rounds; ++round) {
                    own.setHandlerFromFunction(signalNumber, userHandler);
                    own.startHandlingSignals();
                    own.callHandlers(signalNumber, nullptr, nullptr);
                    own.hasPreexistingOrExternalHandlerQ(SIGALRM);
                    std::ostringstream stream;
                    stream << own;
                    own.stopHandlingSignals();
                    own.clearHandlerWithFunction(signalNumber, userHandler);
                }
            });
        }
    }
    EXPECT_EQ(callCount(), signals.size() * rounds);
    for (const int signalNumber : signals) {
        EXPECT_EQ(recordCount(signalNumber), 0U);
    }
    EXPECT_EQ(recordCount(SIGALRM), 1U);
    EXPECT_EQ(Manager::numberOfManagers, 1U);
    EXPECT_FALSE(Manager::currentlyHandlingSignals);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ManyThreads, DispositionsSetAtOnceAreAllKept) {
    constexpr int threadCount = 4;
    Manager manager(true);
    {
        std::vector<JoiningThread> threads;
        for (int thread = 0; thread < threadCount; ++thread) {
            threads.emplace_back([&manager, thread] {
                for (int round = 0; round < 100; ++round) {
                    for (int signalNumber = 1 + thread; signalNumber <= 60;
                         signalNumber += threadCount) {
                        manager.setSignalDisposition(signalNumber, round % 2 == 0);
                    }
                }
            });
        }
    }
    for (int signalNumber = 1; signalNumber <= 60; ++signalNumber) {
        EXPECT_FALSE(manager.getSignalDisposition(signalNumber)) << signalNumber;
    }
}

// --- A handler that leaves by siglongjmp -------------------------------------------------------

// Once signals are held back under the lock, they are let in when that is free again.
struct LockedOperation {
    const char* name;
    void (*operate)(std::optional<Manager>&);
};

class WholeUnderTheLock : public ManagerTest, public testing::WithParamInterface<LockedOperation> {
protected:
    // Looks at each instruction of the operation.
    static void stepThrough(const std::function<void(bool locked, bool letIn)>& look) {
        Manager staying(true);
        staying.setHandlerFromFunction(SIGUSR1, userHandler);
        const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
        std::optional<Manager> manager;
        if (GetParam().name != std::string("Construction")) {
            manager.emplace(true);
        }
        step([&manager] { GetParam().operate(manager); },
             [&](const Standing& standing) {
                 look(log->depth != 0, sigismember(&standing.heldBack, SIGUSR1) == 0);
                 return true;
             });
    }
};

INSTANTIATE_TEST_SUITE_P(
    Each, WholeUnderTheLock,
    testing::Values(
        LockedOperation{"Construction",
                        [](std::optional<Manager>& manager) { manager.emplace(true); }},
        LockedOperation{"Registration",
                        [](std::optional<Manager>& manager) {
                            manager->setHandlerFromFunction(SIGUSR2, userHandler);
                        }},
        LockedOperation{"Clearing",
                        [](std::optional<Manager>& manager) {
                            manager->clearHandlerWithFunction(SIGUSR1, userHandler);
                        }},
        LockedOperation{"TakeOver",
                        [](std::optional<Manager>& manager) { manager->handleSignal(SIGUSR1); }},
        LockedOperation{"Start",
                        [](std::optional<Manager>& manager) { manager->startHandlingSignals(); }},
        LockedOperation{
            "HandBack",
            [](std::optional<Manager>& manager) { manager->stopHandlingSignal(SIGUSR1); }},
        LockedOperation{
            "Restoration",
            [](std::optional<Manager>& manager) { manager->restorePreviouslyExistingHandlers(); }},
        LockedOperation{"End", [](std::optional<Manager>& manager) { manager.reset(); }}),
    [](const testing::TestParamInfo<LockedOperation>& tested) { return tested.param.name; });

TEST_P(WholeUnderTheLock, LetsSignalsInAgainWhenTheLockIsFree) {
    SKIP_WITHOUT_STEPS();
    bool held = false;
    bool everHeld = false;
    unsigned int letInTooEarly = 0;
    stepThrough([&](bool locked, bool letIn) {
        held = locked && (held || !letIn);
        everHeld = everHeld || held;
        letInTooEarly += held && letIn ? 1U : 0U;
    });
    EXPECT_TRUE(everHeld);
    EXPECT_EQ(letInTooEarly, 0U);
}

TEST_P(WholeUnderTheLock, HoldsNoSignalsBackWhileItWaitsForTheLock) {
    SKIP_WITHOUT_STEPS();
    bool had = false;
    unsigned int begun = 0;
    unsigned int heldBackTooEarly = 0;
    stepThrough([&](bool locked, bool letIn) {
        begun += locked && !had ? 1U : 0U;
        heldBackTooEarly += locked && !had && !letIn ? 1U : 0U;
        had = locked;
    });
    EXPECT_GT(begun, 0U);
    EXPECT_EQ(heldBackTooEarly, 0U);
}

}  // namespace
