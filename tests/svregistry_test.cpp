// The registry: how it is read while it is closed, and what else only its own operations meet.

#include <../utilities/svregistry.h>
#include <gtest/gtest.h>

#include <memory>

#include "support/manager_fixture.h"
#include "support/overtaking.h"

namespace {

namespace SVRegistry = Sorvane::SVRegistry;
using Pin = Sorvane::SVRegistryPin;
using Version = Sorvane::SVRegistryVersion;

constexpr unsigned int anyLine = 7;

class Registry : public ManagerTest {};

// --- Beginning -----------------------------------------------------------------------------------

bool endIt() {
    const Pin pin;
    return SVRegistry::retire(pin, false);
}

TEST_F(Registry, IsBegunOnlyWhenThereIsNone) {
    EXPECT_TRUE(SVRegistry::create());
    SignalTable* const first = Manager::handlerTables;
    EXPECT_FALSE(SVRegistry::create());
    EXPECT_EQ(Manager::handlerTables, first);
    EXPECT_TRUE(endIt());
}

TEST_F(Registry, IsBegunByOneOfTwoWhicheverInstructionTheOtherComesAt) {
    SKIP_WITHOUT_STEPS();
    bool tooLate = false;
    for (unsigned int number = 1; !tooLate; ++number) {
        bool first = false;
        bool second = false;
        ASSERT_TRUE(overtake([&first] { first = SVRegistry::create(); }, atInstruction(number),
                             [&second] { second = SVRegistry::create(); }));
        ASSERT_NE(first, second) << "with the other at instruction " << number;
        tooLate = !second;
        ASSERT_TRUE(endIt());
        SVRegistry::tidy();
    }
}

// --- Closed ------------------------------------------------------------------------------------

// Takes a version out of sight, as a change does that has no memory for a copy, and publishes it
// again when an operation has had the time to find that.
// Result: whether the operation has waited.
bool waitsQ(Version* version, const std::function<void()>& operation) {
    version->replaceBy(Version::closed());
    return overtake(operation, atInstruction(5000),
                    [version] { version->publishInsteadOf(Version::closed()); });
}

TEST_F(Registry, ThatIsClosedIsWaitedForByAReader) {
    SKIP_WITHOUT_STEPS();
    Manager manager(false);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    EXPECT_TRUE(waitsQ(Version::published(),
                       [&manager] { manager.callHandlers(SIGUSR1, nullptr, nullptr); }));
    EXPECT_EQ(callsOf(userHandler), 1U);
}

TEST_F(Registry, ThatIsClosedIsWaitedForByWhoeverEndsIt) {
    SKIP_WITHOUT_STEPS();
    const Manager manager(false);
    const Pin pin;
    bool retired = false;
    EXPECT_TRUE(waitsQ(pin.version(), [&] { retired = SVRegistry::retire(pin, false); }));
    EXPECT_TRUE(retired);
    EXPECT_EQ(Manager::handlerTables, nullptr);
}

// More instructions than it takes to look for it and to wait once.
TEST_F(Registry, ThatIsClosedIsEndedWheneverItIsPublishedAgain) {
    SKIP_WITHOUT_STEPS();
    for (unsigned int number = 1; number <= 600; ++number) {
        ASSERT_TRUE(SVRegistry::create());
        const Pin pin;
        Version* const version = pin.version();
        version->replaceBy(Version::closed());
        bool retired = false;
        EXPECT_TRUE(overtake([&] { retired = SVRegistry::retire(pin, false); },
                             atInstruction(number),
                             [version] { version->publishInsteadOf(Version::closed()); }));
        ASSERT_TRUE(retired) << "published at instruction " << number;
    }
}

TEST_F(Registry, ThatHasBeenReplacedIsNotEndedByItsFormerReader) {
    Manager manager(false);
    const Pin pin;
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    for (const bool othersQ : {false, true}) {
        EXPECT_FALSE(SVRegistry::retire(pin, othersQ));
        EXPECT_EQ(recordCount(SIGUSR1), 1U);
    }
}

TEST_F(Registry, ThatIsNoneIsEndedByNobody) {
    for (const bool othersQ : {false, true}) {
        const Pin pin;
        EXPECT_FALSE(SVRegistry::retire(pin, othersQ));
        EXPECT_EQ(Version::published(), nullptr);
    }
}

TEST_F(Registry, IsReplacedByAnEmptyOneWhereOthersGoOn) {
    Manager manager(false);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    {
        const Pin pin;
        EXPECT_TRUE(SVRegistry::retire(pin, true));
    }
    ASSERT_NE(Version::published(), nullptr);
    EXPECT_EQ(recordCount(SIGUSR1), 0U);
    SVRegistry::tidy();
}

// --- Records and tables ------------------------------------------------------------------------

TEST_F(Registry, StoresARecordThatIsNotToReplaceAnythingAlsoWithoutATable) {
    const Manager manager(false);
    SVRegistry::storeRecord(userRecord(SIGUSR1, userHandler), false, anyLine);
    EXPECT_NE(recordOf(SIGUSR1, userHandler), nullptr);
}

class TableByHand : public OneManagerTest {
protected:
    ~TableByHand() noexcept override = default;

    // Past the manager, which makes tables of a kind of its own.
    HandlerTable* put() {
        auto* const table = new HandlerTable;
        Manager::handlerTables->insert(SIGUSR1 - 1, table);
        return table;
    }
};

TEST_F(TableByHand, IsChangedInItsPlaceLikeAnyOther) {
    HandlerTable* const table = put();
    for (std::size_t i = 0; i < 6; ++i) {
        m_manager.setHandlerFromFunction(SIGUSR1, numberedHandlers.at(i));
    }
    m_manager.clearHandlerWithFunction(SIGUSR1, numberedHandlers.at(5));
    EXPECT_EQ(tableOf(SIGUSR1), table);
    EXPECT_EQ(recordCount(SIGUSR1), 5U);
}

TEST_F(TableByHand, StaysWhenAnotherSignalsRecordsChangeWhileSomebodyReads) {
    HandlerTable* const table = put();
    {
        const Pin reader;
        m_manager.setHandlerFromFunction(SIGUSR2, userHandler);
    }
    SVRegistry::tidy();
    EXPECT_EQ(tableOf(SIGUSR1), table);
    EXPECT_EQ(recordCount(SIGUSR2), 1U);
}

void registerAnother(int signalNumber) {
    Manager inHandler(false);
    inHandler.setHandlerFromFunction(signalNumber, otherUserHandler);
}

// A copy takes its place, of whose slots nothing is known: what is added is not called any more.
TEST_F(TableByHand, IsReadToItsEndAlthoughAHandlerChangesIt) {
    const std::unique_ptr<HandlerTable> table(put());
    m_manager.setHandlerFromFunction(SIGUSR1, registerAnother);
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    m_manager.callHandlers(SIGUSR1, nullptr, nullptr);
    EXPECT_NE(tableOf(SIGUSR1), table.get());
    EXPECT_EQ(callsOf(userHandler), 1U);
    EXPECT_EQ(callsOf(otherUserHandler), 0U);
    EXPECT_EQ(recordCount(SIGUSR1), 3U);
    // The version that has it is released before it.
    SVRegistry::tidy();
}

}  // namespace
