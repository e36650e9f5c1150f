// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// How a subscription begins, whom it calls, and what it refuses.

#include <gtest/gtest.h>
#include <sorvane/svsignalsubscription.h>

#include <csignal>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "support/failure.h"
#include "support/joining_thread.h"
#include "support/kernel_actions.h"
#include "support/manager_fixture.h"
#include "support/system_call_filter.h"

namespace {

using Sorvane::SVIgnoredSignal;
using Subscription = Sorvane::SVSignalSubscription;

constexpr int theSignal = SIGUSR1;
const std::vector<int> noSignals;

static_assert(std::is_base_of_v<Sorvane::SVObject, Subscription>);
static_assert(!std::is_copy_constructible_v<Subscription> &&
              !std::is_copy_assignable_v<Subscription>);
static_assert(std::is_nothrow_destructible_v<Subscription>);

class SubscriptionBegins : public ManagerTest {};
class SubscriptionRefuses : public ManagerTest {};
class SubscriptionAndStop : public ManagerTest {};

void expectRefusal(const Failure& failure, const char* message, unsigned int line, int type) {
    ASSERT_TRUE(failure.has_value()) << "nothing was thrown";
    EXPECT_STREQ(failure->getMessage(), message);
    EXPECT_STREQ(failure->getFile(), "libsrc/utilities/svsignalsubscription");
    EXPECT_EQ(failure->getLine(), line);
    EXPECT_EQ(failure->getType(), static_cast<Sorvane::svexceptiontype>(type));
    EXPECT_EQ(failure->getCode(), 0);
}

void expectNoHandler(const Failure& failure) {
    expectRefusal(failure, "There is no handler.", 41, 24);
}
void expectForbidden(const Failure& failure) {
    expectRefusal(failure, "The signal can't be handled, or its disposition forbids it.", 58, 24);
}
void expectHadAlready(const Failure& failure) {
    expectRefusal(failure, "The handler has the signal already.", 73, 24);
}
void expectNoEntry(const Failure& failure) {
    expectRefusal(failure, "No entry function is left.", 96, 5);
}

void* lastUser = nullptr;

void handlerWithUser(int signalNumber, siginfo* information, void* context, void* user) {
    lastUser = user;
    noteCall(addressOf(handlerWithUser), signalNumber, information, context);
}

// --- Beginning -----------------------------------------------------------------------------------

TEST_F(SubscriptionBegins, WithoutAStart) {
    const Subscription subscription(theSignal, userHandler);
    EXPECT_TRUE(subscription.activeQ());
    EXPECT_TRUE(takenOverQ(theSignal));
    EXPECT_FALSE(Manager::currentlyHandlingSignals);
    raise(theSignal);
    EXPECT_EQ(callsOf(userHandler), 1U);
}

TEST_F(SubscriptionBegins, AndCountsAsOneManager) {
    {
        const Subscription subscription(theSignal, userHandler);
        EXPECT_EQ(Manager::numberOfManagers, 1U);
        EXPECT_NE(Manager::handlerTableLock, nullptr);
        EXPECT_TRUE(lockIsFree());
    }
    EXPECT_EQ(Manager::numberOfManagers, 0U);
    EXPECT_EQ(Manager::handlerTableLock, nullptr);
}

TEST_F(SubscriptionBegins, BesideTheHostsHandler) {
    hostInstalls(theSignal, hostHandler);
    const Subscription subscription(theSignal, userHandler);
    ASSERT_NE(recordOf(theSignal, hostHandler), nullptr);
    EXPECT_TRUE(recordOf(theSignal, hostHandler)->preExistsQ());
    raise(theSignal);
    EXPECT_EQ(callsOf(hostHandler), 1U);
    EXPECT_EQ(callsOf(userHandler), 1U);
}

TEST_F(SubscriptionBegins, BesideWhatIsRegistered) {
    Manager manager(true);
    manager.setHandlerFromFunction(theSignal, otherUserHandler);
    manager.startHandlingSignals();
    const Subscription subscription(theSignal, userHandler);
    raise(theSignal);
    EXPECT_EQ(callsOf(otherUserHandler), 1U);
    EXPECT_EQ(callsOf(userHandler), 1U);
}

TEST_F(SubscriptionBegins, NotIfTheHostIgnoresTheSignal) {
    hostInstalls(theSignal, SIG_IGN);
    const KernelActions before = kernelActions();
    const Subscription subscription(theSignal, userHandler);
    EXPECT_FALSE(subscription.activeQ());
    EXPECT_EQ(changedSince(before), noSignals);
    EXPECT_EQ(recordCount(theSignal), 0U);
    raise(theSignal);
    EXPECT_EQ(callCount(), 0U);
}

TEST_F(SubscriptionBegins, IfTheHostIgnoresTheSignalAndTheUserWantsItAllTheSame) {
    hostInstalls(theSignal, SIG_IGN);
    const Subscription subscription(theSignal, userHandler, SVIgnoredSignal::takeOver);
    EXPECT_TRUE(subscription.activeQ());
    raise(theSignal);
    EXPECT_EQ(callsOf(userHandler), 1U);
}

TEST_F(SubscriptionBegins, NotIfTheHostIgnoredTheSignalThatAnotherOneHas) {
    hostInstalls(theSignal, SIG_IGN);
    const Subscription first(theSignal, userHandler, SVIgnoredSignal::takeOver);
    const Subscription second(theSignal, otherUserHandler);
    EXPECT_FALSE(second.activeQ());
    raise(theSignal);
    EXPECT_EQ(callsOf(userHandler), 1U);
    EXPECT_EQ(callsOf(otherUserHandler), 0U);
}

TEST_F(SubscriptionBegins, NotIfTheHostIgnoredTheSignalThatAManagerHas) {
    hostInstalls(theSignal, SIG_IGN);
    Manager manager(true);
    manager.startHandlingSignals();
    manager.setHandlerFromFunction(theSignal, otherUserHandler);
    const Subscription subscription(theSignal, userHandler);
    EXPECT_FALSE(subscription.activeQ());
}

TEST_F(SubscriptionBegins, AgainIfTheHostDoesNotIgnoreTheSignalAnyMore) {
    hostInstalls(theSignal, SIG_IGN);
    Subscription subscription(theSignal, userHandler);
    EXPECT_FALSE(subscription.renew());
    hostInstalls(theSignal, hostHandler);
    EXPECT_TRUE(subscription.renew());
    raise(theSignal);
    EXPECT_EQ(callsOf(hostHandler), 1U);
    EXPECT_EQ(callsOf(userHandler), 1U);
}

TEST_F(SubscriptionBegins, ForTheFormWithTheNumberAlone) {
    const Subscription subscription(theSignal, userHandler);
    raise(theSignal);
    ASSERT_EQ(callCount(), 1U);
    EXPECT_EQ(lastCall().signalNumber, theSignal);
}

TEST_F(SubscriptionBegins, ForTheFormWithInformationAndContext) {
    const Subscription subscription(theSignal, userInformationHandler);
    siginfo information = {};
    information.si_signo = theSignal;
    int context = 0;
    Manager(false).callHandlers(theSignal, &information, &context);
    ASSERT_EQ(callCount(), 1U);
    EXPECT_EQ(lastCall().signalNumber, theSignal);
    EXPECT_EQ(lastCall().information, &information);
    EXPECT_EQ(lastCall().context, &context);
    raise(theSignal);
    EXPECT_EQ(lastCall().informationCopy.si_code, SI_TKILL);
}

TEST_F(SubscriptionBegins, ForTheFormWithAUsersPointer) {
    int user = 0;
    const Subscription subscription(theSignal, handlerWithUser, &user);
    siginfo information = {};
    int context = 0;
    Manager(false).callHandlers(theSignal, &information, &context);
    ASSERT_EQ(callCount(), 1U);
    EXPECT_EQ(lastCall().signalNumber, theSignal);
    EXPECT_EQ(lastCall().information, &information);
    EXPECT_EQ(lastCall().context, &context);
    EXPECT_EQ(lastUser, &user);
}

std::vector<void*> users;

void collectUser(int, siginfo*, void*, void* user) {
    users.push_back(user);
}

TEST_F(SubscriptionBegins, ForEachUserOfAHandler) {
    users.reserve(2);
    int first = 0;
    int second = 0;
    const Subscription one(theSignal, collectUser, &first);
    const Subscription other(theSignal, collectUser, &second);
    raise(theSignal);
    ASSERT_EQ(users.size(), 2U);
    EXPECT_TRUE((users[0] == &first && users[1] == &second) ||
                (users[0] == &second && users[1] == &first));
}

TEST_F(SubscriptionBegins, ForEachSignalOfAHandler) {
    const Subscription one(SIGUSR1, userHandler);
    const Subscription other(SIGUSR2, userHandler);
    raise(SIGUSR1);
    raise(SIGUSR2);
    EXPECT_EQ(callsOf(userHandler), 2U);
    EXPECT_EQ(callAt(0).signalNumber, SIGUSR1);
    EXPECT_EQ(callAt(1).signalNumber, SIGUSR2);
}

TEST_F(SubscriptionBegins, ForEveryOrdinarySignal) {
    for (const int signalNumber : ordinarySignals()) {
        const Subscription subscription(signalNumber, userHandler, SVIgnoredSignal::takeOver);
        forgetCalls();
        raise(signalNumber);
        EXPECT_EQ(callsOf(userHandler), 1U) << signalNumber;
    }
}

TEST_F(SubscriptionBegins, AndIsShownByTheDump) {
    const Subscription subscription(theSignal, userHandler);
    std::ostringstream stream;
    stream << Manager(true);
    const std::string text = stream.str();
    EXPECT_NE(text.find("<numberOfManagers>2</numberOfManagers>"), std::string::npos) << text;
    EXPECT_NE(text.find("<signalName>SIGUSR1</signalName><arguments>3</arguments>"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("<preExists>0</preExists><external>0</external><valid>1</valid>"),
              std::string::npos)
        << text;
}

TEST_F(SubscriptionBegins, OnAnyThread) {
    std::unique_ptr<Subscription> subscription;
    JoiningThread([&] {
        subscription = std::make_unique<Subscription>(theSignal, userHandler);
    }).join();
    raise(theSignal);
    EXPECT_EQ(callsOf(userHandler), 1U);
    JoiningThread([&] { subscription.reset(); }).join();
    EXPECT_TRUE(defaultInSystemQ(theSignal));
}

// --- Refusals ------------------------------------------------------------------------------------

TEST_F(SubscriptionRefuses, SignalsThatDoNotExist) {
    for (const int signalNumber : {-1, 0, 61, 64, 65, 1000}) {
        expectForbidden(failureOf([=] { Subscription(signalNumber, userHandler); }));
    }
    EXPECT_EQ(Manager::numberOfManagers, 0U);
}

TEST_F(SubscriptionRefuses, SignalsThatNobodyMayHandle) {
    for (const int signalNumber : {SIGKILL, SIGSTOP, 32, 33}) {
        expectForbidden(failureOf([=] { Subscription(signalNumber, userHandler); }));
    }
}

TEST_F(SubscriptionRefuses, ASignalThatItsDispositionForbids) {
    Manager manager(true);
    manager.setSignalDisposition(theSignal, false);
    expectForbidden(failureOf([] { Subscription(theSignal, userHandler); }));
    EXPECT_TRUE(defaultInSystemQ(theSignal));
    EXPECT_EQ(recordCount(theSignal), 0U);
}

TEST_F(SubscriptionRefuses, ASignalForWhichTheSystemInstallsNothing) {
    Manager manager(true);
    manager.setSignalDisposition(SIGKILL, true);
    expectSigactionFailure(failureOf([] { Subscription(SIGKILL, userHandler); }), EINVAL);
    EXPECT_EQ(recordCount(SIGKILL), 0U);
    EXPECT_EQ(Manager::numberOfManagers, 1U);
}

TEST_F(SubscriptionRefuses, NoHandler) {
    expectNoHandler(
        failureOf([] { Subscription(theSignal, static_cast<void (*)(int)>(nullptr)); }));
    expectNoHandler(failureOf(
        [] { Subscription(theSignal, static_cast<void (*)(int, siginfo*, void*)>(nullptr)); }));
    expectNoHandler(failureOf([] {
        Subscription(theSignal, static_cast<void (*)(int, siginfo*, void*, void*)>(nullptr),
                     nullptr);
    }));
    expectNoHandler(failureOf([] { Subscription(theSignal, SIG_IGN); }));
    EXPECT_TRUE(defaultInSystemQ(theSignal));
}

TEST_F(SubscriptionRefuses, AFunctionThatIsSubscribed) {
    const Subscription subscription(theSignal, userHandler);
    expectHadAlready(failureOf([] { Subscription(theSignal, userHandler); }));
    raise(theSignal);
    EXPECT_EQ(callsOf(userHandler), 1U);
    EXPECT_EQ(recordCount(theSignal), 1U);
}

TEST_F(SubscriptionRefuses, AFunctionAndUserThatAreSubscribed) {
    int user = 0;
    const Subscription subscription(theSignal, handlerWithUser, &user);
    expectHadAlready(failureOf([&] { Subscription(theSignal, handlerWithUser, &user); }));
    EXPECT_EQ(recordCount(theSignal), 1U);
}

TEST_F(SubscriptionRefuses, AFunctionThatIsRegistered) {
    Manager manager(true);
    manager.setHandlerFromFunction(theSignal, userHandler);
    expectHadAlready(failureOf([] { Subscription(theSignal, userHandler); }));
    EXPECT_EQ(recordCount(theSignal), 1U);
    EXPECT_TRUE(defaultInSystemQ(theSignal));
}

TEST_F(SubscriptionRefuses, TheHostsFunction) {
    hostInstalls(theSignal, hostHandler);
    expectHadAlready(failureOf([] { Subscription(theSignal, hostHandler); }));
    const Subscription subscription(theSignal, userHandler);
    expectHadAlready(failureOf([] { Subscription(theSignal, hostHandler); }));
}

TEST_F(SubscriptionRefuses, NothingThatHasEnded) {
    for (int times = 0; times < 3; ++times) {
        const Subscription subscription(theSignal, userHandler);
        forgetCalls();
        raise(theSignal);
        EXPECT_EQ(callsOf(userHandler), 1U);
    }
}

TEST_F(SubscriptionRefuses, MoreThanThereAreEntries) {
    constexpr unsigned int most = 256;
    static char each[most];
    std::vector<std::unique_ptr<Subscription>> all;
    for (char& user : each) {
        all.push_back(std::make_unique<Subscription>(theSignal, handlerWithUser, &user));
    }
    raise(theSignal);
    EXPECT_EQ(callsOf(handlerWithUser), most);
    expectNoEntry(failureOf([] { Subscription(theSignal, userHandler); }));
    expectNoEntry(failureOf([] { Subscription(SIGUSR2, userHandler); }));
    EXPECT_TRUE(defaultInSystemQ(SIGUSR2));
    all.pop_back();
    EXPECT_NO_THROW(Subscription(SIGUSR2, userHandler));
    all.clear();
    EXPECT_TRUE(defaultInSystemQ(theSignal));
}

TEST_F(SubscriptionRefuses, NothingAfterItHasFailedMoreOftenThanThereAreEntries) {
    Manager manager(true);
    manager.setSignalDisposition(SIGKILL, true);
    for (int times = 0; times < 300; ++times) {
        expectSigactionFailure(failureOf([] { Subscription(SIGKILL, userHandler); }), EINVAL);
    }
    EXPECT_NO_THROW(Subscription(theSignal, userHandler));
}

// --- Somebody else's stop ------------------------------------------------------------------------

TEST_F(SubscriptionAndStop, IsNotActiveAfterIt) {
    hostInstalls(theSignal, hostHandler);
    const Subscription subscription(theSignal, userHandler);
    Manager(true).stopHandlingSignal(theSignal);
    EXPECT_FALSE(subscription.activeQ());
    raise(theSignal);
    EXPECT_EQ(callsOf(hostHandler), 1U);
    EXPECT_EQ(callsOf(userHandler), 0U);
}

TEST_F(SubscriptionAndStop, IsActiveAfterItsRenewal) {
    hostInstalls(theSignal, hostHandler);
    const KernelActions before = kernelActions();
    {
        Subscription subscription(theSignal, userHandler);
        Manager(true).stopHandlingSignal(theSignal);
        EXPECT_TRUE(subscription.renew());
        EXPECT_TRUE(subscription.activeQ());
        raise(theSignal);
        EXPECT_EQ(callsOf(hostHandler), 1U);
        EXPECT_EQ(callsOf(userHandler), 1U);
        EXPECT_EQ(recordCount(theSignal), 2U);
    }
    EXPECT_EQ(changedSince(before), noSignals);
}

TEST_F(SubscriptionAndStop, OfASignalThatNobodyHadRenewsItAllTheSame) {
    const KernelActions before = kernelActions();
    {
        Subscription subscription(theSignal, userHandler);
        Manager(true).stopHandlingSignal(theSignal);
        EXPECT_TRUE(ignoredInSystemQ(theSignal));
        EXPECT_TRUE(subscription.renew());
        raise(theSignal);
        EXPECT_EQ(callsOf(userHandler), 1U);
    }
    EXPECT_EQ(changedSince(before), noSignals) << "it is the library that has left it ignored";
}

TEST_F(SubscriptionAndStop, LeavesAnIgnoredSignalIfTheEndComesFirst) {
    {
        const Subscription subscription(theSignal, userHandler);
        Manager(true).stopHandlingSignal(theSignal);
    }
    EXPECT_TRUE(ignoredInSystemQ(theSignal));
    EXPECT_EQ(recordCount(theSignal), 0U);
}

TEST_F(SubscriptionAndStop, DoesNotRenewWhatTheHostIgnores) {
    Subscription subscription(theSignal, userHandler);
    Manager(true).stopHandlingSignal(theSignal);
    hostInstalls(theSignal, SIG_IGN);
    EXPECT_FALSE(subscription.renew());
    EXPECT_TRUE(ignoredInSystemQ(theSignal));
}

TEST_F(SubscriptionAndStop, DoesNotRenewWhatTheHostIgnoredBefore) {
    hostInstalls(theSignal, SIG_IGN);
    Subscription having(theSignal, userHandler, SVIgnoredSignal::takeOver);
    Subscription other(theSignal, otherUserHandler);
    Manager(true).stopHandlingSignal(theSignal);
    EXPECT_FALSE(other.renew());
    EXPECT_TRUE(ignoredInSystemQ(theSignal));
    EXPECT_TRUE(having.renew());
    EXPECT_TRUE(takenOverQ(theSignal));
}

TEST_F(SubscriptionAndStop, OfAllSignalsIsUndoneByAStartOfAll) {
    Manager manager(true);
    manager.startHandlingSignals();
    const Subscription subscription(theSignal, userHandler);
    manager.stopHandlingSignals();
    EXPECT_FALSE(subscription.activeQ());
    manager.startHandlingSignals();
    EXPECT_TRUE(subscription.activeQ());
    raise(theSignal);
    EXPECT_EQ(callsOf(userHandler), 1U);
}

TEST_F(SubscriptionAndStop, OfAForbiddenSignalFailsToRenew) {
    Subscription subscription(theSignal, userHandler);
    Manager manager(true);
    manager.stopHandlingSignal(theSignal);
    manager.setSignalDisposition(theSignal, false);
    expectForbidden(failureOf([&] { subscription.renew(); }));
    manager.setSignalDisposition(theSignal, true);
    EXPECT_TRUE(subscription.renew());
}

TEST_F(SubscriptionAndStop, DoesNotRenewWhatHasBeenRegisteredMeanwhile) {
    Subscription subscription(theSignal, userHandler);
    Manager manager(true);
    manager.stopHandlingSignal(theSignal);
    manager.setHandlerFromFunction(theSignal, userHandler);
    expectHadAlready(failureOf([&] { subscription.renew(); }));
}

TEST_F(SubscriptionAndStop, RenewsOfWhatIsActiveNothing) {
    Subscription subscription(theSignal, userHandler);
    EXPECT_TRUE(subscription.renew());
    EXPECT_EQ(recordCount(theSignal), 1U);
    raise(theSignal);
    EXPECT_EQ(callsOf(userHandler), 1U);
}

}  // namespace
