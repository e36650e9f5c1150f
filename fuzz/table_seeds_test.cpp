// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The table against its model: long histories from fixed seeds, in both of the instantiations that
// the manager uses. After every step the two must agree about every slot.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "fuzz/table_history.h"
#include "support/table_kinds.h"

namespace {

void expectThatEverythingHappened(const TableEvents& events, bool hashesCanCollide) {
    EXPECT_GT(events.growths, 0U);
    EXPECT_GT(events.shrinksToSmallerHeapArray, 0U);
    EXPECT_GT(events.shrinksToInlineArray, 0U);
    EXPECT_GT(events.heapCleansAtTheSameSize, 0U);
    EXPECT_GT(events.inlineCleans, 0U);
    EXPECT_GT(events.resizesWithNothingToDo, 0U);
    EXPECT_GT(events.replacements, 0U);
    EXPECT_GT(events.deletedSlots, 0U);
    EXPECT_GT(events.deletedHomeSlotsPassedOver, 0U);
    EXPECT_GT(events.deletedHomeSlotsReused, 0U);
    EXPECT_GT(events.walksEndedByDeletedSlot, 0U);
    EXPECT_GT(events.unreachableCopies, 0U);
    EXPECT_GT(events.copiesMerged, 0U);
    EXPECT_GT(events.longWalks, 0U);
    EXPECT_EQ(events.differentKeysWithOneHash > 0, hashesCanCollide);
}

// One test for each seed, so that each has a process and a line in the report of its own.
class SVHashTableModel : public testing::TestWithParam<unsigned> {
protected:
    // Some 15000 steps.
    static constexpr std::size_t byteCount = 60000;

    template <typename Kind>
    void play(bool hashesCanCollide) {
        const Bytes bytes = bytesFromSeed(GetParam(), byteCount);
        ByteSource source(bytes);
        TableHistory<Kind> history(source);
        const std::string disagreement = history.play();
        ASSERT_EQ(disagreement, "") << "with seed " << GetParam();
        expectThatEverythingHappened(history.events(), hashesCanCollide);
    }
};

TEST_P(SVHashTableModel, OuterTableAgreesAfterEveryStep) {
    play<OuterTableKind>(false);
}

TEST_P(SVHashTableModel, InnerTableAgreesAfterEveryStep) {
    play<InnerTableKind>(sizeof(void*) > sizeof(std::uint32_t));
}

INSTANTIATE_TEST_SUITE_P(Histories, SVHashTableModel,
                         testing::Values(1U, 7U, 1960U, 40499U, 3141592653U),
                         [](const testing::TestParamInfo<unsigned>& seed) {
                             return "FromSeed" + std::to_string(seed.param);
                         });

}  // namespace
