// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Subscriptions without any memory left.

#include <gtest/gtest.h>
#include <sorvane/svsignalsubscription.h>

#include <csignal>
#include <memory>
#include <optional>

#include "support/failure.h"
#include "support/gate.h"
#include "support/joining_thread.h"
#include "support/kernel_actions.h"
#include "support/manager_fixture.h"
#include "support/memory_limit.h"

namespace {

using Subscription = Sorvane::SVSignalSubscription;

constexpr int theSignal = SIGUSR1;

class SubscriptionWithoutMemory : public ManagerTest {};

TEST_F(SubscriptionWithoutMemory, FailsToBeginAndLeavesNothing) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    hostInstalls(theSignal, hostHandler);
    const KernelActions before = kernelActions();
    Failure failure;
    bool taken = true;
    {
        const MemoryLimit limit;
        failure = failureOf([] { const Subscription subscription(theSignal, userHandler); });
        taken = takenOverQ(theSignal);
    }
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->getType(), Sorvane::svexceptionAllocationFailed);
    EXPECT_STREQ(failure->getMessage(), "Unable to allocate new table");
    EXPECT_STREQ(failure->getFile(), "libsrc/utilities/svsignalsubscription");
    EXPECT_EQ(failure->getLine(), 112U);
    EXPECT_FALSE(taken);
    EXPECT_TRUE(changedSince(before).empty());
    EXPECT_EQ(recordCount(theSignal), 0U);
    EXPECT_NO_THROW(Subscription(theSignal, userHandler)) << "with memory";
}

/// While somebody reads the tables, a change needs memory.
class Reader {
public:
    Reader() : m_thread([] { Manager(false).callHandlers(SIGUSR2, nullptr, nullptr); }) {
        reading.pass();
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
    ~Reader() { goOn.open(); }

    static void handler(int) {
        reading.open();
        goOn.pass();
    }

private:
    static Gate reading;
    static Gate goOn;

    JoiningThread m_thread;
};
Gate Reader::reading;
Gate Reader::goOn;

TEST_F(SubscriptionWithoutMemory, FailsToBeginBesideAReaderAndLeavesNothing) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR2, &Reader::handler);
    manager.setHandlerFromFunction(theSignal, otherUserHandler);
    Failure failure;
    {
        const Reader reader;
        const MemoryLimit limit;
        failure = failureOf([] { const Subscription subscription(theSignal, userHandler); });
    }
    EXPECT_TRUE(failure.has_value());
    EXPECT_TRUE(defaultInSystemQ(theSignal));
    EXPECT_EQ(recordCount(theSignal), 1U);
}

// The record is kept for want of memory, and calls nothing.
TEST_F(SubscriptionWithoutMemory, EndsAllTheSameAndIsNotCalledAgain) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    hostInstalls(theSignal, hostHandler);
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR2, &Reader::handler);
    JoiningThread([] {}).join();
    const KernelActions before = kernelActions();
    auto subscription = std::make_optional<Subscription>(theSignal, userHandler);
    {
        const Reader reader;
        const MemoryLimit limit;
        subscription.reset();
    }
    EXPECT_TRUE(changedSince(before).empty());
    EXPECT_EQ(recordCount(theSignal), 2U) << "what can't be taken out stays";
    raise(theSignal);
    EXPECT_EQ(callsOf(hostHandler), 1U);
    manager.startHandlingSignals();
    EXPECT_TRUE(takenOverQ(theSignal));
    raise(theSignal);
    EXPECT_EQ(callsOf(hostHandler), 2U);
    EXPECT_EQ(callsOf(userHandler), 0U);
}

TEST_F(SubscriptionWithoutMemory, LeavesARecordThatTheNextOneTakesOut) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR2, &Reader::handler);
    auto subscription = std::make_optional<Subscription>(theSignal, userHandler);
    {
        const Reader reader;
        const MemoryLimit limit;
        subscription.reset();
    }
    EXPECT_EQ(recordCount(theSignal), 1U);
    {
        const Subscription next(theSignal, userHandler);
        raise(theSignal);
        EXPECT_EQ(callsOf(userHandler), 1U);
    }
    EXPECT_EQ(recordCount(theSignal), 0U);
    EXPECT_TRUE(defaultInSystemQ(theSignal));
}

TEST_F(SubscriptionWithoutMemory, FailsToRenewNothing) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    hostInstalls(theSignal, hostHandler);
    Subscription subscription(theSignal, userHandler);
    Manager(true).stopHandlingSignal(theSignal);
    bool active = false;
    {
        const MemoryLimit limit;
        active = subscription.renew();
    }
    EXPECT_TRUE(active);
    raise(theSignal);
    EXPECT_EQ(callsOf(userHandler), 1U);
    EXPECT_EQ(callsOf(hostHandler), 1U);
}

}  // namespace
