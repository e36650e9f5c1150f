// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What a subscription leaves behind: nothing, as far as it can.

#include <gtest/gtest.h>
#include <sorvane/svsignalsubscription.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/collision.h"
#include "support/failure.h"
#include "support/gate.h"
#include "support/joining_thread.h"
#include "support/kernel_actions.h"
#include "support/manager_fixture.h"
#include "support/sanitizers.h"
#include "support/system_call_filter.h"

namespace {

using Sorvane::SVIgnoredSignal;
using Subscription = Sorvane::SVSignalSubscription;

constexpr int theSignal = SIGUSR1;
const std::vector<int> noSignals;

class SubscriptionEnds : public ManagerTest {};

// As a host does that knows what it wants.
void hostInstallsWithMaskAndFlags(int signalNumber) {
    struct sigaction action = {};
    action.sa_sigaction = hostInformationHandler;
    action.sa_mask = setOf({SIGTERM, SIGRTMIN + 2});
    action.sa_flags = SA_SIGINFO | SA_NODEFER | SA_RESTART;
    sigaction(signalNumber, &action, nullptr);
}

void hostIgnoresWithMaskAndFlags(int signalNumber) {
    struct sigaction action = {};
    action.sa_handler = SIG_IGN;
    action.sa_mask = setOf({SIGTERM});
    action.sa_flags = SA_NOCLDSTOP | SA_RESTART;
    sigaction(signalNumber, &action, nullptr);
}

void hostHasTheDefaultWithFlags(int signalNumber) {
    struct sigaction action = {};
    action.sa_mask = setOf({SIGHUP});
    action.sa_flags = SA_NOCLDWAIT;
    sigaction(signalNumber, &action, nullptr);
}

void expectNoTrace(const KernelActions& before) {
    EXPECT_EQ(changedSince(before), noSignals);
    EXPECT_EQ(Manager::numberOfManagers, 0U);
    for (int signalNumber = 1; signalNumber <= Manager::maxSignalHandlerNumber; ++signalNumber) {
        EXPECT_EQ(recordCount(signalNumber), 0U) << signalNumber;
    }
}

// --- What the host had ---------------------------------------------------------------------------

TEST_F(SubscriptionEnds, WithTheHostsHandlerAsItWas) {
    hostInstallsWithMaskAndFlags(theSignal);
    const KernelActions before = kernelActions();
    { const Subscription subscription(theSignal, userHandler); }
    expectNoTrace(before);
}

// As run-time systems install their handlers that do without the C library.
TEST_F(SubscriptionEnds, WithTheHostsOwnWayBackFromItsHandler) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer has its own handlers installed";
    }
    constexpr unsigned long restorerFlag = 0x04000000;
    KernelAction own = {};
    own.handler = reinterpret_cast<std::uintptr_t>(addressOf(hostHandler));
    own.restorer = reinterpret_cast<std::uintptr_t>(addressOf(otherHostHandler));
    own.flags = restorerFlag | SA_RESTART;
    own.mask[1] = 1;
    syscall(SYS_rt_sigaction, theSignal, &own, nullptr, sizeof(own.mask));
    const KernelActions before = kernelActions();
    { const Subscription subscription(theSignal, userHandler); }
    expectNoTrace(before);
}

TEST_F(SubscriptionEnds, WithTheDefaultActionThatNobodyEverTouched) {
    const ChildEnd end = inChild([] {
        // The C library's function would leave a mark.
        const KernelAction untouched = {};
        syscall(SYS_rt_sigaction, theSignal, &untouched, nullptr, sizeof(untouched.mask));
        const KernelActions before = kernelActions();
        { const Subscription subscription(theSignal, userHandler); }
        expectNoTrace(before);
        EXPECT_EQ(Manager::handlerTableLock, nullptr);
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

TEST_F(SubscriptionEnds, WithTheDefaultActionsFlags) {
    hostHasTheDefaultWithFlags(SIGCHLD);
    const KernelActions before = kernelActions();
    { const Subscription subscription(SIGCHLD, userHandler); }
    expectNoTrace(before);
}

TEST_F(SubscriptionEnds, WithTheSignalIgnoredAsItWas) {
    hostIgnoresWithMaskAndFlags(theSignal);
    const KernelActions before = kernelActions();
    { const Subscription subscription(theSignal, userHandler, SVIgnoredSignal::takeOver); }
    expectNoTrace(before);
}

TEST_F(SubscriptionEnds, WithTheSignalIgnoredThatItLeftAlone) {
    hostIgnoresWithMaskAndFlags(theSignal);
    const KernelActions before = kernelActions();
    { const Subscription subscription(theSignal, userHandler); }
    expectNoTrace(before);
}

TEST_F(SubscriptionEnds, AsItFoundEverySignal) {
    std::array<std::function<void(int)>, 4> wishes = {hostInstallsWithMaskAndFlags,
                                                      hostIgnoresWithMaskAndFlags,
                                                      hostHasTheDefaultWithFlags, [](int) {}};
    for (const int signalNumber : ordinarySignals()) {
        wishes[static_cast<unsigned int>(signalNumber) % wishes.size()](signalNumber);
    }
    hostInstallsWithMaskAndFlags(SIGSEGV);
    hostIgnoresWithMaskAndFlags(SIGHUP);
    const KernelActions before = kernelActions();
    {
        std::vector<std::unique_ptr<Subscription>> all;
        for (int signalNumber = 1; signalNumber <= 60; ++signalNumber) {
            if (mayHandleQ(signalNumber)) {
                all.push_back(std::make_unique<Subscription>(signalNumber, userHandler,
                                                             SVIgnoredSignal::takeOver));
                EXPECT_TRUE(takenOverQ(signalNumber)) << signalNumber;
            }
        }
    }
    expectNoTrace(before);
}

TEST_F(SubscriptionEnds, AndTheHostsHandlerIsCalledByTheSystemAgain) {
    hostInstalls(theSignal, hostHandler);
    { const Subscription subscription(theSignal, userHandler); }
    raise(theSignal);
    EXPECT_EQ(callsOf(hostHandler), 1U);
    EXPECT_EQ(callsOf(userHandler), 0U);
    EXPECT_EQ(lastCall().managers, 0U) << "no dispatch has made one";
}

TEST_F(SubscriptionEnds, AndTheNextOneFindsTheHostAnew) {
    hostInstalls(theSignal, hostHandler);
    { const Subscription subscription(theSignal, userHandler); }
    hostInstalls(theSignal, otherHostHandler);
    const KernelActions before = kernelActions();
    {
        const Subscription subscription(theSignal, userHandler);
        raise(theSignal);
        EXPECT_EQ(callsOf(hostHandler), 0U);
        EXPECT_EQ(callsOf(otherHostHandler), 1U);
    }
    expectNoTrace(before);
}

TEST_F(SubscriptionEnds, WithWhatTheHostHadWhenItWasTakenOverLast) {
    hostIgnoresWithMaskAndFlags(theSignal);
    { const Subscription subscription(theSignal, userHandler, SVIgnoredSignal::takeOver); }
    signal(theSignal, SIG_DFL);
    const KernelActions before = kernelActions();
    { const Subscription subscription(theSignal, userHandler); }
    expectNoTrace(before);
}

// --- What the host installs meanwhile ------------------------------------------------------------

TEST_F(SubscriptionEnds, WithTheHandlerThatTheHostInstalledMeanwhile) {
    hostInstalls(theSignal, hostHandler);
    KernelActions meanwhile;
    {
        const Subscription subscription(theSignal, userHandler);
        hostInstallsWithMaskAndFlags(theSignal);
        meanwhile = kernelActions();
    }
    expectNoTrace(meanwhile);
    raise(theSignal);
    EXPECT_EQ(callsOf(hostHandler), 0U);
    EXPECT_EQ(callsOf(hostInformationHandler), 1U);
}

TEST_F(SubscriptionEnds, WithTheDefaultActionThatTheHostInstalledMeanwhile) {
    hostInstalls(theSignal, hostHandler);
    {
        const Subscription subscription(theSignal, userHandler);
        signal(theSignal, SIG_DFL);
    }
    EXPECT_TRUE(defaultInSystemQ(theSignal));
    EXPECT_EQ(recordCount(theSignal), 0U);
}

// A later one finds it, and takes the library's place back.
TEST_F(SubscriptionEnds, WithWhatTheHostInstalledBeforeALaterOneBegan) {
    for (const int flags : {0, static_cast<int>(SA_RESTART)}) {
        for (auto* const handler : {SIG_DFL, &otherHostHandler, &hostHandler}) {
            hostInstalls(theSignal, hostHandler, SA_RESTART | SA_NODEFER);
            KernelActions before;
            {
                const Subscription subscription(theSignal, userHandler);
                hostInstalls(theSignal, handler, flags);
                before = kernelActions();
                const Subscription later(theSignal, otherUserHandler);
                EXPECT_TRUE(takenOverQ(theSignal));
            }
            expectNoTrace(before);
        }
    }
}

TEST_F(SubscriptionEnds, WithTheSignalIgnoredThatTheHostIgnoredMeanwhileAndTheNextOneLeavesAlone) {
    { const Subscription subscription(theSignal, userHandler); }
    KernelActions before;
    {
        const Subscription subscription(theSignal, userHandler);
        hostInstalls(theSignal, SIG_IGN);
        before = kernelActions();
    }
    {
        const Subscription next(theSignal, userHandler);
        EXPECT_FALSE(next.activeQ());
    }
    expectNoTrace(before);
}

TEST_F(SubscriptionEnds, WithTheSignalIgnoredSinceALaterOneHasLeftItAlone) {
    KernelActions before;
    {
        const Subscription subscription(theSignal, userHandler);
        hostInstalls(theSignal, SIG_IGN);
        before = kernelActions();
        const Subscription later(theSignal, otherUserHandler);
        EXPECT_FALSE(takenOverQ(theSignal));
    }
    expectNoTrace(before);
}

TEST_F(SubscriptionEnds, AndWhatTheHostInstalledMeanwhileIsTakenOverByTheNextOne) {
    hostInstalls(theSignal, hostHandler);
    {
        const Subscription subscription(theSignal, userHandler);
        hostInstalls(theSignal, otherHostHandler);
    }
    const KernelActions before = kernelActions();
    {
        const Subscription subscription(theSignal, userHandler);
        raise(theSignal);
        EXPECT_EQ(callsOf(otherHostHandler), 1U);
        EXPECT_EQ(callsOf(hostHandler), 0U);
    }
    expectNoTrace(before);
}

// --- Whoever calls what it has displaced
// -----------------------------------------------------------

struct sigaction displaced;

void chainsWithAll(int signalNumber, siginfo* information, void* context) {
    noteCall(addressOf(chainsWithAll), signalNumber, information, context);
    displaced.sa_sigaction(signalNumber, information, context);
}

// As one that knows only the signal's number, with nothing left over beside that.
void chainsWithTheNumber(int signalNumber) {
    noteCall(addressOf(chainsWithTheNumber), signalNumber);
    displaced.sa_sigaction(signalNumber, nullptr, nullptr);
}

// The first delivery may look like one that was on its way when the subscription ended.
void expectTheChainToReachTheHost(void* chaining) {
    raise(theSignal);
    for (int times = 0; times < 3; ++times) {
        forgetCalls();
        raise(theSignal);
        EXPECT_EQ(callsOfAddress(chaining), 1U);
        EXPECT_EQ(callsOf(hostHandler), 1U);
        EXPECT_EQ(systemHandler(theSignal), chaining);
    }
    EXPECT_EQ(callsOf(userHandler), 0U);
}

TEST_F(SubscriptionEnds, AndAHandlerThatCallsTheLibraryByHandReachesTheHosts) {
    hostInstalls(theSignal, hostHandler);
    {
        const Subscription subscription(theSignal, userHandler);
        struct sigaction chaining = {};
        chaining.sa_sigaction = chainsWithAll;
        chaining.sa_flags = SA_SIGINFO;
        sigaction(theSignal, &chaining, &displaced);
    }
    expectTheChainToReachTheHost(addressOf(chainsWithAll));
}

TEST_F(SubscriptionEnds, AndAHandlerThatCallsTheLibraryByHandWithTheNumberAloneReachesTheHosts) {
    hostInstalls(theSignal, hostHandler);
    {
        const Subscription subscription(theSignal, userHandler);
        struct sigaction chaining = {};
        chaining.sa_handler = chainsWithTheNumber;
        sigaction(theSignal, &chaining, &displaced);
    }
    expectTheChainToReachTheHost(addressOf(chainsWithTheNumber));
}

// The library stood for another one that calls it by hand.
TEST_F(SubscriptionEnds, AndHandlersThatCallTheLibraryInTurnsEnd) {
    hostInstalls(theSignal, chainsWithTheNumber);
    displaced.sa_sigaction = &actualSignalHandler;
    {
        const Subscription subscription(theSignal, userHandler);
        struct sigaction chaining = {};
        chaining.sa_sigaction = chainsWithAll;
        chaining.sa_flags = SA_SIGINFO;
        sigaction(theSignal, &chaining, &displaced);
    }
    raise(theSignal);
    for (int times = 0; times < 3; ++times) {
        forgetCalls();
        raise(theSignal);
        EXPECT_EQ(callsOf(chainsWithAll), 1U);
        EXPECT_EQ(callsOf(chainsWithTheNumber), 1U);
        EXPECT_EQ(systemHandler(theSignal), addressOf(chainsWithAll));
    }
}

TEST_F(SubscriptionEnds, AndAHandlerThatHasItsPlaceBackAndCallsTheLibraryByHandIsCalledOnce) {
    {
        const Subscription subscription(theSignal, userHandler);
        struct sigaction chaining = {};
        chaining.sa_sigaction = chainsWithAll;
        chaining.sa_flags = SA_SIGINFO;
        sigaction(theSignal, &chaining, &displaced);
    }
    { const Subscription subscription(theSignal, userHandler); }
    raise(theSignal);
    for (int times = 0; times < 3; ++times) {
        forgetCalls();
        raise(theSignal);
        EXPECT_EQ(callsOf(chainsWithAll), 1U);
        EXPECT_EQ(systemHandler(theSignal), addressOf(chainsWithAll));
    }
}

TEST_F(SubscriptionEnds, AndAHandlerThatCallsTheLibraryByHandKeepsItsPlaceWhereNobodyHadOne) {
    {
        const Subscription subscription(theSignal, userHandler);
        struct sigaction chaining = {};
        chaining.sa_sigaction = chainsWithAll;
        chaining.sa_flags = SA_SIGINFO;
        sigaction(theSignal, &chaining, &displaced);
    }
    raise(theSignal);
    raise(theSignal);
    EXPECT_EQ(systemHandler(theSignal), addressOf(chainsWithAll));
}

// --- Behind a cleared slot -----------------------------------------------------------------------

// Of entries whose search begins at one slot, the second one's record lies behind the first one's.
TEST_F(SubscriptionEnds, AlsoBehindClearedSlots) {
    const KernelActions before = kernelActions();
    constexpr unsigned int many = 5;
    static char each[many];
    const auto handler = [](int, siginfo*, void*, void*) {};
    std::array<unsigned int, many> order = {0, 1, 2, 3, 4};
    do {
        std::array<std::unique_ptr<Subscription>, many> all;
        for (unsigned int i = 0; i < many; ++i) {
            all[i] = std::make_unique<Subscription>(theSignal, handler, &each[i]);
        }
        unsigned int left = many;
        for (const unsigned int i : order) {
            all[i].reset();
            --left;
            ASSERT_EQ(recordCount(theSignal), left);
        }
        ASSERT_EQ(changedSince(before), noSignals);
    } while (std::next_permutation(order.begin(), order.end()));
    expectNoTrace(before);
}

TEST_F(SubscriptionEnds, WithTheHostsHandlerThatLiesBehindAClearedSlot) {
    const Collision handlers = findCollision();
    hostInstalls(theSignal, handlers.last);
    const KernelActions before = kernelActions();
    {
        Manager manager(true);
        manager.setHandlerFromFunction(theSignal, handlers.first);
        manager.setHandlerFromFunction(theSignal, handlers.middle);
        const Subscription subscription(theSignal, userHandler);
        manager.clearHandlerWithFunction(theSignal, handlers.middle);
        ASSERT_EQ(recordOf(theSignal, handlers.last), nullptr) << "nobody finds it by its function";
        manager.clearHandlerWithFunction(theSignal, handlers.first);
        EXPECT_TRUE(takenOverQ(theSignal));
    }
    expectNoTrace(before);
}

// --- Others --------------------------------------------------------------------------------------

// --- Who comes after it
// ---------------------------------------------------------------------------

TEST_F(SubscriptionEnds, AndALaterStopLeavesTheSignalAlone) {
    hostInstalls(theSignal, hostHandler);
    { const Subscription subscription(theSignal, userHandler); }
    { const Subscription subscription(SIGUSR2, userHandler); }
    Manager manager(true);
    manager.setHandlerFromFunction(SIGTERM, userHandler);
    manager.startHandlingSignals();
    EXPECT_FALSE(takenOverQ(theSignal));
    manager.stopHandlingSignals();
    manager.stopHandlingSignal(SIGUSR2);
    EXPECT_EQ(systemHandler(theSignal), addressOf(hostHandler));
    EXPECT_TRUE(defaultInSystemQ(SIGUSR2));
    EXPECT_EQ(tableOf(theSignal), nullptr);
}

TEST_F(SubscriptionEnds, AfterAStartAndAStopAndALaterStopLeavesTheSignalAlone) {
    hostInstalls(theSignal, hostHandler);
    Manager manager(true);
    auto subscription = std::make_unique<Subscription>(theSignal, userHandler);
    manager.startHandlingSignals();
    manager.stopHandlingSignals();
    subscription.reset();
    manager.startHandlingSignals();
    manager.stopHandlingSignals();
    EXPECT_EQ(systemHandler(theSignal), addressOf(hostHandler));
}

TEST_F(SubscriptionEnds, AndWhatAManagerHasKeptOfTheHostStaysOnRecord) {
    hostInstalls(theSignal, hostHandler);
    Manager manager(true);
    manager.handleSignal(theSignal);
    { const Subscription subscription(theSignal, userHandler); }
    EXPECT_EQ(recordCount(theSignal), 1U);
    manager.stopHandlingSignal(theSignal);
    EXPECT_EQ(systemHandler(theSignal), addressOf(hostHandler));
}

TEST_F(SubscriptionEnds, AndWhatItHasKeptOfTheHostBesideAManagersTableGoes) {
    hostInstalls(theSignal, hostHandler);
    Manager manager(true);
    manager.setHandlerFromFunction(theSignal, otherUserHandler);
    manager.clearHandlerWithFunction(theSignal, otherUserHandler);
    { const Subscription subscription(theSignal, userHandler); }
    EXPECT_EQ(recordCount(theSignal), 0U);
    EXPECT_NE(tableOf(theSignal), nullptr);
    EXPECT_EQ(systemHandler(theSignal), addressOf(hostHandler));
}

TEST_F(SubscriptionEnds, AndLeavesNoClearedSlotInTheTableOfAManager) {
    Manager manager(true);
    for (int number = 0; number < 3; ++number) {
        auto subscription = std::make_unique<Subscription>(theSignal, userHandler);
        manager.setHandlerFromFunction(theSignal, otherUserHandler);
        subscription.reset();
        EXPECT_EQ(tableOf(theSignal)->used, 1U);
        EXPECT_EQ(tableOf(theSignal)->fill, 1U);
    }
}

TEST_F(SubscriptionEnds, AndTheNextOneForgetsTheHandlerThatTheHostHasReplaced) {
    hostInstalls(theSignal, hostHandler);
    const Subscription first(theSignal, userHandler);
    hostInstalls(theSignal, otherHostHandler);
    const Subscription second(theSignal, otherUserHandler);
    raise(theSignal);
    EXPECT_EQ(callsOf(hostHandler), 0U);
    EXPECT_EQ(callsOf(otherHostHandler), 1U);
    EXPECT_EQ(callsOf(userHandler), 1U);
}

TEST_F(SubscriptionEnds, AndItsRenewalForgetsTheHandlerThatTheHostHasReplaced) {
    hostInstalls(theSignal, hostHandler);
    Subscription subscription(theSignal, userHandler);
    hostInstalls(theSignal, otherHostHandler);
    EXPECT_TRUE(subscription.renew());
    raise(theSignal);
    EXPECT_EQ(callsOf(hostHandler), 0U);
    EXPECT_EQ(callsOf(otherHostHandler), 1U);
    EXPECT_EQ(callsOf(userHandler), 1U);
    Manager(true).stopHandlingSignal(theSignal);
    raise(theSignal);
    EXPECT_EQ(callsOf(hostHandler), 0U);
    EXPECT_EQ(callsOf(otherHostHandler), 2U);
}

struct sigaction chainedTo;

void chains(int signalNumber, siginfo* information, void* context) {
    noteCall(addressOf(chains), signalNumber, information, context);
    chainedTo.sa_sigaction(signalNumber, information, context);
}

TEST_F(SubscriptionEnds, AndAHandlerThatChainsReachesTheOneThatItHasReplaced) {
    hostInstalls(theSignal, hostHandler);
    const Subscription first(theSignal, userHandler);
    struct sigaction action = {};
    action.sa_sigaction = chains;
    action.sa_flags = SA_SIGINFO;
    sigaction(theSignal, &action, &chainedTo);
    const Subscription second(theSignal, otherUserHandler);
    for (unsigned int arrival = 1; arrival <= 3; ++arrival) {
        raise(theSignal);
        EXPECT_EQ(callsOf(chains), arrival);
        EXPECT_EQ(callsOf(hostHandler), arrival);
        EXPECT_EQ(callsOf(userHandler), arrival);
        EXPECT_EQ(callsOf(otherUserHandler), arrival);
    }
}

TEST_F(SubscriptionEnds, NotForTheOthers) {
    hostInstallsWithMaskAndFlags(theSignal);
    const KernelActions before = kernelActions();
    for (const unsigned int firstToGo : {0U, 1U}) {
        std::array<std::unique_ptr<Subscription>, 2> both = {
            std::make_unique<Subscription>(theSignal, userHandler),
            std::make_unique<Subscription>(theSignal, otherUserHandler)};
        both[firstToGo].reset();
        EXPECT_TRUE(takenOverQ(theSignal));
        forgetCalls();
        raise(theSignal);
        EXPECT_EQ(callsOf(userHandler), firstToGo == 0 ? 0U : 1U);
        EXPECT_EQ(callsOf(otherUserHandler), firstToGo == 1 ? 0U : 1U);
        EXPECT_EQ(callsOf(hostInformationHandler), 1U);
        both[1 - firstToGo].reset();
        expectNoTrace(before);
    }
}

TEST_F(SubscriptionEnds, NotForThoseWhoHaveRegistered) {
    hostInstalls(theSignal, hostHandler);
    Manager manager(true);
    manager.setHandlerFromFunction(theSignal, otherUserHandler);
    { const Subscription subscription(theSignal, userHandler); }
    EXPECT_TRUE(takenOverQ(theSignal));
    EXPECT_EQ(recordCount(theSignal), 2U);
    raise(theSignal);
    EXPECT_EQ(callsOf(otherUserHandler), 1U);
    EXPECT_EQ(callsOf(hostHandler), 1U);
}

// What a manager and two subscriptions may do, in every order in which each ends after it began.
TEST_F(SubscriptionEnds, InAnyOrderWithManagersAndOthers) {
    struct Guests {
        std::unique_ptr<Manager> manager;
        std::unique_ptr<Subscription> one;
        std::unique_ptr<Subscription> other;
    };
    using Step = void (*)(Guests&);
    const std::array<Step, 6> steps = {
        [](Guests& guests) {
            guests.manager = std::make_unique<Manager>(true);
            guests.manager->startHandlingSignals();
        },
        [](Guests& guests) { guests.manager.reset(); },
        [](Guests& guests) { guests.one = std::make_unique<Subscription>(theSignal, userHandler); },
        [](Guests& guests) { guests.one.reset(); },
        [](Guests& guests) {
            guests.other = std::make_unique<Subscription>(theSignal, otherUserHandler);
        },
        [](Guests& guests) { guests.other.reset(); }};
    const std::array<std::function<void(int)>, 3> wishes = {
        hostInstallsWithMaskAndFlags, hostHasTheDefaultWithFlags,
        [](int signalNumber) { signal(signalNumber, SIG_DFL); }};
    for (const auto& wish : wishes) {
        wish(theSignal);
        const KernelActions before = kernelActions();
        std::array<unsigned int, 6> order = {0, 1, 2, 3, 4, 5};
        do {
            const auto placeOf = [&order](unsigned int step) {
                return std::find(order.begin(), order.end(), step);
            };
            if (placeOf(0) > placeOf(1) || placeOf(2) > placeOf(3) || placeOf(4) > placeOf(5)) {
                continue;
            }
            Guests guests;
            for (const unsigned int step : order) {
                steps[step](guests);
                ASSERT_EQ(takenOverQ(theSignal), guests.one != nullptr || guests.other != nullptr);
            }
            expectNoTrace(before);
        } while (std::next_permutation(order.begin(), order.end()));
    }
}

TEST_F(SubscriptionEnds, AfterAManagerThatHadRegisteredAndClearedOnTheSignal) {
    const KernelActions before = kernelActions();
    {
        const Subscription subscription(theSignal, userHandler);
        Manager manager(true);
        manager.startHandlingSignals();
        manager.setHandlerFromFunction(theSignal, otherUserHandler);
        raise(theSignal);
        EXPECT_EQ(callsOf(otherUserHandler), 1U);
        manager.clearHandlerWithFunction(theSignal, otherUserHandler);
    }
    expectNoTrace(before);
}

// The host's handler is not kept by such a registration, but it is remembered.
TEST_F(SubscriptionEnds, WithTheHostsHandlerThatARegistrationHasReplaced) {
    hostInstallsWithMaskAndFlags(theSignal);
    const KernelActions before = kernelActions();
    {
        Manager manager(true);
        manager.startHandlingSignals();
        manager.setHandlerFromFunction(theSignal, otherUserHandler);
        const Subscription subscription(theSignal, userHandler);
        manager.clearHandlerWithFunction(theSignal, otherUserHandler);
    }
    expectNoTrace(before);
}

TEST_F(SubscriptionEnds, AlsoInTheNameOfTheHostAfterAStopAndAStart) {
    hostInstallsWithMaskAndFlags(theSignal);
    const KernelActions before = kernelActions();
    {
        Manager manager(true);
        manager.startHandlingSignals();
        const Subscription subscription(theSignal, userHandler);
        manager.stopHandlingSignals();
        EXPECT_EQ(changedSince(before), noSignals);
        manager.startHandlingSignals();
    }
    expectNoTrace(before);
}

TEST_F(SubscriptionEnds, WithNothingOnRecordAfterAStop) {
    hostInstallsWithMaskAndFlags(theSignal);
    const KernelActions before = kernelActions();
    {
        const Subscription subscription(theSignal, userHandler);
        Manager(true).stopHandlingSignal(theSignal);
    }
    expectNoTrace(before);
}

// --- In the middle of a dispatch -----------------------------------------------------------------

std::unique_ptr<Subscription> one;
std::unique_ptr<Subscription> other;

void endsBoth(int signalNumber) {
    noteCall(addressOf(endsBoth), signalNumber);
    one.reset();
    other.reset();
}

void endsBothForAnotherSignal(int signalNumber) {
    noteCall(addressOf(endsBothForAnotherSignal), signalNumber);
    other.reset();
    one.reset();
}

TEST_F(SubscriptionEnds, AlsoInAHandlerOfItsSignal) {
    hostInstallsWithMaskAndFlags(theSignal);
    const KernelActions before = kernelActions();
    one = std::make_unique<Subscription>(theSignal, endsBoth);
    other = std::make_unique<Subscription>(theSignal, userHandler);
    raise(theSignal);
    EXPECT_EQ(callsOf(endsBoth), 1U);
    EXPECT_EQ(callsOf(hostInformationHandler), 1U) << "it is the host's delivery, too";
    expectNoTrace(before);
    raise(theSignal);
    EXPECT_EQ(callsOf(endsBoth), 1U);
    EXPECT_EQ(callsOf(hostInformationHandler), 2U);
}

TEST_F(SubscriptionEnds, AlsoInAHandlerOfItsSignalThatNobodyHad) {
    const KernelActions before = kernelActions();
    one = std::make_unique<Subscription>(theSignal, endsBoth);
    raise(theSignal);
    EXPECT_EQ(callsOf(endsBoth), 1U);
    expectNoTrace(before);
}

TEST_F(SubscriptionEnds, AlsoInAHandlerOfAnotherSignal) {
    hostInstallsWithMaskAndFlags(theSignal);
    const KernelActions before = kernelActions();
    one = std::make_unique<Subscription>(SIGUSR2, endsBothForAnotherSignal);
    other = std::make_unique<Subscription>(theSignal, userHandler);
    raise(SIGUSR2);
    expectNoTrace(before);
    raise(theSignal);
    EXPECT_EQ(callsOf(userHandler), 0U);
    EXPECT_EQ(callsOf(hostInformationHandler), 1U);
}

// --- In the middle of a dispatch on another thread -----------------------------------------------

Gate inside;
Gate goOn;

void waitsInside(int signalNumber) {
    noteCall(addressOf(waitsInside), signalNumber);
    inside.open();
    goOn.pass();
}

// Wherever the host's record stands, before or behind that of the handler that is running.
TEST_F(SubscriptionEnds, AndADispatchUnderWayCallsTheHostsHandlerOnceAndTheEndedOneNot) {
    JoiningThread([] {}).join();
    for (const SimpleHandler hosts : numberedHandlers) {
        hostInstalls(theSignal, hosts);
        const KernelActions before = kernelActions();
        forgetCalls();
        auto waiting = std::make_unique<Subscription>(theSignal, waitsInside);
        auto ended = std::make_unique<Subscription>(theSignal, userHandler);
        JoiningThread thread([] { raise(theSignal); });
        inside.pass();
        const std::size_t calledBefore = callsOf(userHandler);
        ended.reset();
        JoiningThread ender([&waiting] { waiting.reset(); });
        while (takenOverQ(theSignal)) {
            std::this_thread::yield();
        }
        goOn.open();
        thread.join();
        ender.join();
        EXPECT_EQ(callsOf(hosts), 1U);
        EXPECT_EQ(callsOf(userHandler), calledBefore) << "an ended one was called";
        ASSERT_EQ(changedSince(before), noSignals);
    }
}

// --- Failures ------------------------------------------------------------------------------------

TEST_F(SubscriptionEnds, AndThrowsNothingIfTheHostsActionCannotBePutBack) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer tells what it has been asked to install";
    }
    SKIP_WITHOUT_SYSTEM_CALL_FILTERS();
    const ChildEnd end = inChild([] {
        hostInstalls(theSignal, hostHandler);
        {
            const Subscription subscription(theSignal, userHandler);
            ASSERT_TRUE(refuseInstallation(theSignal, EPERM));
        }
        EXPECT_TRUE(takenOverQ(theSignal));
        EXPECT_NE(recordOf(theSignal, hostHandler), nullptr);
        EXPECT_EQ(recordCount(theSignal), 1U);
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

TEST_F(SubscriptionEnds, AndThrowsNothingIfItsManagerIsTheLastAndFails) {
    SKIP_WITHOUT_SYSTEM_CALL_FILTERS();
    const ChildEnd end = inChild([] {
        hostInstalls(SIGUSR2, hostHandler);
        Subscription* const subscription = new Subscription(theSignal, userHandler);
        {
            Manager manager(true);
            manager.setHandlerFromFunction(SIGUSR2, userHandler);
            manager.startHandlingSignals();
        }
        ASSERT_TRUE(refuseInstallation(SIGUSR2, EPERM));
        delete subscription;
        EXPECT_TRUE(defaultInSystemQ(theSignal));
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

}  // namespace
