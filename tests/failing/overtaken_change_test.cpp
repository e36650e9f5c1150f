// A change of the registry that a handler or another thread overtakes at a chosen instruction, with
// and without memory. Nothing of it is lost, and nothing is done twice.

#include <../utilities/svregistry.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "failing/allocations.h"
#include "support/failure.h"
#include "support/manager_fixture.h"
#include "support/overtaking.h"

namespace {

namespace SVRegistry = Sorvane::SVRegistry;
using Allocations::Failing;
using Action = std::function<void()>;
using Pin = Sorvane::SVRegistryPin;
using Version = Sorvane::SVRegistryVersion;

// A handler's own signal is held back while it runs, so there is one for each that interrupts
// another.
constexpr int signals[] = {SIGUSR2, SIGALRM};
std::size_t depth = 0;
const Action* inHandler = nullptr;

constexpr unsigned int anyLine = 7;

void act(int) {
    (*inHandler)();
}

// As one of the library's handlers, in which storage does not come from the heap.
void raiseFor(const Action& action) {
    const Action* const outer = std::exchange(inHandler, &action);
    raise(signals[depth++]);
    --depth;
    inHandler = outer;
}

void registerFor(int signalNumber, SimpleHandler handler) {
    Manager manager(false);
    manager.setHandlerFromFunction(signalNumber, handler);
}

bool hasRecord(int signalNumber, SimpleHandler handler) {
    const std::vector<void*> functions = functionsInSlotOrder(signalNumber);
    return std::find(functions.begin(), functions.end(), addressOf(handler)) != functions.end();
}

struct PinsOfPublished {
    const Version* version = Version::published();
    unsigned int pins = version->pins();
};

std::function<bool()> whenPinned() {
    return [before = PinsOfPublished()] { return before.version->pins() > before.pins; };
}

std::function<bool()> whenAnotherIsPublished() {
    return [version = Version::published()] { return Version::published() != version; };
}

class OvertakenChange : public ManagerTest {
protected:
    // Declared, because the manager's own may throw, which a fixture's may not.
    ~OvertakenChange() noexcept override = default;

    void SetUp() override {
        SKIP_WITHOUT_STEPS();
        prepare();
    }

    // Five records are as many as a table has room for without growth.
    void prepare() {
        m_manager.emplace(false);
        for (const int signalNumber : signals) {
            m_manager->setHandlerFromFunction(signalNumber, act);
        }
        for (std::size_t i = 0; i < 5; ++i) {
            m_manager->setHandlerFromFunction(SIGUSR1, numberedHandlers.at(i));
        }
        m_manager->startHandlingSignals();
    }

    void prepareAnew() {
        m_manager.reset();
        prepare();
    }

    static void registerSixth() { registerFor(SIGUSR1, sixth); }
    static void recordSixthAsHosts() {
        SVRegistry::storeRecord(hostRecord(SIGUSR1, sixth), false, anyLine);
    }
    static void clearFifth() { Manager(false).clearHandlerWithFunction(SIGUSR1, fifth); }
    static void changeAnother() {
        raiseFor([] { registerFor(SIGTERM, userHandler); });
    }

    // A copy that somebody makes of the published version has just come to share a table with it.
    static std::function<bool()> whenCopied() {
        const auto* const shared = Sorvane::SVSharedTable::from(tableOf(SIGUSR2));
        return [shared] { return shared->versions.load() == 2; };
    }

    static constexpr SimpleHandler fifth = numberedHandlers[4];
    static constexpr SimpleHandler sixth = numberedHandlers[5];
    static constexpr SimpleHandler seventh = numberedHandlers[6];

    std::optional<Manager> m_manager;
};

// --- By a handler that helps -------------------------------------------------------------------

TEST_F(OvertakenChange, IsDoneOnceItIsCompleted) {
    bool done = false;
    EXPECT_TRUE(overtake(registerSixth, whenPinned(), [&done] {
        SVRegistry::completeInterrupted();
        done = hasRecord(SIGUSR1, sixth);
    }));
    EXPECT_TRUE(done);
    EXPECT_EQ(recordCount(SIGUSR1), 6U);
}

TEST_F(OvertakenChange, IsDoneOnceAWholeHandlerHasReturned) {
    bool done = false;
    EXPECT_TRUE(overtake(registerSixth, whenPinned(), [&done] {
        changeAnother();
        done = hasRecord(SIGUSR1, sixth);
    }));
    EXPECT_TRUE(done);
    EXPECT_EQ(recordCount(SIGUSR1), 6U);
    EXPECT_TRUE(hasRecord(SIGTERM, userHandler));
}

TEST_F(OvertakenChange, IsNotReplacedByAHandlersRecordThatIsNotToReplaceAnything) {
    EXPECT_TRUE(overtake(registerSixth, whenPinned(), [] { raiseFor(recordSixthAsHosts); }));
    ASSERT_NE(recordOf(SIGUSR1, sixth), nullptr);
    EXPECT_FALSE(recordOf(SIGUSR1, sixth)->preExistsQ());
}

// The innermost handler makes all three changes.
TEST_F(OvertakenChange, IsNotReplacedBySuchARecordOfAHandlerThatIsOvertakenItself) {
    const Action recordOvertaken = [] {
        EXPECT_TRUE(overtake(recordSixthAsHosts, whenPinned(), changeAnother));
    };
    EXPECT_TRUE(
        overtake(registerSixth, whenPinned(), [&recordOvertaken] { raiseFor(recordOvertaken); }));
    ASSERT_NE(recordOf(SIGUSR1, sixth), nullptr);
    EXPECT_FALSE(recordOf(SIGUSR1, sixth)->preExistsQ());
    EXPECT_TRUE(hasRecord(SIGTERM, userHandler));
}

// Nobody reads the version, which would be changed in its place.
TEST_F(OvertakenChange, IsDoneWhenAHandlerMakesAnotherBeforeItsStandInIsPublished) {
    EXPECT_TRUE(overtake(registerSixth, whenCopied(), changeAnother));
    EXPECT_TRUE(hasRecord(SIGUSR1, sixth));
    EXPECT_TRUE(hasRecord(SIGTERM, userHandler));
}

TEST_F(OvertakenChange, IsDoneWhenAHandlerMakesAnotherBeforeItsCopyIsPublished) {
    const Pin reader;
    EXPECT_TRUE(overtake(registerSixth, whenCopied(), changeAnother));
    EXPECT_TRUE(hasRecord(SIGUSR1, sixth));
    EXPECT_TRUE(hasRecord(SIGTERM, userHandler));
    EXPECT_EQ(reader.tableOf(SIGUSR1)->used, 5U);
}

// The handler's version with both changes is published and its handler still runs when another
// thread undoes the first change and a second handler asks what is to be helped.
TEST_F(OvertakenChange, IsNotMadeAgainWhenAnotherThreadHasUndoneItBehindItsHelper) {
    const Action undoAndInterrupt = [] {
        std::thread([] { Manager(false).clearHandlerWithFunction(SIGUSR1, sixth); }).join();
        raiseFor([] { registerFor(SIGUSR1, seventh); });
    };
    const Action help = [&undoAndInterrupt] {
        raiseFor([&undoAndInterrupt] {
            EXPECT_TRUE(overtake([] { registerFor(SIGTERM, userHandler); },
                                 whenAnotherIsPublished(), undoAndInterrupt));
        });
    };
    EXPECT_TRUE(overtake(registerSixth, whenPinned(), help));
    EXPECT_FALSE(hasRecord(SIGUSR1, sixth));
    EXPECT_TRUE(hasRecord(SIGUSR1, seventh));
    EXPECT_TRUE(hasRecord(SIGTERM, userHandler));
}

// --- By a reader -------------------------------------------------------------------------------

TEST_F(OvertakenChange, IsMadeInACopyWhenAReaderComesBeforeItsStandInIsPublished) {
    std::optional<Pin> reader;
    EXPECT_TRUE(overtake(registerSixth, whenCopied(), [&reader] { reader.emplace(); }));
    EXPECT_EQ(recordCount(SIGUSR1), 6U);
    EXPECT_FALSE(reader->publishedQ());
    EXPECT_EQ(reader->tableOf(SIGUSR1)->used, 5U);
}

// --- Without memory ----------------------------------------------------------------------------

// A handler that overtakes the registration of a sixth record with a change of its own, of which an
// allocation fails: the first, the second, and so on.
struct Helper {
    void failNextAllocation(const Action& change) {
        ++number;
        failSameAllocation(change);
    }

    void failSameAllocation(const Action& change) {
        const Action withOneFailing = [&] {
            const Allocations::Watch watch(number);
            changed = !failureOf(change).has_value();
            failed = watch.failedQ();
            helped = recordCount(SIGUSR1) == 6;
        };
        ASSERT_TRUE(overtake([] { registerFor(SIGUSR1, numberedHandlers[5]); }, whenPinned(),
                             [&withOneFailing] { raiseFor(withOneFailing); }));
    }

    std::size_t number = 0;
    bool failed = false;
    bool changed = false;
    bool helped = false;
};

// What fails is the handler's own change, or what it would have helped, which is then done where it
// was begun.
TEST_F(OvertakenChange, IsDoneWhateverAllocationOfAHandlersChangeFails) {
    Helper helper;
    do {
        prepareAnew();
        helper.failNextAllocation([] { registerFor(SIGTERM, userHandler); });
        EXPECT_EQ(recordCount(SIGUSR1), 6U);
        EXPECT_EQ(recordCount(SIGTERM), helper.changed ? 1U : 0U);
    } while (helper.failed);
    EXPECT_TRUE(helper.helped);
}

// The second handler comes when the first one's version, without the change, has just been
// published.
TEST_F(OvertakenChange, IsDoneByASecondHandlerIfItWasTooMuchForTheFirst) {
    Helper helper;
    do {
        prepareAnew();
        helper.failNextAllocation([] { registerFor(SIGTERM, userHandler); });
        ASSERT_TRUE(helper.failed) << "nothing to be tested";
    } while (!helper.changed || helper.helped);
    prepareAnew();
    bool undone = false;
    bool done = false;
    const Action interruptAgain = [&] {
        undone = recordCount(SIGUSR1) == 5;
        raiseFor([] { registerFor(SIGINT, userHandler); });
        done = recordCount(SIGUSR1) == 6;
    };
    helper.failSameAllocation([&interruptAgain] {
        overtake([] { registerFor(SIGTERM, userHandler); }, whenAnotherIsPublished(),
                 interruptAgain);
    });
    EXPECT_TRUE(undone);
    EXPECT_TRUE(done);
    EXPECT_EQ(recordCount(SIGUSR1), 6U);
    EXPECT_EQ(recordCount(SIGTERM), 1U);
    EXPECT_EQ(recordCount(SIGINT), 1U);
}

TEST_F(OvertakenChange, StaysToBeDoneWhenThereIsNoMemoryToCompleteIt) {
    bool done = true;
    EXPECT_TRUE(overtake(registerSixth, whenPinned(), [&done] {
        {
            const Allocations::Watch watch(1, Failing::fromThenOn);
            SVRegistry::completeInterrupted();
        }
        done = hasRecord(SIGUSR1, sixth);
    }));
    EXPECT_FALSE(done);
    EXPECT_TRUE(hasRecord(SIGUSR1, sixth));
}

TEST_F(OvertakenChange, ThatIsNoneIsCompletedWithoutMemoryAlsoWithoutARegistry) {
    m_manager.reset();
    ASSERT_EQ(Manager::handlerTables, nullptr);
    const Allocations::Watch watch;
    SVRegistry::completeInterrupted();
    EXPECT_EQ(watch.count(), 0U);
    EXPECT_EQ(Manager::handlerTables, nullptr);
}

class OvertakenWithoutMemory : public OvertakenChange {
protected:
    // Lets each allocation of a change fail in turn. Right behind the failure, somebody else makes
    // a change and finds the memory for that.
    void expectNoFailure(const Action& otherChange, const std::function<bool()>& otherDoneQ) {
        bool failed = true;
        std::size_t number = 0;
        while (failed) {
            ++number;
            prepareAnew();
            std::optional<Pin> reader;
            if (m_read) {
                reader.emplace();
            }
            Failure failure;
            {
                const Allocations::Watch watch(number);
                failure = failureOf([&] {
                    failed = overtake(
                        registerSixth, [&watch] { return watch.failedQ(); }, otherChange);
                });
            }
            EXPECT_FALSE(failure.has_value()) << "without allocation " << number;
            EXPECT_TRUE(hasRecord(SIGUSR1, sixth)) << "without allocation " << number;
            EXPECT_EQ(otherDoneQ(), failed) << "without allocation " << number;
        }
        EXPECT_GT(number, 2U) << "nothing was tested";
    }

    void expectNoFailureWithAHandlersChange() {
        expectNoFailure(changeAnother, [] { return hasRecord(SIGTERM, userHandler); });
    }

    bool m_read = false;
};

TEST_F(OvertakenWithoutMemory, ChangeSucceedsWhenAHandlerFindsTheMemory) {
    expectNoFailureWithAHandlersChange();
}

TEST_F(OvertakenWithoutMemory, ChangeOfWhatIsReadSucceedsWhenAHandlerFindsTheMemory) {
    m_read = true;
    expectNoFailureWithAHandlersChange();
}

// The other thread leaves this one's change to itself.
TEST_F(OvertakenWithoutMemory, ChangeStartsOverWhenAnotherThreadHasMadeOneMeanwhile) {
    const std::size_t first = 1;
    const Allocations::Watch watch(first);
    EXPECT_TRUE(overtake(
        registerSixth, [&watch] { return watch.failedQ(); },
        [] { std::thread([] { registerFor(SIGUSR1, seventh); }).join(); }));
    EXPECT_TRUE(hasRecord(SIGUSR1, sixth));
    EXPECT_TRUE(hasRecord(SIGUSR1, seventh));
}

// Without memory for a copy, a change needs a quiet moment, and this one is not any more.
TEST_F(OvertakenWithoutMemory, ChangeFailsWhenAReaderComesAndTheReaderSeesNothingOfIt) {
    std::optional<Pin> reader;
    const Version* const before = Version::published();
    Failure failure;
    {
        const Allocations::Watch watch(1, Failing::fromThenOn);
        failure = failureOf([&] {
            overtake(
                clearFifth, [&watch] { return watch.failedQ(); }, [&reader] { reader.emplace(); });
        });
    }
    ASSERT_TRUE(reader.has_value());
    expectNoTableForHandler(failure);
    EXPECT_EQ(Version::published(), before);
    EXPECT_EQ(reader->version(), before);
    EXPECT_EQ(recordCount(SIGUSR1), 5U);
}

}  // namespace
