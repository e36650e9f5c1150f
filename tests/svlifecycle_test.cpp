// Birth and death of the shared state, when two of those who change it come at once.

#include <../utilities/svlifecycle.h>
#include <gtest/gtest.h>

#include "support/manager_fixture.h"
#include "support/overtaking.h"

namespace {

namespace SVLifecycle = Sorvane::SVLifecycle;
using SVLifecycle::Teardown;

class Lifecycle : public ManagerTest {
protected:
    void SetUp() override { SKIP_WITHOUT_STEPS(); }

    // Signals are handled from now on, and so many managers are counted.
    static void begin(unsigned int managers) {
        for (unsigned int i = 0; i < managers; ++i) {
            SVLifecycle::managerMade();
        }
        SVLifecycle::setHandling(true);
    }

    static Teardown beginTeardown() {
        begin(1);
        return SVLifecycle::managerGone();
    }

    static void end() {
        SVLifecycle::teardownComplete(SVLifecycle::currentTeardown());
        SVLifecycle::setHandling(false);
        while (SVLifecycle::managerCount() != 0) {
            SVLifecycle::managerGone();
        }
    }

    static void expectCopies() {
        EXPECT_EQ(Manager::numberOfManagers, SVLifecycle::managerCount());
        EXPECT_EQ(Manager::currentlyHandlingSignals, SVLifecycle::handlingQ());
    }
};

TEST_F(Lifecycle, CountsBothOfTwoManagersThatAreMadeAtOnce) {
    overtakeAtEachInstruction({.prepare = [] {},
                               .operation = SVLifecycle::managerMade,
                               .act = SVLifecycle::managerMade,
                               .expect =
                                   [] {
                                       EXPECT_EQ(SVLifecycle::managerCount(), 2U);
                                       expectCopies();
                                       end();
                                   }});
}

// A handler that reads the number reads the one before or the one after, and no other.
TEST_F(Lifecycle, ShowsNoOtherNumberWhileAManagerIsMadeOrGoes) {
    unsigned int shown = 0;
    const auto read = [&shown] { shown = Manager::numberOfManagers; };
    const auto expectEither = [&shown] {
        EXPECT_TRUE(shown == 2 || shown == 3) << shown;
        end();
    };
    overtakeAtEachInstruction({.prepare = [] { begin(2); },
                               .operation = SVLifecycle::managerMade,
                               .act = read,
                               .expect = expectEither});
    overtakeAtEachInstruction({.prepare = [] { begin(3); },
                               .operation = [] { SVLifecycle::managerGone(); },
                               .act = read,
                               .expect = expectEither});
}

TEST_F(Lifecycle, ShowsAManagerThatIsMadeWhenHandlingBegins) {
    overtakeAtEachInstruction({.prepare = [] {},
                               .operation = [] { SVLifecycle::setHandling(true); },
                               .act = SVLifecycle::managerMade,
                               .expect =
                                   [] {
                                       EXPECT_EQ(SVLifecycle::managerCount(), 1U);
                                       EXPECT_TRUE(SVLifecycle::handlingQ());
                                       expectCopies();
                                       end();
                                   }});
}

TEST_F(Lifecycle, HasTheStateTornDownByOneOfTwoManagersThatGoAtOnce) {
    Teardown first = 0;
    Teardown second = 0;
    overtakeAtEachInstruction({.prepare = [] { begin(2); },
                               .operation = [&first] { first = SVLifecycle::managerGone(); },
                               .act = [&second] { second = SVLifecycle::managerGone(); },
                               .expect =
                                   [&] {
                                       EXPECT_NE(first == 0, second == 0);
                                       EXPECT_EQ(SVLifecycle::managerCount(), 0U);
                                       EXPECT_FALSE(SVLifecycle::handlingQ());
                                       expectCopies();
                                       end();
                                   }});
}

TEST_F(Lifecycle, HasNoLastManagerWhenAnotherOneIsMadeBeforeItGoes) {
    Teardown teardown = 0;
    overtakeAtEachInstruction({.prepare = [] { begin(1); },
                               .operation = [&teardown] { teardown = SVLifecycle::managerGone(); },
                               .act = SVLifecycle::managerMade,
                               .expect =
                                   [&teardown] {
                                       EXPECT_EQ(SVLifecycle::managerCount(), 1U);
                                       EXPECT_EQ(SVLifecycle::handlingQ(), teardown == 0);
                                       EXPECT_EQ(SVLifecycle::currentTeardown(), teardown);
                                       expectCopies();
                                       end();
                                   }});
}

TEST_F(Lifecycle, HasNoSecondTeardownWithinOne) {
    const Teardown teardown = beginTeardown();
    ASSERT_NE(teardown, 0U);
    SVLifecycle::managerMade();
    EXPECT_EQ(SVLifecycle::managerGone(), 0U);
    EXPECT_EQ(SVLifecycle::currentTeardown(), teardown);
    end();
}

TEST_F(Lifecycle, HasATeardownEndedByTheFirstOfTwoWhoDoItAtOnce) {
    Teardown teardown = 0;
    bool overQ = false;
    overtakeAtEachInstruction(
        {.prepare = [&teardown] { teardown = beginTeardown(); },
         .operation = [&teardown] { SVLifecycle::teardownComplete(teardown); },
         .act =
             [&] {
                 overQ = SVLifecycle::currentTeardown() == 0;
                 SVLifecycle::teardownFailed(teardown);
             },
         .expect =
             [&overQ] {
                 EXPECT_EQ(SVLifecycle::currentTeardown(), 0U);
                 EXPECT_EQ(SVLifecycle::handlingQ(), !overQ);
                 expectCopies();
                 end();
             }});
    EXPECT_TRUE(overQ) << "at last, when the second one came after the first";
}

TEST_F(Lifecycle, HasATeardownEndedAlthoughAManagerIsMadeMeanwhile) {
    Teardown teardown = 0;
    overtakeAtEachInstruction(
        {.prepare = [&teardown] { teardown = beginTeardown(); },
         .operation = [&teardown] { SVLifecycle::teardownComplete(teardown); },
         .act = SVLifecycle::managerMade,
         .expect =
             [] {
                 EXPECT_EQ(SVLifecycle::currentTeardown(), 0U);
                 EXPECT_EQ(SVLifecycle::managerCount(), 1U);
                 expectCopies();
                 end();
             }});
}

TEST_F(Lifecycle, ResetsNoAnswerForATeardownThatIsOver) {
    const Teardown teardown = beginTeardown();
    SVLifecycle::teardownComplete(teardown);
    Manager::signalDispositionSet.doNotHandleSignal(SIGINT);
    SVLifecycle::resetDispositions(teardown);
    SVLifecycle::resetDispositionsIfTornDown();
    EXPECT_FALSE(mayHandleQ(SIGINT));
}

// More often than the answers can tell occasions apart.
TEST_F(Lifecycle, ResetsTheAnswersOnceForEachTeardown) {
    for (unsigned int round = 0; round < 200; ++round) {
        Manager::signalDispositionSet.doNotHandleSignal(SIGINT);
        beginTeardown();
        SVLifecycle::resetDispositionsIfTornDown();
        EXPECT_TRUE(mayHandleQ(SIGINT)) << "teardown " << round;
        Manager::signalDispositionSet.doNotHandleSignal(SIGINT);
        SVLifecycle::resetDispositionsIfTornDown();
        EXPECT_FALSE(mayHandleQ(SIGINT)) << "teardown " << round;
        end();
    }
}

}  // namespace
