// Whose a signal is, as it changes hands: what becomes of a handler that is displaced too late.

#include <../utilities/svownership.h>
#include <../utilities/svregistry.h>
#include <gtest/gtest.h>

#include <functional>

#include "support/failure.h"
#include "support/fresh_process.h"
#include "support/manager_fixture.h"
#include "support/overtaking.h"

namespace {

namespace SVOwnership = Sorvane::SVOwnership;
namespace SVRegistry = Sorvane::SVRegistry;
using SVOwnership::Count;

constexpr int noSignals[] = {-1, 0, lastSystemSignal + 1, 1000};

Count countNow() {
    return SVOwnership::count(SIGUSR1);
}

bool hostsNowQ() {
    return SVOwnership::hostsQ(countNow());
}

void giveToHost() {
    ASSERT_TRUE(SVOwnership::giveToHost(SIGUSR1, countNow()));
}

void takeFromHost() {
    SVOwnership::takeFromHost(SIGUSR1);
}

class Ownership : public OneManagerTest {
protected:
    ~Ownership() noexcept override = default;

    void SetUp() override { takeFromHost(); }

    void install(void (*handler)(int)) {
        Record record = hostRecord(SIGUSR1, handler);
        m_manager.installHandlerInSystem(record);
    }
    void installOwn() {
        Record own = m_manager.theSVHandler(SIGUSR1);
        m_manager.installHandlerInSystem(own);
    }
    void settle(const Record& displaced, Count seen) {
        SVOwnership::settle(m_manager, displaced, seen);
    }

    const Record m_hosts = hostRecord(SIGUSR1, hostHandler);
};

// --- Changing hands ------------------------------------------------------------------------------

TEST_F(Ownership, OfWhatIsNoSignalIsAlwaysTheSame) {
    for (const int number : noSignals) {
        EXPECT_TRUE(SVOwnership::giveToHost(number, SVOwnership::count(number))) << number;
        EXPECT_FALSE(SVOwnership::hostsQ(SVOwnership::count(number))) << number;
        SVOwnership::takeFromHost(number);
        EXPECT_EQ(SVOwnership::count(number), 0U) << number;
    }
}

TEST_F(Ownership, GoesToTheHostUnlessItHasChangedHandsMeanwhile) {
    const Count seen = countNow();
    giveToHost();
    EXPECT_TRUE(hostsNowQ());
    EXPECT_TRUE(SVOwnership::giveToHost(SIGUSR1, seen)) << "it is the host's";
    takeFromHost();
    EXPECT_FALSE(SVOwnership::giveToHost(SIGUSR1, seen));
    EXPECT_FALSE(hostsNowQ());
}

TEST_F(Ownership, IsTakenFromTheHostOnceByTwoWhoDoItAtOnce) {
    SKIP_WITHOUT_STEPS();
    Count before = 0;
    overtakeAtEachInstruction({.prepare =
                                   [&before] {
                                       giveToHost();
                                       before = countNow();
                                   },
                               .operation = takeFromHost,
                               .act = takeFromHost,
                               .expect = [&before] { EXPECT_EQ(countNow(), before + 1); }});
}

TEST_F(Ownership, IsTheLibrarysForADispatchUntilTheTeardownThatGaveItBackIsOver) {
    namespace SVLifecycle = Sorvane::SVLifecycle;
    const Count before = countNow();
    SVLifecycle::setHandling(true);
    const SVLifecycle::Teardown teardown = SVLifecycle::managerGone();
    EXPECT_EQ(SVOwnership::countAtArrival(SIGUSR1), before);
    giveToHost();
    EXPECT_EQ(SVOwnership::countAtArrival(SIGUSR1), before);
    SVLifecycle::teardownComplete(teardown);
    EXPECT_EQ(SVOwnership::countAtArrival(SIGUSR1), before + 1);
    SVLifecycle::managerMade();
}

TEST_F(Ownership, StaysTheLibrarysUnlessItChangesHandsOrATeardownGoesOn) {
    namespace SVLifecycle = Sorvane::SVLifecycle;
    const Count seen = countNow();
    SVLifecycle::setHandling(true);
    const SVLifecycle::Teardown teardown = SVLifecycle::managerGone();
    EXPECT_FALSE(SVOwnership::staysOursQ(SIGUSR1, seen));
    SVLifecycle::teardownComplete(teardown);
    SVLifecycle::managerMade();
    EXPECT_TRUE(SVOwnership::staysOursQ(SIGUSR1, seen));
    giveToHost();
    EXPECT_FALSE(SVOwnership::staysOursQ(SIGUSR1, seen));
    EXPECT_FALSE(SVOwnership::staysOursQ(SIGUSR1, countNow()));
    takeFromHost();
    EXPECT_FALSE(SVOwnership::staysOursQ(SIGUSR1, seen));
}

TEST_F(Ownership, OfTheHostSendsASignalOnOnceEachTimeThatItIsGivenBack) {
    const BlockedSignals asWhenItArrives{SIGUSR1};
    EXPECT_FALSE(SVOwnership::belongsElsewhereQ(SIGUSR1, countNow(), false));
    for (const bool recordsQ : {false, true}) {
        giveToHost();
        EXPECT_TRUE(SVOwnership::belongsElsewhereQ(SIGUSR1, countNow(), recordsQ));
        EXPECT_FALSE(SVOwnership::belongsElsewhereQ(SIGUSR1, countNow(), recordsQ));
        takeFromHost();
    }
}

TEST_F(Ownership, OfTheHostSendsNothingOnThatHasNotArrived) {
    giveToHost();
    EXPECT_FALSE(SVOwnership::belongsElsewhereQ(SIGUSR1, countNow(), false));
}

TEST_F(Ownership, OfTheHostSendsNothingOnForWhichThereAreTheRecordsOfTheTeardown) {
    namespace SVLifecycle = Sorvane::SVLifecycle;
    const BlockedSignals asWhenItArrives{SIGUSR1};
    SVLifecycle::setHandling(true);
    const SVLifecycle::Teardown teardown = SVLifecycle::managerGone();
    giveToHost();
    EXPECT_FALSE(SVOwnership::belongsElsewhereQ(SIGUSR1, countNow(), true));
    EXPECT_TRUE(SVOwnership::belongsElsewhereQ(SIGUSR1, countNow(), false));
    SVLifecycle::teardownComplete(teardown);
    SVLifecycle::managerMade();
}

TEST_F(Ownership, ThatHasChangedTwiceSendsOnWhatHasArrivedBefore) {
    const Count seen = countNow();
    giveToHost();
    takeFromHost();
    const BlockedSignals asWhenItArrives{SIGUSR1};
    EXPECT_TRUE(SVOwnership::belongsElsewhereQ(SIGUSR1, seen, false));
}

// --- Registrations -------------------------------------------------------------------------------

TEST_F(Ownership, RegistrationsAreCountedForEachSignalAndForNothingElse) {
    const SVOwnership::Registrations before;
    for (const int number : noSignals) {
        SVOwnership::Registrations::add(number);
    }
    SVOwnership::Registrations::add(SIGUSR1);
    for (int signalNumber = 1; signalNumber <= lastSystemSignal; ++signalNumber) {
        EXPECT_EQ(before.changedQ(signalNumber), signalNumber == SIGUSR1) << signalNumber;
    }
}

TEST_F(Ownership, GoesToTheLibraryWithARegistrationWhileSignalsAreHandled) {
    giveToHost();
    m_manager.startHandlingSignals();
    EXPECT_TRUE(hostsNowQ());
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    EXPECT_FALSE(hostsNowQ());
}

// --- What was displaced --------------------------------------------------------------------------

TEST_F(Ownership, LeavesItAtThatWhenTheSignalHasStayedTheLibrarys) {
    settle(m_hosts, countNow());
    EXPECT_EQ(recordCount(SIGUSR1), 0U);
    EXPECT_TRUE(defaultInSystemQ(SIGUSR1));
}

TEST_F(Ownership, PutsOnRecordWhatWasDisplacedWhenTheSignalWasGivenBackAndTakenOverAnew) {
    const Count seen = countNow();
    giveToHost();
    takeFromHost();
    for (const Record& nobodys : {m_manager.theSVHandler(SIGUSR1), m_manager.ignoreHandler(SIGUSR1),
                                  m_manager.defaultHandler(SIGUSR1)}) {
        settle(nobodys, seen);
        EXPECT_EQ(recordCount(SIGUSR1), 0U);
    }
    settle(m_hosts, seen);
    EXPECT_NE(recordOf(SIGUSR1, hostHandler), nullptr);
}

TEST_F(Ownership, GoesToTheLibraryThatIsCalledForASignalOfTheHost) {
    install(hostHandler);
    giveToHost();
    SVOwnership::installAfterDispatch(m_manager, SIGUSR1, countNow());
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    EXPECT_FALSE(hostsNowQ());
}

TEST_F(Ownership, GoesToTheLibraryWithADispatchByHandOfASignalOfTheHost) {
    install(hostHandler);
    giveToHost();
    actualSignalHandler(SIGUSR1, nullptr, nullptr);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    EXPECT_FALSE(hostsNowQ());
}

TEST_F(Ownership, OfTheHostIsLeftToItByADispatchThatBeganBefore) {
    const Count seen = countNow();
    install(hostHandler);
    giveToHost();
    SVOwnership::installAfterDispatch(m_manager, SIGUSR1, seen);
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
    EXPECT_TRUE(hostsNowQ());
}

TEST_F(Ownership, OfTheLibraryIsKeptByADispatchThatBeganBeforeItChangedHandsTwice) {
    const Count seen = countNow();
    install(hostHandler);
    giveToHost();
    takeFromHost();
    SVOwnership::installAfterDispatch(m_manager, SIGUSR1, seen);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    EXPECT_NE(recordOf(SIGUSR1, hostHandler), nullptr);
}

TEST_F(Ownership, LeavesToTheHostWhatItHasInstalledSinceTheSignalWasGivenBack) {
    const Count seen = countNow();
    install(hostHandler);
    giveToHost();
    settle(m_manager.theSVHandler(SIGUSR1), seen);
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
    EXPECT_TRUE(hostsNowQ());
}

TEST_F(Ownership, PutsBackWhatWasDisplacedWhenTheSignalWasGivenBack) {
    const Count seen = countNow();
    giveToHost();
    installOwn();
    settle(m_hosts, seen);
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
    EXPECT_TRUE(hostsNowQ());
}

// Up to the instruction at which that has just been put back.
TEST_F(Ownership, HasTheLibraryInstalledWhenTheSignalIsTakenOverAnewBeforeThatIsPutBack) {
    SKIP_WITHOUT_STEPS();
    Count seen = 0;
    overtakeAtEachInstruction(
        {.prepare =
             [&] {
                 seen = countNow();
                 giveToHost();
                 installOwn();
             },
         .operation = [&] { settle(m_hosts, seen); },
         .act = [] { Manager(false).handleSignal(SIGUSR1); },
         .expect =
             [this] {
                 EXPECT_TRUE(takenOverQ(SIGUSR1));
                 EXPECT_NE(recordOf(SIGUSR1, hostHandler), nullptr);
                 EXPECT_FALSE(hostsNowQ());
                 m_manager.clearHandlerWithFunction(SIGUSR1, hostHandler);
             },
         .enoughQ = [] { return systemHandler(SIGUSR1) == addressOf(hostHandler); }});
}

// --- Without tables ------------------------------------------------------------------------------

class OwnershipWithoutTables : public Ownership {
protected:
    ~OwnershipWithoutTables() noexcept override = default;

    void SetUp() override {
        Ownership::SetUp();
        const Sorvane::SVRegistryPin pin;
        ASSERT_TRUE(SVRegistry::retire(pin, false));
        m_seen = countNow();
        giveToHost();
        takeFromHost();
    }

    Failure settleDisplaced() {
        return failureOf([this] { settle(m_hosts, m_seen); });
    }

private:
    Count m_seen = 0;
};

TEST_F(OwnershipWithoutTables, FailsWhenSomethingIsToGoOnRecord) {
    expectNoTableForSignal(settleDisplaced());
}

// Up to the instruction at which the signal has just been found to be the library's.
TEST_F(OwnershipWithoutTables, DoesNotFailWhenTheSignalGoesToTheHostMeanwhile) {
    SKIP_WITHOUT_STEPS();
    bool foundToBeTheHostsQ = true;
    for (unsigned int number = 1; foundToBeTheHostsQ; ++number) {
        takeFromHost();
        resetSystemActions();
        Failure failure;
        overtake([&] { failure = settleDisplaced(); }, atInstruction(number), giveToHost);
        ASSERT_FALSE(failure.has_value()) << "overtaken at instruction " << number;
        foundToBeTheHostsQ = !defaultInSystemQ(SIGUSR1);
    }
}

// --- A hand-back that comes too late -------------------------------------------------------------

TEST_F(Ownership, LetsALateHandBackStandWhenTheSignalIsTheHostsAgain) {
    const Count seen = countNow();
    giveToHost();
    installOwn();
    SVOwnership::settleLateHandBack(m_manager, m_hosts, seen);
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
    EXPECT_TRUE(hostsNowQ());
}

TEST_F(Ownership, TakesALateHandBackBackWhenItHasDisplacedTheLibrary) {
    const Count seen = countNow();
    install(hostHandler);
    giveToHost();
    takeFromHost();
    SVOwnership::settleLateHandBack(m_manager, m_manager.theSVHandler(SIGUSR1), seen);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    EXPECT_NE(recordOf(SIGUSR1, hostHandler), nullptr);
}

TEST_F(Ownership, LetsALateHandBackStandWhenItHasDisplacedAnotherHandler) {
    const Count seen = countNow();
    install(otherHostHandler);
    SVOwnership::settleLateHandBack(m_manager, m_hosts, seen);
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(otherHostHandler));
    EXPECT_EQ(recordCount(SIGUSR1), 0U);
}

}  // namespace
