// What somebody else does while an operation of a manager stands between two of its steps.

#include <../utilities/svlifecycle.h>
#include <../utilities/svownership.h>
#include <../utilities/svregistry.h>
#include <../utilities/svtakeover.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>

#include "support/failure.h"
#include "support/faults.h"
#include "support/manager_fixture.h"
#include "support/overtaking.h"

namespace {

namespace SVLifecycle = Sorvane::SVLifecycle;
namespace SVOwnership = Sorvane::SVOwnership;
using Sorvane::SVTakeOver;

bool handlingQ() {
    return SVLifecycle::handlingQ();
}
bool signalTakenOverQ() {
    return takenOverQ(SIGUSR1);
}
bool signalIgnoredQ() {
    return ignoredInSystemQ(SIGUSR1);
}
bool hostHandlesSignalQ() {
    return systemHandler(SIGUSR1) == addressOf(hostHandler);
}
bool hostOnRecordQ() {
    return recordOf(SIGUSR1, hostHandler) != nullptr;
}
bool hostsSignalQ() {
    return SVOwnership::hostsQ(SVOwnership::count(SIGUSR1));
}
bool librarysSignalQ() {
    return !hostsSignalQ();
}

void start() {
    Manager(false).startHandlingSignals();
}
void stop() {
    Manager(false).stopHandlingSignals();
}
void takeOver() {
    Manager(false).handleSignal(SIGUSR1);
}
void registerAnother() {
    Manager(false).setHandlerFromFunction(SIGUSR1, otherUserHandler);
}
void giveSignalToHost() {
    ASSERT_TRUE(SVOwnership::giveToHost(SIGUSR1, SVOwnership::count(SIGUSR1)));
}
void retireRegistry() {
    const Sorvane::SVRegistryPin pin;
    EXPECT_TRUE(Sorvane::SVRegistry::retire(pin, false));
}

class Overtaken : public ManagerTest {
protected:
    // Declared, because the manager's own may throw, which a fixture's may not.
    ~Overtaken() noexcept override = default;

    void SetUp() override {
        SKIP_WITHOUT_STEPS();
        m_manager.emplace(false);
    }

    void registerHandler() { m_manager->setHandlerFromFunction(SIGUSR1, userHandler); }

    // The host's handler is on record, and the user's.
    void handleSignalOfHost() {
        hostInstalls(SIGUSR1, hostHandler);
        registerHandler();
        m_manager->startHandlingSignals();
    }

    std::optional<Manager> m_manager;
};

// --- Switching on ------------------------------------------------------------------------------

class OvertakenStart : public Overtaken {
protected:
    ~OvertakenStart() noexcept override = default;

    void SetUp() override {
        Overtaken::SetUp();
        if (!IsSkipped()) {
            hostInstalls(SIGUSR1, hostHandler);
            registerHandler();
        }
    }
    void startOvertakenBy(const std::function<void()>& act, const std::function<bool()>& timeQ) {
        EXPECT_TRUE(overtake([this] { m_manager->startHandlingSignals(); }, timeQ, act));
    }
};

TEST_F(OvertakenStart, TakesOverAgainWhatSomebodyHasHandedBackMeanwhile) {
    startOvertakenBy(
        [] {
            start();
            stop();
        },
        hostOnRecordQ);
    EXPECT_TRUE(handlingQ());
    EXPECT_TRUE(signalTakenOverQ());
}

TEST_F(OvertakenStart, LeavesItAtThatWhenSomebodyStopsOnceSignalsAreHandled) {
    startOvertakenBy(stop, handlingQ);
    EXPECT_FALSE(handlingQ());
    EXPECT_TRUE(hostHandlesSignalQ());
}

// Another start has left out the signal that this one fails at.
TEST_F(OvertakenStart, ThatFailsDoesNotEndWhatAnotherOneHasBegunMeanwhile) {
    m_manager->setSignalDisposition(SIGSTOP, true);
    Record refused = userRecord(SIGSTOP, userHandler);
    m_manager->setHandler(refused);
    EXPECT_TRUE(failureOf([&] {
                    overtake(
                        [this] { m_manager->startHandlingSignals(); }, hostOnRecordQ,
                        [&] {
                            Manager other(false);
                            other.clearHandler(refused);
                            other.startHandlingSignals();
                            EXPECT_TRUE(failureOf([&] { other.setHandler(refused); }).has_value());
                        });
                }).has_value());
    EXPECT_TRUE(handlingQ());
}

TEST_F(OvertakenStart, FailsAtASignalThatIsRegisteredForOnceSignalsAreHandled) {
    m_manager->setSignalDisposition(SIGSTOP, true);
    EXPECT_TRUE(failureOf([this] {
                    startOvertakenBy(
                        [] {
                            Record refused = userRecord(SIGSTOP, userHandler);
                            EXPECT_TRUE(failureOf([&] { Manager(false).setHandler(refused); }));
                        },
                        handlingQ);
                }).has_value());
    EXPECT_FALSE(handlingQ());
}

// --- Taking over -------------------------------------------------------------------------------

const ClosedPage* closedPage = nullptr;

void openClosedPage(int signalNumber) {
    closedPage->open();
    noteCall(addressOf(&openClosedPage), signalNumber);
}

class OvertakenTakeOver : public Overtaken {
protected:
    ~OvertakenTakeOver() noexcept override = default;

    // The host has the signal, and nothing is on record.
    void startOver() {
        m_manager.reset();
        m_manager.emplace(false);
        hostInstalls(SIGSEGV, openClosedPage);
        m_manager->handleSignal(SIGUSR1);
    }
    bool overtakenAt(unsigned int number, const std::function<void()>& act) {
        return overtake([this] { m_manager->handleSignal(SIGSEGV); }, atInstruction(number), act);
    }
};

// The host's handler is about to be put on record, and a handler that comes in between needs it.
TEST_F(OvertakenTakeOver, IsCompletedForAFaultOfAHandlerOnItsThread) {
    const ClosedPage page;
    closedPage = &page;
    const unsigned int justBefore = lastBefore([this](unsigned int number) {
        startOver();
        bool onRecordQ = false;
        const bool overtakenQ = overtakenAt(
            number, [&onRecordQ] { onRecordQ = recordOf(SIGSEGV, openClosedPage) != nullptr; });
        m_manager->startHandlingSignals();
        return onRecordQ || !overtakenQ;
    });
    startOver();
    EXPECT_TRUE(overtakenAt(justBefore, [&page] { writeTo(page.address()); }));
    EXPECT_EQ(readFrom(page.address()), 1);
    EXPECT_EQ(callsOf(openClosedPage), 1U);
    EXPECT_EQ(recordCount(SIGSEGV), 1U);
    EXPECT_TRUE(takenOverQ(SIGSEGV));
}

// --- Handing one signal back -------------------------------------------------------------------

class OvertakenHandBack : public Overtaken {
protected:
    ~OvertakenHandBack() noexcept override = default;

    // The signal is ignored first, because the host had no handler.
    void handBackOvertakenBy(const std::function<void()>& act) {
        registerHandler();
        EXPECT_TRUE(
            overtake([this] { m_manager->stopHandlingSignal(SIGUSR1); }, signalIgnoredQ, act));
    }
};

TEST_F(OvertakenHandBack, ComesBeforeATakeOverThatHasInstalledTheLibrary) {
    m_manager->handleSignal(SIGUSR1);
    std::optional<SVTakeOver> takingOver;
    handBackOvertakenBy([&takingOver] { takingOver.emplace(SIGUSR1); });
    EXPECT_TRUE(signalTakenOverQ());
}

TEST_F(OvertakenHandBack, NeverIgnoresASignalThatIsBeingTakenOver) {
    m_manager->handleSignal(SIGUSR1);
    const SVTakeOver takingOver(SIGUSR1);
    EXPECT_FALSE(
        overtake([this] { m_manager->stopHandlingSignal(SIGUSR1); }, signalIgnoredQ, [] {}));
    EXPECT_TRUE(signalTakenOverQ());
}

TEST_F(OvertakenHandBack, GivesBackWhatIsOnRecordAlthoughTheSignalIsBeingTakenOverAgain) {
    hostInstalls(SIGUSR1, hostHandler);
    m_manager->handleSignal(SIGUSR1);
    const SVTakeOver takingOver(SIGUSR1);
    m_manager->stopHandlingSignal(SIGUSR1);
    EXPECT_TRUE(hostHandlesSignalQ());
}

TEST_F(OvertakenHandBack, StandsWhenATakeOverHasInstalledNothingYet) {
    std::optional<SVTakeOver> takingOver;
    handBackOvertakenBy([&takingOver] { takingOver.emplace(SIGUSR1); });
    EXPECT_TRUE(signalIgnoredQ());
}

TEST_F(OvertakenHandBack, IsToTheHandlerThatATakeOverHasPutOnRecordMeanwhile) {
    handBackOvertakenBy([] {
        hostInstalls(SIGUSR1, hostHandler);
        takeOver();
    });
    EXPECT_TRUE(hostHandlesSignalQ());
}

TEST_F(OvertakenHandBack, StandsWhenThereAreNoRecordsAnyMore) {
    handBackOvertakenBy(retireRegistry);
    EXPECT_TRUE(signalIgnoredQ());
}

// --- Switching off, and registration -----------------------------------------------------------

TEST_F(Overtaken, StopHandsBackAgainWhatARegistrationHasTakenOverMeanwhile) {
    handleSignalOfHost();
    EXPECT_TRUE(overtake([this] { m_manager->stopHandlingSignals(); }, hostHandlesSignalQ,
                         registerAnother));
    EXPECT_NE(recordOf(SIGUSR1, otherUserHandler), nullptr);
    EXPECT_TRUE(hostHandlesSignalQ());
}

// A registration has found that signals are handled and is about to install the library: it has
// just taken the signal from the host.
class OvertakenRegistration : public Overtaken {
protected:
    ~OvertakenRegistration() noexcept override = default;

    void registerOvertakenBy(const std::function<void()>& act) {
        handleSignalOfHost();
        giveSignalToHost();
        EXPECT_TRUE(
            overtake([this] { m_manager->setHandlerFromFunction(SIGUSR1, otherUserHandler); },
                     librarysSignalQ, act));
    }
};

TEST_F(OvertakenRegistration, LeavesToTheHostWhatAStopHasHandedBack) {
    registerOvertakenBy(stop);
    EXPECT_NE(recordOf(SIGUSR1, otherUserHandler), nullptr);
    EXPECT_TRUE(hostHandlesSignalQ());
}

TEST_F(OvertakenRegistration, LeavesToTheLibraryWhatWasTakenOverAfterAStop) {
    registerOvertakenBy([] {
        stop();
        takeOver();
    });
    EXPECT_FALSE(handlingQ());
    EXPECT_TRUE(signalTakenOverQ());
}

// --- Clearing ----------------------------------------------------------------------------------

class OvertakenClearing : public Overtaken {
protected:
    ~OvertakenClearing() noexcept override = default;

    // The host's handler is the only one on record.
    void SetUp() override {
        Overtaken::SetUp();
        if (!IsSkipped()) {
            hostInstalls(SIGUSR1, hostHandler);
            m_manager->handleSignal(SIGUSR1);
            m_manager->startHandlingSignals();
        }
    }
    void clear() {
        Record record = hostRecord(SIGUSR1, hostHandler);
        m_manager->clearHandler(record);
    }
};

TEST_F(OvertakenClearing, DoesNotCutOffAHandlerThatIsRegisteredMeanwhile) {
    EXPECT_TRUE(overtake([this] { clear(); }, hostHandlesSignalQ,
                         [] {
                             SVLifecycle::setHandling(
                                 false);  // so that the registration installs nothing itself
                             registerAnother();
                         }));
    EXPECT_TRUE(signalTakenOverQ());
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
    EXPECT_NE(recordOf(SIGUSR1, otherUserHandler), nullptr);
}

TEST_F(OvertakenClearing, LeavesItAtThatWhenTheSignalWasNotTheLibrarys) {
    hostInstalls(SIGUSR1, otherHostHandler);
    EXPECT_TRUE(overtake([this] { clear(); }, hostHandlesSignalQ, [] {}));
    EXPECT_TRUE(hostHandlesSignalQ());
    EXPECT_EQ(recordCount(SIGUSR1), 0U);
}

// --- The last manager goes ---------------------------------------------------------------------

class OvertakenTeardown : public Overtaken {
protected:
    ~OvertakenTeardown() noexcept override = default;

    void SetUp() override {
        Overtaken::SetUp();
        if (!IsSkipped()) {
            handleSignalOfHost();
        }
    }
    // The last one tears down what is there, because it has handled signals.
    void TearDown() override {
        if (m_other) {
            m_other->startHandlingSignals();
        }
        m_other.reset();
        EXPECT_FALSE(handlingQ());
        EXPECT_EQ(Manager::handlerTables, nullptr);
    }

    bool lastManagerGoesOvertakenBy(const std::function<void()>& act,
                                    const std::function<bool()>& timeQ) {
        return overtake([this] { m_manager.reset(); }, timeQ, act);
    }
    void startOver() {
        m_manager.reset();
        m_manager.emplace(false);
        handleSignalOfHost();
    }
    void makeOther() { m_other.emplace(false); }
    void completeInOther() {
        makeOther();
        m_other->startHandlingSignals();
    }
    // The teardown has just begun.
    void completeInOtherBy(const std::function<void()>& act) {
        const auto goesOnQ = [] { return SVLifecycle::currentTeardown() != 0; };
        EXPECT_TRUE(lastManagerGoesOvertakenBy(
            [&] {
                makeOther();
                EXPECT_TRUE(goesOnQ());
                act();
                EXPECT_FALSE(goesOnQ());
            },
            goesOnQ));
    }
    void takeOverInOther() {
        makeOther();
        m_other->setHandlerFromFunction(SIGUSR1, otherUserHandler);
        m_other->startHandlingSignals();
    }
    static void expectTakenOverFromHost() {
        EXPECT_TRUE(signalTakenOverQ());
        EXPECT_NE(recordOf(SIGUSR1, hostHandler), nullptr);
        EXPECT_NE(recordOf(SIGUSR1, otherUserHandler), nullptr);
        EXPECT_EQ(recordCount(SIGUSR1), 2U);
        raise(SIGUSR1);
        EXPECT_EQ(callsOf(hostHandler), 1U);
        EXPECT_EQ(callsOf(otherUserHandler), 1U);
    }

    std::optional<Manager> m_other;
};

TEST_F(OvertakenTeardown, IsNotGoneOnWithWhenSomebodyHasCompletedIt) {
    EXPECT_TRUE(lastManagerGoesOvertakenBy([this] { completeInOther(); }, hostsSignalQ));
    EXPECT_TRUE(hostHandlesSignalQ());
    EXPECT_TRUE(handlingQ());
    EXPECT_NE(Manager::handlerTables, nullptr);
}

TEST_F(OvertakenTeardown, GivesNothingBackWhenSomebodyHasCompletedItBeforeItsFirstSignal) {
    EXPECT_TRUE(lastManagerGoesOvertakenBy([this] { takeOverInOther(); },
                                           [] { return SVLifecycle::currentTeardown() != 0; }));
    expectTakenOverFromHost();
}

TEST_F(OvertakenTeardown, IsCompletedByWhoeverTakesASignalOverMeanwhile) {
    completeInOtherBy([this] { m_other->handleSignal(SIGUSR1); });
    EXPECT_TRUE(signalTakenOverQ());
    EXPECT_NE(recordOf(SIGUSR1, hostHandler), nullptr);
    EXPECT_EQ(recordCount(SIGUSR1), 1U) << "the other records have gone with the manager";
}

TEST_F(OvertakenTeardown, IsCompletedByWhoeverRegistersMeanwhile) {
    completeInOtherBy([this] { m_other->setHandlerFromFunction(SIGUSR1, otherUserHandler); });
    EXPECT_TRUE(hostHandlesSignalQ());
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
    EXPECT_NE(recordOf(SIGUSR1, otherUserHandler), nullptr);
}

TEST_F(OvertakenTeardown, IsCompletedByWhoeverClearsMeanwhile) {
    completeInOtherBy([this] { m_other->clearHandlerWithFunction(SIGUSR1, otherUserHandler); });
    EXPECT_TRUE(hostHandlesSignalQ());
    EXPECT_EQ(recordCount(SIGUSR1), 0U);
}

TEST_F(OvertakenTeardown, IsCompletedByWhoeverHandsASignalBackMeanwhile) {
    completeInOtherBy([this] { m_other->stopHandlingSignal(SIGUSR1); });
    EXPECT_TRUE(hostHandlesSignalQ());
    EXPECT_EQ(recordCount(SIGUSR1), 0U);
}

TEST_F(OvertakenTeardown, TakesBackALateHandBackOfWhatWasTakenOverAnew) {
    EXPECT_TRUE(lastManagerGoesOvertakenBy([this] { takeOverInOther(); }, hostsSignalQ));
    expectTakenOverFromHost();
}

// The count of the signal has been read, and it is about to be changed.
TEST_F(OvertakenTeardown, GivesNothingBackThatWasTakenOverAnewJustBefore) {
    startOver();
    const unsigned int justBefore = lastBefore([&](unsigned int number) {
        bool given = true;
        lastManagerGoesOvertakenBy([&given] { given = hostsSignalQ(); }, atInstruction(number));
        startOver();
        return given;
    });
    EXPECT_TRUE(
        lastManagerGoesOvertakenBy([this] { takeOverInOther(); }, atInstruction(justBefore)));
    expectTakenOverFromHost();
}

TEST_F(OvertakenTeardown, LeavesTablesToAManagerThatIsMadeMeanwhile) {
    EXPECT_TRUE(lastManagerGoesOvertakenBy([this] { makeOther(); }, hostsSignalQ));
    EXPECT_TRUE(hostHandlesSignalQ());
    EXPECT_NE(Manager::handlerTables, nullptr);
    EXPECT_EQ(recordCount(SIGUSR1), 0U);
}

TEST_F(OvertakenTeardown, LeavesItsTablesToAManagerThatIsMadeWhenThereAreNone) {
    const auto noTablesQ = [] { return Manager::handlerTables == nullptr; };
    EXPECT_TRUE(lastManagerGoesOvertakenBy(
        [this] {
            makeOther();
            m_other->setSignalDisposition(SIGINT, false);
        },
        noTablesQ));
    EXPECT_NE(Manager::handlerTables, nullptr);
    EXPECT_FALSE(mayHandleQ(SIGINT));
}

// Whether anybody needs tables has been asked, and they are about to go.
TEST_F(OvertakenTeardown, MakesTablesForAManagerThatIsMadeJustBeforeTheyGo) {
    startOver();
    const unsigned int justBefore = lastBefore([this](unsigned int number) {
        bool goneQ = false;
        const bool overtakenQ = lastManagerGoesOvertakenBy(
            [&goneQ] { goneQ = Manager::handlerTables == nullptr; }, atInstruction(number));
        startOver();
        return goneQ || !overtakenQ;
    });
    EXPECT_TRUE(lastManagerGoesOvertakenBy([this] { makeOther(); }, atInstruction(justBefore)));
    EXPECT_NE(Manager::handlerTables, nullptr);
}

// --- The first manager comes -------------------------------------------------------------------

class OvertakenFirstManager : public Overtaken {
protected:
    ~OvertakenFirstManager() noexcept override = default;

    // Another manager is made when the first one has been counted, so many instructions later. The
    // registry is one that was used before, so that nothing is allocated.
    // Result: whether the first one has reset the answers of before by then.
    bool overtakenAt(unsigned int number) {
        m_manager->startHandlingSignals();
        m_manager.reset();
        EXPECT_EQ(Manager::handlerTables, nullptr);
        Manager::signalDispositionSet.doNotHandleSignal(SIGINT);
        const auto timeQ = [instruction = atInstruction(number)] {
            return SVLifecycle::managerCount() == 1 && instruction();
        };
        bool resetQ = false;
        EXPECT_TRUE(overtake([this] { m_manager.emplace(false); }, timeQ,
                             [&] {
                                 resetQ = mayHandleQ(SIGINT);
                                 m_other.emplace(false);
                                 m_other->setSignalDisposition(SIGQUIT, false);
                             }));
        EXPECT_TRUE(mayHandleQ(SIGINT)) << "at instruction " << number;
        EXPECT_FALSE(mayHandleQ(SIGQUIT)) << "at instruction " << number;
        m_other.reset();
        return resetQ;
    }

    std::optional<Manager> m_other;
};

// The other one may come at any time until the answers are reset, and an answer of its own stays.
// Where the library counts what runs, a step takes so long that early on only some are looked at.
TEST_F(OvertakenFirstManager, LeavesTablesAndAnswersToAnotherThatIsMadeAtOnce) {
    constexpr unsigned int lastOnes = 100;
#ifdef SORVANE_TESTS_COUNTED
    constexpr unsigned int stride = 37;
#else
    constexpr unsigned int stride = 1;
#endif
    const unsigned int last =
        lastBefore([this](unsigned int number) { return overtakenAt(number); });
    unsigned int number = 1;
    for (; number + lastOnes < last; number += stride) {
        ASSERT_FALSE(overtakenAt(number));
    }
    for (; number <= last && !HasFailure(); ++number) {
        ASSERT_FALSE(overtakenAt(number));
    }
}

}  // namespace
