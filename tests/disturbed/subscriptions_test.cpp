// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What comes between the installations of a subscription: the host's own.

#include <gtest/gtest.h>
#include <sorvane/svsignalsubscription.h>

#include <csignal>
#include <memory>

#include "disturbed/stretched_sigaction.h"
#include "support/kernel_actions.h"
#include "support/manager_fixture.h"

namespace {

using Subscription = Sorvane::SVSignalSubscription;
using When = StretchedSigaction::When;

constexpr int theSignal = SIGUSR1;

class SubscriptionMeetsTheHost : public ManagerTest {
protected:
    static void endWhileHostInstalls(When when, void (*handler)(int)) {
        auto subscription = std::make_unique<Subscription>(theSignal, userHandler);
        const StretchedSigaction stretched(theSignal, when, [handler] {
            hostInstalls(theSignal, handler, SA_RESTART | SA_NOCLDSTOP);
        });
        subscription.reset();
    }
};

TEST_F(SubscriptionMeetsTheHost, AtItsBeginningAndGivesItsNewHandlerBack) {
    hostInstalls(theSignal, hostHandler);
    {
        std::unique_ptr<Subscription> subscription;
        {
            const StretchedSigaction stretched(theSignal, When::before, [] {
                if (systemHandler(theSignal) == addressOf(hostHandler)) {
                    hostInstalls(theSignal, otherHostHandler, SA_NODEFER);
                }
            });
            subscription = std::make_unique<Subscription>(theSignal, userHandler);
        }
        EXPECT_TRUE(takenOverQ(theSignal));
        EXPECT_EQ(recordOf(theSignal, hostHandler), nullptr);
    }
    EXPECT_EQ(systemHandler(theSignal), addressOf(otherHostHandler));
    EXPECT_NE(systemAction(theSignal).sa_flags & SA_NODEFER, 0);
}

TEST_F(SubscriptionMeetsTheHost, AtItsBeginningAndGivesItsNewDefaultActionBack) {
    hostInstalls(theSignal, hostHandler);
    {
        std::unique_ptr<Subscription> subscription;
        {
            const StretchedSigaction stretched(theSignal, When::before, [] {
                if (systemHandler(theSignal) == addressOf(hostHandler)) {
                    hostInstalls(theSignal, SIG_DFL, SA_NOCLDSTOP);
                }
            });
            subscription = std::make_unique<Subscription>(theSignal, userHandler);
        }
        EXPECT_TRUE(takenOverQ(theSignal));
        EXPECT_EQ(recordOf(theSignal, hostHandler), nullptr);
    }
    EXPECT_TRUE(defaultInSystemQ(theSignal));
    EXPECT_NE(systemAction(theSignal).sa_flags & SA_NOCLDSTOP, 0);
}

TEST_F(SubscriptionMeetsTheHost, AtItsEndAndLeavesItsNewHandler) {
    hostInstalls(theSignal, hostHandler);
    endWhileHostInstalls(When::before, otherHostHandler);
    EXPECT_EQ(systemHandler(theSignal), addressOf(otherHostHandler));
    EXPECT_NE(systemAction(theSignal).sa_flags & SA_NOCLDSTOP, 0);
    EXPECT_EQ(recordCount(theSignal), 0U);
    raise(theSignal);
    EXPECT_EQ(callsOf(otherHostHandler), 1U);
}

TEST_F(SubscriptionMeetsTheHost, JustAfterItsEndAndLeavesItsNewHandler) {
    endWhileHostInstalls(When::after, otherHostHandler);
    EXPECT_EQ(systemHandler(theSignal), addressOf(otherHostHandler));
    EXPECT_NE(systemAction(theSignal).sa_flags & SA_NOCLDSTOP, 0);
    raise(theSignal);
    EXPECT_EQ(callsOf(otherHostHandler), 1U);
}

}  // namespace
