// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A subscription that ends at each instruction of a dispatch of its signal: the delivery reaches
// whom it belongs to, once.

#include <gtest/gtest.h>
#include <sorvane/svsignalsubscription.h>

#include <csignal>
#include <memory>

#include "support/manager_fixture.h"
#include "support/stepping.h"

namespace {

using Subscription = Sorvane::SVSignalSubscription;

constexpr int theSignal = SIGUSR1;

std::unique_ptr<Subscription> subscription;
std::unique_ptr<Subscription> next;

bool pendingQ() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, theSignal) == 1;
}

void takePending() {
    const sigset_t own = setOf({theSignal});
    const timespec atOnce = {0, 0};
    sigtimedwait(&own, nullptr, &atOnce);
}

class EndInTheMiddleOfADispatch : public ManagerTest {
protected:
    // The signal is held back, as the kernel does for a handler.
    static bool endAt(
        unsigned int instruction, void (*beforeTheEnd)() = [] {}) {
        {
            // Leaves a free slot before the other's, to whoever begins next.
            const Subscription before(theSignal, otherUserHandler);
            subscription = std::make_unique<Subscription>(theSignal, userHandler);
        }
        forgetCalls();
        siginfo information = {};
        information.si_signo = theSignal;
        information.si_code = SI_QUEUE;
        const bool reached =
            disturb([&] { actualSignalHandler(theSignal, &information, nullptr); }, instruction,
                    [beforeTheEnd] {
                        beforeTheEnd();
                        subscription.reset();
                    });
        next.reset();
        subscription.reset();
        EXPECT_EQ(Manager::numberOfManagers, 0U);
        EXPECT_EQ(recordCount(theSignal), 0U);
        return reached;
    }
};

TEST_F(EndInTheMiddleOfADispatch, SendsTheSignalOnThatNobodyHasBeenCalledFor) {
    SKIP_WITHOUT_STEPS();
    const BlockedSignals held{theSignal};
    const unsigned int instructions = atEachInstruction([](unsigned int instruction) {
        const bool reached = endAt(instruction);
        EXPECT_EQ(callsOf(userHandler) + (pendingQ() ? 1U : 0U), 1U);
        EXPECT_TRUE(defaultInSystemQ(theSignal));
        takePending();
        return reached;
    });
    EXPECT_GT(instructions, 100U);
}

TEST_F(EndInTheMiddleOfADispatch, LosesNoneOfTheHostsDeliveries) {
    SKIP_WITHOUT_STEPS();
    const BlockedSignals held{theSignal};
    hostInstalls(theSignal, hostHandler);
    const unsigned int instructions = atEachInstruction([](unsigned int instruction) {
        const bool reached = endAt(instruction);
        EXPECT_EQ(callsOf(hostHandler) + (pendingQ() ? 1U : 0U), 1U);
        EXPECT_LE(callsOf(userHandler), 1U);
        EXPECT_EQ(systemHandler(theSignal), addressOf(hostHandler));
        takePending();
        return reached;
    });
    EXPECT_GT(instructions, 100U);
}

// So the signal is nobody else's in between.
TEST_F(EndInTheMiddleOfADispatch, LeavesTheDeliveryToTheOneThatHasJustBegun) {
    SKIP_WITHOUT_STEPS();
    const BlockedSignals held{theSignal};
    const unsigned int instructions = atEachInstruction([](unsigned int instruction) {
        const bool reached = endAt(instruction, [] {
            next = std::make_unique<Subscription>(theSignal, otherUserHandler);
        });
        EXPECT_GE(callCount(), 1U);
        EXPECT_LE(callsOf(userHandler), 1U);
        EXPECT_LE(callsOf(otherUserHandler), 1U);
        EXPECT_FALSE(pendingQ());
        return reached;
    });
    EXPECT_GT(instructions, 100U);
}

}  // namespace
