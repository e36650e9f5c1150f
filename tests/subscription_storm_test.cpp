// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Subscriptions that come and go on several threads while their signals arrive.

#include <../registry/svownership.h>
#include <gtest/gtest.h>
#include <sorvane/svsignalsubscription.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <memory>
#include <thread>
#include <vector>

#include "support/joining_thread.h"
#include "support/kernel_actions.h"
#include "support/manager_fixture.h"
#include "support/sanitizers.h"

namespace {

using Subscription = Sorvane::SVSignalSubscription;

std::atomic<unsigned long> sent;
std::atomic<unsigned long> receivedByHost;
std::atomic<unsigned long> receivedBySteady;
std::atomic<unsigned long> calledAfterItsEnd;
std::atomic<unsigned long> ended;
std::atomic<bool> over;

class SubscriptionStorm : public ManagerTest {
protected:
    SubscriptionStorm() {
        sent = 0;
        receivedByHost = 0;
        receivedBySteady = 0;
        calledAfterItsEnd = 0;
        ended = 0;
        over = false;
    }
};

int queuedSignal() {
    return SIGRTMIN + 3;
}

void hosts(int, siginfo*, void*) {
    ++receivedByHost;
}

void steady(int) {
    ++receivedBySteady;
}

/// What a passing subscriber uses, until its subscription has ended.
struct Used {
    std::atomic<bool> alive{true};
};

void passing(int, siginfo*, void*, void* user) {
    if (!static_cast<Used*>(user)->alive) {
        ++calledAfterItsEnd;
    }
}

// With more of them on their way the threads would do nothing but receive.
void sendExactly(unsigned long times) {
    for (unsigned long i = 0; i < times; ++i) {
        while (sent > receivedByHost + 100) {
            std::this_thread::yield();
        }
        ++sent;
        if (sigqueue(getpid(), queuedSignal(), sigval{}) != 0) {
            --sent;
        }
    }
}

void waitUntilAllHaveArrived() {
    while (receivedByHost < sent) {
        std::this_thread::yield();
    }
}

void comeAndGo(int signalNumber) {
    while (!over) {
        Used used;
        {
            const Subscription subscription(signalNumber, passing, &used);
            std::this_thread::yield();
        }
        used.alive = false;
        ++ended;
    }
}

void kill(int signalNumber) {
    while (!over) {
        ::kill(getpid(), signalNumber);
        std::this_thread::yield();
    }
}

TEST_F(SubscriptionStorm, LosesNoSignalAndLeavesTheHostWhatItHad) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer drops signals";
    }
    JoiningThread([] {}).join();
    struct sigaction action = {};
    action.sa_sigaction = hosts;
    action.sa_mask = setOf({SIGTERM});
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigaction(queuedSignal(), &action, nullptr);
    signal(SIGURG, SIG_DFL);
    const KernelActions before = kernelActions();
    {
        std::vector<JoiningThread> threads;
        for (int i = 0; i < 3; ++i) {
            threads.emplace_back([] { comeAndGo(queuedSignal()); });
        }
        threads.emplace_back([] { comeAndGo(SIGURG); });
        threads.emplace_back([] { kill(SIGURG); });
        threads.emplace_back([] {
            sendExactly(50000);
            over = true;
        });
    }
    waitUntilAllHaveArrived();
    EXPECT_EQ(receivedByHost, sent);
    EXPECT_GT(ended, 100U);
    EXPECT_EQ(calledAfterItsEnd, 0U);
    EXPECT_TRUE(changedSince(before).empty());
    EXPECT_EQ(Manager::numberOfManagers, 0U);
    EXPECT_EQ(recordCount(queuedSignal()), 0U);
    EXPECT_EQ(recordCount(SIGURG), 0U);
}

TEST_F(SubscriptionStorm, CallsASteadyOneOnceForEachSignal) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer drops signals";
    }
    hostInstalls(queuedSignal(), hosts);
    {
        const Subscription subscription(queuedSignal(), steady);
        {
            std::vector<JoiningThread> threads;
            for (int i = 0; i < 3; ++i) {
                threads.emplace_back([] { comeAndGo(queuedSignal()); });
            }
            threads.emplace_back([] {
                sendExactly(50000);
                over = true;
            });
        }
        waitUntilAllHaveArrived();
    }
    EXPECT_EQ(receivedByHost, sent);
    EXPECT_EQ(receivedBySteady, sent);
    EXPECT_GT(ended, 100U);
    EXPECT_EQ(calledAfterItsEnd, 0U);
    EXPECT_EQ(systemHandler(queuedSignal()), reinterpret_cast<void*>(hosts));
}

bool pendingQ(int signalNumber) {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, signalNumber) == 1;
}

void counting(int, siginfo*, void*, void*) {
    ++receivedBySteady;
}

// A delivery that begins when a subscription has the signal reaches that, the next one, or the
// host, to whom it is sent on. Here it stays pending.
TEST_F(SubscriptionStorm, SendsOnWhatFindsNobodyAnyMore) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer drops signals";
    }
    hostInstalls(queuedSignal(), SIG_DFL);
    const BlockedSignals held{queuedSignal()};
    const sigset_t own = setOf({queuedSignal()});
    const timespec atOnce = {0, 0};
    siginfo information = {};
    information.si_signo = queuedSignal();
    information.si_code = SI_QUEUE;
    std::vector<JoiningThread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([] {
            int user = 0;
            while (!over) {
                const Subscription subscription(queuedSignal(), counting, &user);
            }
        });
    }
    unsigned long begun = 0;
    unsigned long lost = 0;
    while (begun < 100000) {
        receivedBySteady = 0;
        if (!Sorvane::SVOwnership::librarysQ(queuedSignal())) {
            continue;
        }
        ++begun;
        actualSignalHandler(queuedSignal(), &information, nullptr);
        lost += (receivedBySteady != 0) == pendingQ(queuedSignal()) ? 1U : 0U;
        sigtimedwait(&own, nullptr, &atOnce);
    }
    over = true;
    EXPECT_EQ(lost, 0U);
}

}  // namespace
