// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A host that installs a handler over the library, and puts back later what it has displaced, when
// the signal has been taken over once more in between. It means what the library stood for when it
// was found.

#include <gtest/gtest.h>
#include <sorvane/svsignalsubscription.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <memory>

#include "support/child_process.h"
#include "support/faults.h"
#include "support/kernel_actions.h"
#include "support/manager_fixture.h"
#include "support/sanitizers.h"

namespace {

using Sorvane::SVIgnoredSignal;
using Subscription = Sorvane::SVSignalSubscription;
using Subscriptions = std::unique_ptr<Subscription>;

constexpr int theSignal = SIGUSR1;

// What the host has found where it has installed something.
struct sigaction found;

void hostReplaces(int signalNumber, void (*handler)(int), int flags) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigaction(signalNumber, &action, &found);
}

void putsBack(int signalNumber) {
    noteCall(addressOf(putsBack), signalNumber);
    sigaction(signalNumber, &found, nullptr);
}

void putsBackAndRaises(int signalNumber) {
    noteCall(addressOf(putsBackAndRaises), signalNumber);
    sigaction(signalNumber, &found, nullptr);
    raise(signalNumber);
}

// As a host does that knows of functions only.
void putsBackTheFunction(int signalNumber) {
    signal(signalNumber, found.sa_handler);
}

class PutBack : public ManagerTest {
protected:
    ~PutBack() noexcept override = default;

    // Between two take-overs, by subscriptions that stay.
    void isFoundBy(void (*handler)(int), int signalNumber, int flags) {
        m_earlier = std::make_unique<Subscription>(signalNumber, userHandler);
        hostReplaces(signalNumber, handler, flags);
        m_later = std::make_unique<Subscription>(signalNumber, otherUserHandler);
    }

    void endAll() {
        m_later.reset();
        m_earlier.reset();
    }

    Subscriptions m_earlier;
    Subscriptions m_later;
};

// --- In the handler that gives its place up ------------------------------------------------------

TEST_F(PutBack, InAHandlerThatRaisesItsSignalEndsTheProcessAsTheDefaultActionDoes) {
    for (const int flags : {0, SA_NODEFER}) {
        for (const int signalNumber : {SIGTERM, SIGSEGV, SIGHUP}) {
            const ChildEnd end = inChildWithoutCore([&] {
                isFoundBy(putsBackAndRaises, signalNumber, flags);
                raise(signalNumber);
            });
            EXPECT_TRUE(end.endedBySignalQ(signalNumber)) << signalNumber << ": " << end;
            EXPECT_EQ(callsOf(putsBackAndRaises), 1U) << signalNumber << ", " << flags;
            if (signalNumber != SIGTERM) {
                EXPECT_EQ(callsOf(userHandler), 1U) << "its last words, " << flags;
            }
            forgetCalls();
        }
    }
}

TEST_F(PutBack, InAHandlerThatRaisesItsSignalEndsTheProcessBesideManagers) {
    for (const int flags : {0, SA_NODEFER}) {
        const ChildEnd end = inChildWithoutCore([flags] {
            Manager manager(false);
            manager.handleSignal(SIGTERM);
            hostReplaces(SIGTERM, putsBackAndRaises, flags);
            manager.handleSignal(SIGTERM);
            raise(SIGTERM);
        });
        EXPECT_TRUE(end.endedBySignalQ(SIGTERM)) << end;
        EXPECT_EQ(callsOf(putsBackAndRaises), 1U) << flags;
        forgetCalls();
    }
}

// The first time beside the one that gives its place up, as both are on record, the second time
// alone.
TEST_F(PutBack, InAHandlerThatRaisesItsSignalGivesThatToTheHandlerBeforeBesideManagers) {
    const ChildEnd end = inChild([] {
        hostInstalls(theSignal, hostHandler, SA_RESTART);
        Manager manager(false);
        manager.handleSignal(theSignal);
        hostReplaces(theSignal, putsBackAndRaises, 0);
        manager.handleSignal(theSignal);
        raise(theSignal);
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
    EXPECT_EQ(callsOf(putsBackAndRaises), 1U);
    EXPECT_EQ(callsOf(hostHandler), 2U);
}

TEST_F(PutBack, InAHandlerThatReturnsToItsFaultEndsTheProcessAsTheDefaultActionDoes) {
    SKIP_WITHOUT_FAULTS();
    for (const int flags : {0, SA_NODEFER}) {
        const ChildEnd end = inChildWithoutCore([&] {
            const ClosedPage page;
            isFoundBy(putsBack, SIGSEGV, flags);
            writeTo(page.address());
        });
        EXPECT_TRUE(end.endedBySignalQ(SIGSEGV)) << end;
        EXPECT_EQ(callsOf(putsBack), 1U) << flags;
        EXPECT_EQ(callsOf(userHandler), 1U) << "its last words, " << flags;
        forgetCalls();
    }
}

TEST_F(PutBack, InAHandlerThatRaisesItsSignalIgnoresThatAsTheHostDidBefore) {
    for (const int flags : {0, SA_NODEFER}) {
        const ChildEnd end = inChild([&] {
            hostInstalls(theSignal, SIG_IGN);
            const Subscription earlier(theSignal, userHandler, SVIgnoredSignal::takeOver);
            hostReplaces(theSignal, putsBackAndRaises, flags);
            const Subscription later(theSignal, otherUserHandler);
            raise(theSignal);
        });
        EXPECT_TRUE(end.wentOnQ()) << end;
        EXPECT_EQ(callsOf(putsBackAndRaises), 1U) << flags;
        EXPECT_EQ(callsOf(userHandler), 1U) << flags;
        forgetCalls();
    }
}

TEST_F(PutBack, InAHandlerThatRaisesItsSignalGivesThatToTheHandlerBefore) {
    for (const int flags : {0, SA_NODEFER}) {
        const ChildEnd end = inChild([&] {
            hostInstalls(theSignal, hostHandler, SA_RESTART);
            isFoundBy(putsBackAndRaises, theSignal, flags);
            raise(theSignal);
            EXPECT_TRUE(takenOverQ(theSignal));
        });
        EXPECT_TRUE(end.wentOnQ()) << end;
        EXPECT_EQ(callsOf(putsBackAndRaises), 1U) << flags;
        EXPECT_EQ(callsOf(hostHandler), 1U) << flags;
        forgetCalls();
    }
}

// --- Elsewhere -----------------------------------------------------------------------------------

TEST_F(PutBack, OutsideOfHandlersEndsNothing) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "signals are delivered one after the other here";
    }
    const ChildEnd end = inChild([this] {
        isFoundBy(hostHandler, SIGRTMIN, 0);
        sigaction(SIGRTMIN, &found, nullptr);
        const BlockedSignals held{SIGRTMIN};
        raise(SIGRTMIN);
        raise(SIGRTMIN);
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
    EXPECT_EQ(callsOf(userHandler), 2U);
}

TEST_F(PutBack, MeansTheDefaultActionWhenSubscriptionsEnd) {
    const KernelActions before = kernelActions();
    isFoundBy(hostHandler, theSignal, 0);
    sigaction(theSignal, &found, nullptr);
    endAll();
    EXPECT_EQ(changedSince(before), std::vector<int>());
}

TEST_F(PutBack, MeansTheHandlerBeforeWhenSubscriptionsEnd) {
    hostInstalls(theSignal, hostInformationHandler, SA_NODEFER | SA_RESTART);
    const KernelActions before = kernelActions();
    isFoundBy(hostHandler, theSignal, 0);
    sigaction(theSignal, &found, nullptr);
    endAll();
    EXPECT_EQ(changedSince(before), std::vector<int>());
}

TEST_F(PutBack, AsAFunctionHasTheMaskAndTheFlagsThatTheHostGivesIt) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer tells other flags than it was given";
    }
    struct sigaction action = {};
    action.sa_handler = hostHandler;
    action.sa_mask = setOf({SIGTERM});
    sigaction(theSignal, &action, nullptr);
    {
        const Subscription subscription(theSignal, userHandler);
        hostReplaces(theSignal, otherHostHandler, 0);
        putsBackTheFunction(theSignal);
    }
    EXPECT_EQ(systemHandler(theSignal), addressOf(hostHandler));
    EXPECT_EQ(systemAction(theSignal).sa_flags & (SA_RESTART | SA_SIGINFO | SA_ONSTACK),
              SA_RESTART);
    const sigset_t mask = systemAction(theSignal).sa_mask;
    EXPECT_EQ(sigismember(&mask, SIGTERM), 0);
}

TEST_F(PutBack, IsFoundByTheNextSubscription) {
    hostInstalls(theSignal, SIG_IGN);
    auto subscription =
        std::make_unique<Subscription>(theSignal, userHandler, SVIgnoredSignal::takeOver);
    hostReplaces(theSignal, hostHandler, 0);
    subscription.reset();
    putsBackTheFunction(theSignal);
    const Subscription next(theSignal, userHandler);
    EXPECT_FALSE(next.activeQ()) << "the host ignores the signal";
}

// Nobody has seen that the library was put back in between.
TEST_F(PutBack, AfterTheSameHandlerWasThereTwiceMeansTheOneBeforeThat) {
    hostInstalls(theSignal, hostHandler, SA_RESTART);
    isFoundBy(otherHostHandler, theSignal, 0);
    sigaction(theSignal, &found, nullptr);
    hostInstalls(theSignal, otherHostHandler);
    {
        const Subscription third(theSignal, userInformationHandler);
        sigaction(theSignal, &found, nullptr);
        endAll();
    }
    EXPECT_EQ(systemHandler(theSignal), addressOf(hostHandler));
}

TEST_F(PutBack, AfterTheLastSubscriptionLeadsToTheDefaultAction) {
    const ChildEnd end = inChildWithoutCore([this] {
        isFoundBy(hostHandler, SIGTERM, 0);
        endAll();
        sigaction(SIGTERM, &found, nullptr);
        raise(SIGTERM);
    });
    EXPECT_TRUE(end.endedBySignalQ(SIGTERM)) << end;
}

TEST_F(PutBack, AfterTheLastSubscriptionLeadsToTheHandlerBefore) {
    hostInstalls(theSignal, hostHandler);
    isFoundBy(otherHostHandler, theSignal, 0);
    endAll();
    sigaction(theSignal, &found, nullptr);
    for (unsigned int arrival = 1; arrival <= 3; ++arrival) {
        raise(theSignal);
        EXPECT_EQ(callsOf(hostHandler), arrival);
    }
    EXPECT_EQ(callsOf(otherHostHandler), 0U);
    EXPECT_EQ(systemHandler(theSignal), addressOf(hostHandler));
}

// As a shell does with its handler for the end of a wait.
TEST_F(PutBack, InTurnsWithAnotherHandlerMeansTheOneBeforeEachTime) {
    struct sigaction before = {};
    before.sa_handler = hostHandler;
    sigaction(theSignal, &before, nullptr);
    isFoundBy(otherHostHandler, theSignal, 0);
    for (int turn = 0; turn < 3; ++turn) {
        putsBackTheFunction(theSignal);
        endAll();
        EXPECT_EQ(systemHandler(theSignal), addressOf(hostHandler)) << turn;
        isFoundBy(otherHostHandler, theSignal, 0);
    }
}

}  // namespace
