// One version of the registry: who has it, and when it is released.

#include <../utilities/svregistryversion.h>
#include <gtest/gtest.h>

#include <optional>

#include "support/manager_fixture.h"
#include "support/overtaking.h"
#include "support/sanitizers.h"

namespace {

using Version = Sorvane::SVRegistryVersion;

class RegistryVersion : public ManagerTest {};

// A reader that is late pins a version that is not published any more, and takes its pin away when
// he finds that out. Until he comes too late for that, the version stays for him, and is released
// after him.
TEST_F(RegistryVersion, IsReleasedOnceItsLateReaderHasGoneWhicheverInstructionHeComesAt) {
    SKIP_WITHOUT_STEPS();
    bool tooLate = false;
    unsigned int number = 0;
    while (!tooLate) {
        ++number;
        Version* const version = Version::make();
        version->retire();
        ASSERT_TRUE(overtake(&Version::reclaimUnread, atInstruction(number),
                             [version] { version->pin(); }));
        tooLate = version->takeQ();
        version->unpin();
        if (!tooLate) {
            Version::reclaimUnread();
            ASSERT_TRUE(version->takeQ()) << "with a reader at instruction " << number;
        }
        version->discard();
    }
    EXPECT_GT(number, 10U);
}

// Whoever comes later leaves it alone, also if it is in use again by then.
TEST_F(RegistryVersion, IsReleasedOnceByWhoeverOfTwoComesFirstWhicheverInstructionHeComesAt) {
    SKIP_WITHOUT_STEPS();
    constexpr int anyKey = 5;
    bool tooLate = false;
    unsigned int number = 0;
    while (!tooLate) {
        ++number;
        Version* const version = Version::make();
        version->retire();
        bool usedAgain = false;
        const auto releaseAndUseAgain = [&] {
            tooLate = version->takeQ();
            if (tooLate) {
                return;
            }
            Version::reclaimUnread();
            usedAgain = version->takeQ();
            if (usedAgain) {
                version->insert(anyKey, nullptr);
            }
        };
        ASSERT_TRUE(overtake(&Version::reclaimUnread, atInstruction(number), releaseAndUseAgain));
        ASSERT_EQ(version->used, usedAgain ? 1U : 0U) << "with the other at instruction " << number;
        ASSERT_EQ(version->takeQ(), !usedAgain && !tooLate)
            << "with the other at instruction " << number;
        version->discard();
    }
    EXPECT_GT(number, 10U);
}

TEST_F(RegistryVersion, ThatIsDeletedByHandKeepsItsStorageForItsReaders) {
    if (builtWithAddressSanitizer) {
        GTEST_SKIP() << "the sanitizer takes what was destroyed for no object";
    }
    std::optional<Manager> manager(std::in_place, true);
    Version* const version = Version::published();
    version->pin();
    delete Manager::handlerTables;
    Manager::handlerTables = nullptr;
    EXPECT_EQ(version->pins(), 1U);
    version->unpin();

    manager.emplace(true);
    EXPECT_NE(Manager::handlerTables, nullptr);
    EXPECT_NE(Version::published(), version) << "it is not used again";
    manager->setHandlerFromFunction(SIGUSR1, userHandler);
    EXPECT_EQ(recordCount(SIGUSR1), 1U);
}

}  // namespace
