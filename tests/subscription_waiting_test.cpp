// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Whom the end of a subscription waits for, and whom not.

#include <gtest/gtest.h>
#include <sorvane/svsignalsubscription.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csetjmp>
#include <csignal>
#include <memory>
#include <thread>
#include <vector>

#include "support/child_process.h"
#include "support/gate.h"
#include "support/joining_thread.h"
#include "support/manager_fixture.h"
#include "support/sanitizers.h"
#include "support/thread_state.h"

namespace {

using Subscription = Sorvane::SVSignalSubscription;

constexpr int theSignal = SIGUSR1;

class EndOfASubscription : public ManagerTest {};

Gate inside;
Gate goOn;
std::atomic<bool> running{false};

void staysInside(int signalNumber) {
    noteCall(addressOf(staysInside), signalNumber);
    running = true;
    inside.open();
    goOn.pass();
    running = false;
}

/// Ends a subscription on a thread of its own.
class Ender {
public:
    explicit Ender(std::unique_ptr<Subscription>& subscription)
        : m_thread([this, &subscription] {
              m_number = gettid();
              subscription.reset();
              m_sawItRunning = running.load();
              m_done = true;
          }) {}

    // Its sleep in the gate or at a lock ends by itself.
    void waitUntilItWaits() const {
        while (!m_done && (m_number == 0 || takenOverQ(theSignal) || !asleepQ())) {
            std::this_thread::yield();
        }
    }
    bool doneQ() const { return m_done; }
    bool sawItRunningQ() const { return m_sawItRunning; }
    pid_t number() const { return m_number; }
    void join() { m_thread.join(); }

private:
    bool asleepQ() const { return ThreadState(m_number).asleepQ(); }

    std::atomic<pid_t> m_number{0};
    std::atomic<bool> m_done{false};
    std::atomic<bool> m_sawItRunning{true};
    JoiningThread m_thread;
};

TEST_F(EndOfASubscription, WaitsForItsHandlerThatIsRunningOnAnotherThread) {
    auto subscription = std::make_unique<Subscription>(theSignal, staysInside);
    JoiningThread other([] { raise(theSignal); });
    inside.pass();
    Ender ender(subscription);
    ender.waitUntilItWaits();
    EXPECT_FALSE(ender.doneQ());
    EXPECT_TRUE(defaultInSystemQ(theSignal)) << "it has ended for everybody else";
    EXPECT_TRUE(lockIsFree());
    goOn.open();
    ender.join();
    EXPECT_FALSE(ender.sawItRunningQ());
}

TEST_F(EndOfASubscription, WaitsForItsHandlerOnSeveralThreads) {
    constexpr int several = 5;
    auto subscription = std::make_unique<Subscription>(theSignal, staysInside);
    std::vector<JoiningThread> others;
    for (int i = 0; i < several; ++i) {
        others.emplace_back([] { raise(theSignal); });
        inside.pass();
    }
    Ender ender(subscription);
    for (int i = 0; i < several; ++i) {
        ender.waitUntilItWaits();
        EXPECT_FALSE(ender.doneQ()) << i;
        goOn.open();
    }
    ender.join();
    EXPECT_FALSE(ender.sawItRunningQ());
}

TEST_F(EndOfASubscription, LetsSignalsInWhileItWaits) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer lets signals arrive later";
    }
    auto subscription = std::make_unique<Subscription>(theSignal, staysInside);
    const Subscription beside(SIGUSR2, userHandler);
    JoiningThread other([] { raise(theSignal); });
    inside.pass();
    Ender ender(subscription);
    ender.waitUntilItWaits();
    tgkill(getpid(), ender.number(), SIGUSR2);
    while (callsOf(userHandler) == 0) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(ender.doneQ());
    goOn.open();
}

std::atomic<unsigned int> depth{0};

void isInterruptedByItselfAndStaysInside(int signalNumber) {
    if (depth.fetch_add(1) == 0) {
        const sigset_t itself = setOf({signalNumber});
        pthread_sigmask(SIG_UNBLOCK, &itself, nullptr);
        raise(signalNumber);
        staysInside(signalNumber);
    }
}

TEST_F(EndOfASubscription, WaitsForTheOuterCallOfAHandlerThatWasInterruptedByItself) {
    auto subscription =
        std::make_unique<Subscription>(theSignal, isInterruptedByItselfAndStaysInside);
    JoiningThread other([] { raise(theSignal); });
    inside.pass();
    EXPECT_EQ(depth, 2U);
    Ender ender(subscription);
    ender.waitUntilItWaits();
    EXPECT_FALSE(ender.doneQ());
    goOn.open();
    ender.join();
    EXPECT_FALSE(ender.sawItRunningQ());
}

TEST_F(EndOfASubscription, WaitsForNoOtherHandlerOfItsSignal) {
    const Subscription staying(theSignal, staysInside);
    auto subscription = std::make_unique<Subscription>(theSignal, userHandler);
    JoiningThread other([] { raise(theSignal); });
    inside.pass();
    subscription.reset();
    EXPECT_TRUE(running);
    goOn.open();
}

std::unique_ptr<Subscription> own;
std::unique_ptr<Subscription> another;

void endsItself(int signalNumber) {
    noteCall(addressOf(endsItself), signalNumber);
    own.reset();
}

TEST_F(EndOfASubscription, DoesNotWaitForTheCallThatItIsCalledBy) {
    own = std::make_unique<Subscription>(theSignal, endsItself);
    const Subscription beside(theSignal, userHandler);
    raise(theSignal);
    raise(theSignal);
    EXPECT_EQ(callsOf(endsItself), 1U);
    EXPECT_EQ(callsOf(userHandler), 2U);
    EXPECT_EQ(recordCount(theSignal), 1U);
}

void endsTheInterrupted(int signalNumber) {
    noteCall(addressOf(endsTheInterrupted), signalNumber);
    own.reset();
}

void isInterrupted(int signalNumber) {
    noteCall(addressOf(isInterrupted), signalNumber);
    raise(SIGUSR2);
}

TEST_F(EndOfASubscription, DoesNotWaitForTheCallThatHasBeenInterrupted) {
    own = std::make_unique<Subscription>(theSignal, isInterrupted);
    const Subscription ending(SIGUSR2, endsTheInterrupted);
    raise(theSignal);
    EXPECT_EQ(callsOf(isInterrupted), 1U);
    EXPECT_EQ(callsOf(endsTheInterrupted), 1U);
    EXPECT_TRUE(defaultInSystemQ(theSignal));
}

std::atomic<unsigned int> outsideCalls{0};

void endsItselfWhileOthersAreInside(int signalNumber) {
    if (outsideCalls.fetch_add(1) == 0) {
        staysInside(signalNumber);
    } else {
        own.reset();
        EXPECT_FALSE(running) << "it has not waited for the other thread";
    }
}

TEST_F(EndOfASubscription, InItsOwnHandlerWaitsForTheOtherThreads) {
    own = std::make_unique<Subscription>(theSignal, endsItselfWhileOthersAreInside);
    JoiningThread other([] { raise(theSignal); });
    inside.pass();
    JoiningThread opening([] {
        while (takenOverQ(theSignal)) {
            std::this_thread::yield();
        }
        goOn.open();
    });
    raise(theSignal);
    EXPECT_EQ(outsideCalls, 2U);
}

void endsTheOther(int signalNumber) {
    noteCall(addressOf(endsTheOther), signalNumber);
    own.reset();
}

TEST_F(EndOfASubscription, InAnotherHandlerOfItsSignalIsFollowedByNoCall) {
    for (int round = 0; round < 300; ++round) {
        forgetCalls();
        own = std::make_unique<Subscription>(theSignal, userHandler);
        const Subscription ending(theSignal, endsTheOther);
        raise(theSignal);
        ASSERT_EQ(callsOf(endsTheOther), 1U);
        const std::size_t called = callsOf(userHandler);
        EXPECT_TRUE(called == 0 || callAt(0).function == addressOf(userHandler));
        raise(theSignal);
        ASSERT_EQ(callsOf(userHandler), called);
    }
}

// --- What calls nothing --------------------------------------------------------------------------

// A record outlives its subscription only for those who have begun with it.
TEST_F(EndOfASubscription, MakesItsEntryCallNothing) {
    auto subscription = std::make_unique<Subscription>(theSignal, userInformationHandler);
    const std::vector<void*> functions = functionsInSlotOrder(theSignal);
    ASSERT_EQ(functions.size(), 1U);
    const auto entry = reinterpret_cast<void (*)(int, siginfo*, void*)>(functions[0]);
    entry(theSignal, nullptr, nullptr);
    EXPECT_EQ(callCount(), 1U);
    entry(SIGUSR2, nullptr, nullptr);
    EXPECT_EQ(callCount(), 1U) << "for another signal";
    subscription.reset();
    entry(theSignal, nullptr, nullptr);
    EXPECT_EQ(callCount(), 1U);
}

TEST_F(EndOfASubscription, LeavesItsEntryToTheNextOneAsLateAsCanBe) {
    std::vector<void*> used;
    for (int round = 0; round < 200; ++round) {
        const Subscription subscription(theSignal, userHandler);
        used.push_back(functionsInSlotOrder(theSignal).at(0));
    }
    for (std::size_t i = 1; i < used.size(); ++i) {
        EXPECT_NE(used[i], used[0]);
    }
}

// The entry whose call is under way is nobody else's.
void endsItselfAndStaysInside(int signalNumber) {
    own.reset();
    staysInside(signalNumber);
}

TEST_F(EndOfASubscription, LeavesItsEntryToNobodyWhileACallIsUnderWay) {
    own = std::make_unique<Subscription>(theSignal, endsItselfAndStaysInside);
    const std::vector<void*> functions = functionsInSlotOrder(theSignal);
    JoiningThread other([] { raise(theSignal); });
    inside.pass();
    for (int round = 0; round < 300; ++round) {
        const Subscription subscription(SIGUSR2, userHandler);
        EXPECT_NE(functionsInSlotOrder(SIGUSR2).at(0), functions.at(0));
    }
    goOn.open();
}

// --- siglongjmp ----------------------------------------------------------------------------------

sigjmp_buf outside;

void leaves(int) {
    siglongjmp(outside, 1);
}

TEST_F(EndOfASubscription, DoesNotWaitForCallsThatItsOwnThreadHasLeft) {
    auto subscription = std::make_unique<Subscription>(theSignal, leaves);
    volatile int times = 0;
    while (times < 1000) {
        times = times + 1;
        if (sigsetjmp(outside, 1) == 0) {
            raise(theSignal);
        }
    }
    subscription.reset();
    EXPECT_TRUE(defaultInSystemQ(theSignal));
}

// --- More calls than cells -----------------------------------------------------------------------

using EntryFunction = void (*)(int, siginfo*, void*);

thread_local sigjmp_buf outsideOfThread;

void leavesItsThread(int, siginfo*, void*, void*) {
    siglongjmp(outsideOfThread, 1);
}

/// A thread that has left calls of some entries, and lives on.
class Leaver {
public:
    explicit Leaver(const std::vector<void*>& entries)
        : m_thread([this, entries] {
              for (void* const entry : entries) {
                  if (sigsetjmp(outsideOfThread, 1) == 0) {
                      reinterpret_cast<EntryFunction>(entry)(SIGUSR2, nullptr, nullptr);
                  }
              }
              m_left.open();
              m_end.pass();
          }) {
        m_left.pass();
    }
    Leaver(const Leaver&) = delete;
    Leaver& operator=(const Leaver&) = delete;
    ~Leaver() { m_end.open(); }

private:
    Gate m_left;
    Gate m_end;
    JoiningThread m_thread;
};

// Never ended, because nobody would come back from that.
std::vector<std::unique_ptr<Subscription>>& leftForGood =
    *new std::vector<std::unique_ptr<Subscription>>;

class EndOfASubscriptionWithoutACell : public ManagerTest {
protected:
    // All cells are taken by calls of others.
    void takeAllCells() {
        constexpr unsigned int others = 255;
        static char users[others];
        for (char& user : users) {
            leftForGood.push_back(std::make_unique<Subscription>(SIGUSR2, leavesItsThread, &user));
        }
        const std::vector<void*> entries = functionsInSlotOrder(SIGUSR2);
        ASSERT_EQ(entries.size(), others);
        m_leavers.push_back(std::make_unique<Leaver>(entries));
        m_leavers.push_back(std::make_unique<Leaver>(entries));
        m_leavers.push_back(std::make_unique<Leaver>(std::vector<void*>{entries[0], entries[1]}));
    }

private:
    std::vector<std::unique_ptr<Leaver>> m_leavers;
};

TEST_F(EndOfASubscriptionWithoutACell, WaitsForItsHandlerAllTheSame) {
    auto subscription = std::make_unique<Subscription>(theSignal, staysInside);
    takeAllCells();
    JoiningThread other([] { raise(theSignal); });
    inside.pass();
    Ender ender(subscription);
    ender.waitUntilItWaits();
    EXPECT_FALSE(ender.doneQ());
    goOn.open();
    ender.join();
    EXPECT_FALSE(ender.sawItRunningQ());
}

TEST_F(EndOfASubscriptionWithoutACell, DoesNotWaitInsideAHandler) {
    own = std::make_unique<Subscription>(theSignal, endsItself);
    takeAllCells();
    raise(theSignal);
    EXPECT_EQ(callsOf(endsItself), 1U);
    EXPECT_EQ(own, nullptr);
}

TEST_F(EndOfASubscriptionWithoutACell, DoesNotWaitInAForkedChild) {
    auto subscription = std::make_unique<Subscription>(theSignal, staysInside);
    takeAllCells();
    JoiningThread other([] { raise(theSignal); });
    inside.pass();
    const ChildEnd end = inChild([&] {
        subscription.reset();
        EXPECT_TRUE(defaultInSystemQ(theSignal));
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
    goOn.open();
}

// --- fork ----------------------------------------------------------------------------------------

TEST_F(EndOfASubscription, InAForkedChildWaitsForNoThreadOfTheParents) {
    auto subscription = std::make_unique<Subscription>(theSignal, staysInside);
    JoiningThread other([] { raise(theSignal); });
    inside.pass();
    const ChildEnd end = inChild([&] {
        subscription.reset();
        EXPECT_TRUE(defaultInSystemQ(theSignal));
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
    EXPECT_TRUE(subscription->activeQ());
    goOn.open();
}

// The parent's thread that was ending it is not in the child, and the object is there.
TEST_F(EndOfASubscription, ThatAnotherThreadWasWaitingForIsDoneOnceMoreInAForkedChild) {
    auto subscription = std::make_unique<Subscription>(theSignal, staysInside);
    Subscription* const half = subscription.get();
    JoiningThread other([] { raise(theSignal); });
    inside.pass();
    const Ender ender(subscription);
    ender.waitUntilItWaits();
    const ChildEnd end = inChild([half] {
        half->~Subscription();
        EXPECT_TRUE(defaultInSystemQ(theSignal));
        EXPECT_NO_THROW(Subscription(theSignal, userHandler));
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
    goOn.open();
}

pid_t child = 0;

void forksAndEndsItself(int signalNumber) {
    noteCall(addressOf(forksAndEndsItself), signalNumber);
    child = fork();
    if (child == 0) {
        own.reset();
        _exit(takenOverQ(signalNumber) ? 1 : 42);
    }
}

TEST_F(EndOfASubscription, InAChildThatItsHandlerForksDoesNotWaitForThatCall) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer does not let handlers fork";
    }
    own = std::make_unique<Subscription>(theSignal, forksAndEndsItself);
    raise(theSignal);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(ChildEnd(status).exitedWithQ(42));
    EXPECT_TRUE(own->activeQ());
    own.reset();
}

TEST_F(EndOfASubscription, InAForkedChildWaitsForTheChildsOtherThreads) {
    auto subscription = std::make_unique<Subscription>(theSignal, staysInside);
    const ChildEnd end = inChild([&] {
        JoiningThread other([] { raise(theSignal); });
        inside.pass();
        Ender ender(subscription);
        ender.waitUntilItWaits();
        EXPECT_FALSE(ender.doneQ());
        goOn.open();
        ender.join();
        EXPECT_FALSE(ender.sawItRunningQ());
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

}  // namespace
