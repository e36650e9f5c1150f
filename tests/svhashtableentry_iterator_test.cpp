// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The walk over the occupied slots of a table.

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/table_failure.h"
#include "support/table_kinds.h"

namespace {

constexpr auto misuse = static_cast<Sorvane::svexceptiontype>(12);

static_assert(noexcept(std::declval<OuterTableKind::Iterator>() ==
                       std::declval<OuterTableKind::Iterator>()));
static_assert(std::is_same_v<decltype(std::declval<const InnerTableKind::Iterator>().GetValue()),
                             const InnerTableKind::Value&>);

template <typename Kind>
class BothIterators : public testing::Test {
protected:
    using Iterator = typename Kind::Iterator;

    void insert(std::initializer_list<unsigned> keys) {
        for (const unsigned key : keys) {
            table.insert(Kind::key(key), Kind::value(static_cast<int>(key)));
        }
    }

    /// The slots of a whole walk, made as every loop over a table is made.
    std::vector<unsigned> slotsOfAWalk() {
        std::vector<unsigned> slots;
        for (Iterator position = table.begin(); position != table.end(); position++) {
            EXPECT_EQ(&position.GetValue(), &table.table[position.index].value);
            slots.push_back(position.index);
        }
        return slots;
    }

    static Failure failureOfStep(Iterator& position) {
        return failureOf([&] { position++; });
    }
    static Failure failureOfValue(const Iterator& position) {
        return failureOf([&] { position.GetValue(); });
    }

    static void expectPosition(const Iterator& position, const void* entries, unsigned size,
                               unsigned index) {
        EXPECT_EQ(position.entries, entries);
        EXPECT_EQ(position.size, size);
        EXPECT_EQ(position.index, index);
    }

    typename Kind::Table table;
};

struct KindNames {
    template <typename Kind>
    static std::string GetName(int) {
        return std::is_same_v<Kind, OuterTableKind> ? "Outer" : "Inner";
    }
};

using Kinds = testing::Types<OuterTableKind, InnerTableKind>;
TYPED_TEST_SUITE(BothIterators, Kinds, KindNames);

TYPED_TEST(BothIterators, OneThatIsNotReadyStandsOnTheFirstOfNoSlots) {
    const typename TypeParam::Iterator position;
    this->expectPosition(position, nullptr, 0, 0);
}

TYPED_TEST(BothIterators, TheEndIsTheEndSlotOfTheInlineArray) {
    this->expectPosition(this->table.end(), this->table.smalltable, 9, 8);
}

TYPED_TEST(BothIterators, TheEndIsTheEndSlotOfAHeapArray) {
    this->table.resize(8);
    this->expectPosition(this->table.end(), this->table.table, 17, 16);
}

TYPED_TEST(BothIterators, BeginOfAnEmptyTableIsItsEnd) {
    EXPECT_TRUE(this->table.begin() == this->table.end());
    EXPECT_FALSE(this->table.begin() != this->table.end());
    this->expectPosition(this->table.begin(), this->table.smalltable, 9, 8);
}

TYPED_TEST(BothIterators, BeginOfATableWithDeletedSlotsOnlyIsItsEnd) {
    this->insert({2, 10});
    this->table.remove(TypeParam::key(2));
    this->table.remove(TypeParam::key(10));
    EXPECT_TRUE(this->table.begin() == this->table.end());
}

TYPED_TEST(BothIterators, AStepOnAnEmptyTableThrowsIteratorAtEndAndChangesNothing) {
    auto position = this->table.begin();
    const Failure failure = this->failureOfStep(position);
    expectTableFailure(failure, "Iterator at end.", 121, misuse);
    this->expectPosition(position, this->table.smalltable, 9, 8);
}

TYPED_TEST(BothIterators, TheValueOfAnEmptyTableThrowsInvalidEntryAndChangesNothing) {
    const auto position = this->table.begin();
    const Failure failure = this->failureOfValue(position);
    expectTableFailure(failure, "Iterator refers to invalid table entry.", 213, misuse);
    this->expectPosition(position, this->table.smalltable, 9, 8);
}

TYPED_TEST(BothIterators, AStepOfAnIteratorThatIsNotReadyThrowsAndChangesNothing) {
    typename TestFixture::Iterator position;
    EXPECT_EQ(position.entries, nullptr);
    position.size = 9;
    position.index = 3;
    const Failure failure = this->failureOfStep(position);
    expectTableFailure(failure, "Iterator not ready to increment.", 119, misuse);
    this->expectPosition(position, nullptr, 9, 3);
}

TYPED_TEST(BothIterators, TheValueOfAnIteratorThatIsNotReadyThrowsAndChangesNothing) {
    typename TestFixture::Iterator position;
    position.size = 9;
    position.index = 3;
    const Failure failure = this->failureOfValue(position);
    expectTableFailure(failure, "Iterator not ready to get value.", 210, misuse);
    this->expectPosition(position, nullptr, 9, 3);
}

TYPED_TEST(BothIterators, NotBeingReadyIsReportedBeforeBeingAtTheEnd) {
    typename TestFixture::Iterator position;
    position.size = 1;
    position.index = 0;
    expectTableFailure(this->failureOfStep(position), "Iterator not ready to increment.", 119,
                       misuse);
}

TYPED_TEST(BothIterators, TheValueOfADeletedSlotThrowsInvalidEntry) {
    this->insert({2});
    const auto position = this->table.begin();
    this->table.remove(TypeParam::key(2));
    const Failure failure = this->failureOfValue(position);
    expectTableFailure(failure, "Iterator refers to invalid table entry.", 213, misuse);
    this->expectPosition(position, this->table.smalltable, 9, 2);
}

TYPED_TEST(BothIterators, AKeyInSlot7IsFirstAndOneStepFromTheEnd) {
    this->insert({7});
    auto position = this->table.begin();
    this->expectPosition(position, this->table.smalltable, 9, 7);
    position++;
    this->expectPosition(position, this->table.smalltable, 9, 8);
    EXPECT_TRUE(position == this->table.end());
}

TYPED_TEST(BothIterators, AStepBehindTheLastKeyThrowsIteratorAtEndEachTime) {
    this->insert({7});
    auto position = this->table.begin();
    position++;
    for (int attempt = 0; attempt < 3; ++attempt) {
        expectTableFailure(this->failureOfStep(position), "Iterator at end.", 121, misuse);
        this->expectPosition(position, this->table.smalltable, 9, 8);
    }
}

TYPED_TEST(BothIterators, ARemovedFirstKeyIsSkippedByBegin) {
    this->insert({1, 4, 6});
    this->table.remove(TypeParam::key(1));
    EXPECT_EQ(this->table.begin().index, 4U);
}

TYPED_TEST(BothIterators, ARemovedKeyInTheMiddleIsSkippedByTheStep) {
    this->insert({1, 4, 6});
    this->table.remove(TypeParam::key(4));
    EXPECT_EQ(this->slotsOfAWalk(), (std::vector<unsigned>{1, 6}));
}

TYPED_TEST(BothIterators, ARemovedLastKeyIsSkippedByTheStep) {
    this->insert({1, 4, 6});
    this->table.remove(TypeParam::key(6));
    EXPECT_EQ(this->slotsOfAWalk(), (std::vector<unsigned>{1, 4}));
}

TYPED_TEST(BothIterators, Keys2And10AreVisitedAs2And10) {
    this->insert({2, 10});
    EXPECT_EQ(this->slotsOfAWalk(), (std::vector<unsigned>{2, 5}));
    EXPECT_TRUE(TypeParam::same(this->table.begin().GetValue(), TypeParam::value(2)));
}

TYPED_TEST(BothIterators, Keys10And2AreVisitedAs10And2) {
    this->insert({10, 2});
    EXPECT_EQ(this->slotsOfAWalk(), (std::vector<unsigned>{2, 5}));
    EXPECT_TRUE(TypeParam::same(this->table.begin().GetValue(), TypeParam::value(10)));
}

TYPED_TEST(BothIterators, TheOrderIsThatOfTheSlotsAndNotThatOfInsertion) {
    this->insert({6, 1, 4, 0});
    EXPECT_EQ(this->slotsOfAWalk(), (std::vector<unsigned>{0, 1, 4, 6}));
}

TYPED_TEST(BothIterators, AWalkOverAHeapArrayVisitsAllItsKeys) {
    std::vector<unsigned> expected;
    for (unsigned key = 0; key < 120; key += 5) {
        this->insert({key});
        expected.push_back(key);
    }
    ASSERT_EQ(this->table.mask, 127U);
    EXPECT_EQ(this->slotsOfAWalk(), expected);
}

TYPED_TEST(BothIterators, BothCopiesOfAKeyAreVisited) {
    this->insert({2, 10, 18});
    this->table.remove(TypeParam::key(10));
    this->insert({18});
    EXPECT_EQ(this->slotsOfAWalk(), (std::vector<unsigned>{2, 3, 5}));
}

TYPED_TEST(BothIterators, ACopyStandsOnTheSameSlotAndMovesByItself) {
    this->insert({1, 4});
    auto position = this->table.begin();
    const auto copy = position;
    EXPECT_TRUE(copy == position);
    position++;
    EXPECT_TRUE(copy != position);
    this->expectPosition(copy, this->table.smalltable, 9, 1);
    position = copy;
    EXPECT_TRUE(copy == position);
}

TYPED_TEST(BothIterators, EqualityTakesAllThreeFields) {
    this->insert({1, 4});
    const auto position = this->table.begin();
    auto other = position;
    other.index = 4;
    EXPECT_FALSE(position == other);
    other = position;
    other.size = 17;
    EXPECT_FALSE(position == other);
    other = position;
    other.entries = nullptr;
    EXPECT_FALSE(position == other);
}

TYPED_TEST(BothIterators, AnIteratorFromBeforeARebuildStillRefersToTheFormerArray) {
    this->insert({1});
    const auto position = this->table.begin();
    this->table.resize(8);
    this->expectPosition(position, this->table.smalltable, 9, 1);
    EXPECT_NE(static_cast<const void*>(position.entries), this->table.table);
}

TYPED_TEST(BothIterators, DestroyingAnIteratorReleasesNothing) {
    this->table.resize(8);
    this->insert({1});
    { const auto position = this->table.begin(); }
    EXPECT_EQ(this->slotsOfAWalk(), std::vector<unsigned>{1});
}

}  // namespace
