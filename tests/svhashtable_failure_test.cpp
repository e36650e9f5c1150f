// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What the hash table throws, and what it is like afterwards. Memory runs out for real here. What
// can't happen with the library's own keys is made to happen with keys of the test's own, for
// which single steps of the table are replaced.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <string>
#include <type_traits>
#include <vector>

#include "support/memory_limit.h"
#include "support/table_failure.h"
#include "support/table_kinds.h"

namespace {

using Sorvane::SVHashTable;
using Sorvane::SVObject;

constexpr auto allocationFailed = static_cast<Sorvane::svexceptiontype>(5);
constexpr auto internalError = static_cast<Sorvane::svexceptiontype>(20);

constexpr unsigned empty = 0;
constexpr unsigned deleted = 2;

constexpr unsigned lineNoCopy = 651;
constexpr unsigned lineNoHeapArray = 666;

void expectNoMemory(const Failure& failure, unsigned line) {
    expectTableFailure(failure, "Unable to allocate space for new table.", line, allocationFailed);
}

// ---- No memory -------------------------------------------------------------------------------

/// All of a table at one moment.
template <typename Kind>
class Snapshot {
public:
    explicit Snapshot(const typename Kind::Table& table)
        : m_table(table),
          m_used(table.used),
          m_fill(table.fill),
          m_mask(table.mask),
          m_slots(table.table) {
        for (unsigned i = 0; i <= table.mask + 1; ++i) {
            m_copies.push_back(copyOf(table.table[i]));
        }
    }

    void expectUnchanged() const {
        ASSERT_EQ(m_table.mask, m_mask);
        ASSERT_EQ(m_table.table, m_slots);
        EXPECT_EQ(m_table.used, m_used);
        EXPECT_EQ(m_table.fill, m_fill);
        for (unsigned i = 0; i <= m_mask + 1; ++i) {
            expectSame(copyOf(m_slots[i]), m_copies[i], i);
        }
    }

private:
    struct SlotCopy {
        unsigned state;
        unsigned hash = 0;
        typename Kind::Key key{};
        typename Kind::Value value{};
    };

    // An empty slot has a state, and the rest of it need not be defined.
    static SlotCopy copyOf(const typename Kind::Table::Entry& slot) {
        SlotCopy copy{slot.state};
        if (slot.state != empty) {
            copy.hash = slot.hash;
            copy.key = slot.key;
            copy.value = slot.value;
        }
        return copy;
    }

    static void expectSame(const SlotCopy& left, const SlotCopy& right, unsigned index) {
        EXPECT_EQ(left.state, right.state) << "slot " << index;
        EXPECT_EQ(left.hash, right.hash) << "slot " << index;
        EXPECT_EQ(left.key, right.key) << "slot " << index;
        EXPECT_TRUE(Kind::same(left.value, right.value)) << "slot " << index;
    }

    const typename Kind::Table& m_table;
    unsigned m_used;
    unsigned m_fill;
    unsigned m_mask;
    const typename Kind::Table::Entry* m_slots;
    std::vector<SlotCopy> m_copies;
};

template <typename Kind>
class WithoutMemory : public testing::Test {
protected:
    using Table = typename Kind::Table;

    void SetUp() override { SKIP_WITHOUT_MEMORY_LIMIT(); }

    void insert(std::initializer_list<unsigned> keys) {
        for (const unsigned key : keys) {
            insertValue(key, static_cast<int>(key));
        }
    }
    void insertValue(unsigned key, int number) {
        table.insert(Kind::key(key), Kind::value(number));
    }
    void remove(unsigned key) { table.remove(Kind::key(key)); }
    bool has(unsigned key) const { return table.has_key(Kind::key(key)); }

    /// Leaves deleted slots only.
    void fillWithDeletedSlots(unsigned count) {
        for (unsigned key = 0; key < count; ++key) {
            insert({key});
            remove(key);
        }
    }

    /// More keys than insert() would leave without growing.
    void overfill() {
        for (unsigned key = 0; key < 6; ++key) {
            table.insert_helper(Kind::key(key), Kind::value(static_cast<int>(key)));
        }
    }

    template <typename Operation>
    static Failure failureWithoutMemory(Operation operation) {
        const MemoryLimit limit;
        return failureOf(operation);
    }

    /// What one array of that many slots takes, with the count of elements that it carries.
    static std::size_t sizeOfSlots(std::size_t count) {
        using Entry = typename Table::Entry;
        return count * sizeof(Entry) + std::max(sizeof(std::size_t), alignof(Entry));
    }

    Table table;
};

struct KindNames {
    template <typename Kind>
    static std::string GetName(int) {
        return std::is_same_v<Kind, OuterTableKind> ? "Outer" : "Inner";
    }
};

using Kinds = testing::Types<OuterTableKind, InnerTableKind>;
TYPED_TEST_SUITE(WithoutMemory, Kinds, KindNames);

TYPED_TEST(WithoutMemory, AnInsertionThatHasToGrowThrowsAndLeavesTheTableAsItWas) {
    this->insert({0, 1, 2, 3, 4});
    const Snapshot<TypeParam> before(this->table);
    const Failure failure = this->failureWithoutMemory([this] { this->insert({5}); });
    expectNoMemory(failure, lineNoHeapArray);
    before.expectUnchanged();
    EXPECT_FALSE(this->has(5));
}

TYPED_TEST(WithoutMemory, TheSameInsertionSucceedsWhenMemoryIsBack) {
    this->insert({0, 1, 2, 3, 4});
    const Failure failure = this->failureWithoutMemory([this] { this->insert({5}); });
    ASSERT_TRUE(failure.has_value());
    this->insert({5});
    EXPECT_EQ(this->table.mask, 31U);
    EXPECT_EQ(this->table.used, 6U);
    EXPECT_TRUE(this->has(5));
}

TYPED_TEST(WithoutMemory, AnInsertionOnTheHeapThatHasToGrowThrowsAndLeavesTheTableAsItWas) {
    for (unsigned key = 0; key < 21; ++key) {
        this->insert({key});
    }
    this->remove(9);
    ASSERT_EQ(this->table.mask, 31U);
    const Snapshot<TypeParam> before(this->table);
    const Failure failure = this->failureWithoutMemory([this] { this->insert({25}); });
    expectNoMemory(failure, lineNoHeapArray);
    before.expectUnchanged();
    this->insert({25});
    EXPECT_EQ(this->table.mask, 127U);
}

TYPED_TEST(WithoutMemory, AnInsertionThatHasToCleanTheInlineSlotsThrowsAndLeavesTheTableAsItWas) {
    this->fillWithDeletedSlots(5);
    const Snapshot<TypeParam> before(this->table);
    const Failure failure = this->failureWithoutMemory([this] { this->insert({5}); });
    expectNoMemory(failure, lineNoCopy);
    before.expectUnchanged();
    this->insert({5});
    EXPECT_EQ(this->table.fill, 1U);
}

TYPED_TEST(WithoutMemory, AnInsertionThatHasToShrinkToTheInlineSlotsThrowsAndLeavesTheTable) {
    this->table.resize(16);
    this->fillWithDeletedSlots(21);
    const Snapshot<TypeParam> before(this->table);
    const Failure failure = this->failureWithoutMemory([this] { this->insert({21}); });
    expectNoMemory(failure, lineNoCopy);
    before.expectUnchanged();
    this->insert({21});
    EXPECT_EQ(this->table.table, this->table.smalltable);
}

TYPED_TEST(WithoutMemory, HoweverOftenMemoryRunsOutTheWalkStillFindsAnEmptySlot) {
    constexpr unsigned attempts = 1000;
    this->insert({0, 8, 16, 24, 32});
    const Snapshot<TypeParam> before(this->table);
    unsigned failures = 0;
    bool foundAny = false;
    {
        const MemoryLimit limit;
        for (unsigned attempt = 0; attempt < attempts; ++attempt) {
            const unsigned key = 40 + attempt;
            failures += failureOf([&] { this->insert({key}); }).has_value() ? 1U : 0U;
            foundAny = foundAny || this->has(key);
        }
    }
    EXPECT_EQ(failures, attempts);
    EXPECT_FALSE(foundAny);
    before.expectUnchanged();
}

TYPED_TEST(WithoutMemory, AReplacementThatHasToGrowThrowsAndTheOldValueStays) {
    this->overfill();
    const Snapshot<TypeParam> before(this->table);
    const Failure failure = this->failureWithoutMemory([this] { this->insertValue(3, 33); });
    expectNoMemory(failure, lineNoHeapArray);
    before.expectUnchanged();
}

TYPED_TEST(WithoutMemory, AnInsertionIntoADeletedSlotThatHasToGrowThrowsAndTheSlotStaysDeleted) {
    this->overfill();
    this->remove(3);
    const Snapshot<TypeParam> before(this->table);
    const Failure failure = this->failureWithoutMemory([this] { this->insert({11}); });
    expectNoMemory(failure, lineNoHeapArray);
    before.expectUnchanged();
    EXPECT_EQ(this->table.table[3].state, deleted);
    EXPECT_EQ(this->table.table[3].key, TypeParam::key(3));
}

TYPED_TEST(WithoutMemory, SubscriptOfAnAbsentKeyThatHasToGrowThrowsAndInsertsNothing) {
    this->insert({0, 1, 2, 3, 4});
    const Snapshot<TypeParam> before(this->table);
    const Failure failure = this->failureWithoutMemory([this] { this->table[TypeParam::key(5)]; });
    expectNoMemory(failure, lineNoHeapArray);
    before.expectUnchanged();
}

TYPED_TEST(WithoutMemory, ResizeToTheHeapThrowsAndLeavesTheTableAsItWas) {
    this->insert({2, 10, 18});
    this->remove(10);
    const Snapshot<TypeParam> before(this->table);
    const Failure failure = this->failureWithoutMemory([this] { this->table.resize(8); });
    expectNoMemory(failure, lineNoHeapArray);
    before.expectUnchanged();
}

TYPED_TEST(WithoutMemory, ResizeToTheInlineSlotsThrowsAndLeavesTheTableAsItWas) {
    this->insert({2, 10, 18});
    this->remove(10);
    const Snapshot<TypeParam> before(this->table);
    const Failure failure = this->failureWithoutMemory([this] { this->table.resize(0); });
    expectNoMemory(failure, lineNoCopy);
    before.expectUnchanged();
}

TYPED_TEST(WithoutMemory, ResizeFromTheHeapToTheInlineSlotsThrowsAndLeavesTheTableAsItWas) {
    this->table.resize(16);
    this->insert({2, 34, 66});
    const Snapshot<TypeParam> before(this->table);
    const Failure failure = this->failureWithoutMemory([this] { this->table.resize(7); });
    expectNoMemory(failure, lineNoCopy);
    before.expectUnchanged();
}

// So large that on a machine of 32 bits the size in bytes can't even be expressed.
TYPED_TEST(WithoutMemory, ResizeToAnImpossibleSizeIsAnAllocationThatFailed) {
    this->insert({2, 10});
    const Snapshot<TypeParam> before(this->table);
    const Failure failure = this->failureWithoutMemory([this] { this->table.resize(1U << 30); });
    expectNoMemory(failure, lineNoHeapArray);
    before.expectUnchanged();
}

TYPED_TEST(WithoutMemory, ResizeWithNothingToDoNeedsNoMemory) {
    this->insert({2, 10});
    unsigned result = 99;
    {
        const MemoryLimit limit;
        result = this->table.resize(0);
    }
    EXPECT_EQ(result, 0U);
}

TYPED_TEST(WithoutMemory, GrowthNeedsNoMoreThanItsNewArray) {
    this->insert({0, 1, 2, 3, 4});
    Failure failure;
    {
        const MemoryLimit limit({this->sizeOfSlots(33)});
        failure = failureOf([this] { this->insert({5}); });
    }
    EXPECT_FALSE(failure.has_value());
    EXPECT_EQ(this->table.mask, 31U);
}

TYPED_TEST(WithoutMemory, ACleanNeedsNoMoreThanItsTemporaryCopy) {
    this->fillWithDeletedSlots(5);
    Failure failure;
    {
        const MemoryLimit limit({this->sizeOfSlots(9)});
        failure = failureOf([this] { this->insert({5}); });
    }
    EXPECT_FALSE(failure.has_value());
    EXPECT_EQ(this->table.fill, 1U);
}

TYPED_TEST(WithoutMemory, EverythingThatNeedsNoGrowthWorks) {
    this->insert({2, 10, 3});
    unsigned visited = 0;
    bool present = false;
    bool absent = true;
    Failure failure;
    {
        const MemoryLimit limit;
        failure = failureOf([&] {
            this->remove(3);
            this->insertValue(2, 20);
            this->insertValue(4, 4);
            this->table[TypeParam::key(10)] = TypeParam::value(30);
            present = this->has(10) && this->table.get(TypeParam::key(4)) != nullptr;
            absent = this->has(3) || this->table.get(TypeParam::key(18)) != nullptr;
            for (auto position = this->table.begin(); position != this->table.end(); position++) {
                ++visited;
            }
        });
    }
    EXPECT_FALSE(failure.has_value());
    EXPECT_EQ(visited, 3U);
    EXPECT_TRUE(present);
    EXPECT_FALSE(absent);
    EXPECT_TRUE(TypeParam::same(this->table[TypeParam::key(2)], TypeParam::value(20)));
    EXPECT_TRUE(TypeParam::same(this->table[TypeParam::key(10)], TypeParam::value(30)));
}

// ---- What can't happen with the library's own keys -------------------------------------------

class NumberHash : public SVObject {
public:
    ~NumberHash() noexcept override {}
    template <typename Key>
    unsigned operator()(const Key& key) const {
        return key.number;
    }
};

/// A key that a table finds no slot for, while and where the test says so.
struct HomelessKey {
    unsigned number;

    bool operator==(const HomelessKey& other) const { return number == other.number; }

    static inline bool (*homeless)(const HomelessKey& key, unsigned mask) = nullptr;
};
using HomelessTable = SVHashTable<HomelessKey, int, NumberHash>;

/// A key that can't be stored for a reason that has no name.
struct UnstorableKey {
    unsigned number;

    bool operator==(const UnstorableKey& other) const { return number == other.number; }
};
using UnstorableTable = SVHashTable<UnstorableKey, int, NumberHash>;

/// A key for which no rebuild comes to its end.
struct UnmovableKey {
    unsigned number;

    bool operator==(const UnmovableKey& other) const { return number == other.number; }
};
using UnmovableTable = SVHashTable<UnmovableKey, int, NumberHash>;

/// A key that, once stored, is not found again.
struct UnequalKey {
    unsigned number;

    bool operator==(const UnequalKey&) const { return false; }
};
using UnequalTable = SVHashTable<UnequalKey, int, NumberHash>;

}  // namespace

// The slots in their order instead of the walk: enough for a test, as long as there is room.
template <>
HomelessTable::Entry* HomelessTable::lookup(const HomelessKey& key, unsigned) const {
    if (HomelessKey::homeless(key, mask)) {
        return nullptr;
    }
    Entry* slot = table;
    while (slot->state != empty && !(slot->key == key)) {
        ++slot;
    }
    return slot;
}

template <>
unsigned UnstorableTable::insert_helper(const UnstorableKey&, const int&) {
    return 0;
}

// Growth is a rebuild in room that was had before; unlike resize() it always has something to do.
template <>
unsigned UnmovableTable::rebuild(Room&) {
    return 1;
}

namespace {

void expectInternalError(const Failure& failure, const char* message, unsigned line) {
    expectTableFailure(failure, message, line, internalError);
}

class WithoutASlot : public testing::Test {
protected:
    void SetUp() override {
        HomelessKey::homeless = [](const HomelessKey&, unsigned) { return false; };
    }

    void insert(unsigned number) { table.insert({number}, static_cast<int>(number)); }
    Failure failureOfInsert(unsigned number) {
        return failureOf([&] { insert(number); });
    }

    static void makeAllHomeless() {
        HomelessKey::homeless = [](const HomelessKey&, unsigned) { return true; };
    }
    static void makeHomelessOnTheHeap() {
        HomelessKey::homeless = [](const HomelessKey&, unsigned mask) { return mask != 7; };
    }
    static void makeHomelessInline() {
        HomelessKey::homeless = [](const HomelessKey&, unsigned mask) { return mask == 7; };
    }

    HomelessTable table;
};

TEST_F(WithoutASlot, StoringWithoutGrowthGives1) {
    makeAllHomeless();
    EXPECT_EQ(table.insert_helper({1}, 1), 1U);
    EXPECT_EQ(table.used, 0U);
}

TEST_F(WithoutASlot, GetGivesNull) {
    insert(1);
    makeAllHomeless();
    EXPECT_EQ(table.get({1}), nullptr);
}

TEST_F(WithoutASlot, AnInsertionThrowsWhenTheRebuildFindsNothingToDo) {
    makeAllHomeless();
    expectInternalError(failureOfInsert(1), "Error ocurred while resizing table.", 739);
    EXPECT_EQ(table.used, 0U);
}

TEST_F(WithoutASlot, AnInsertionThrowsWhenTheRebuildFails) {
    insert(1);
    insert(2);
    makeAllHomeless();
    expectInternalError(failureOfInsert(3), "Error ocurred while resizing table.", 739);
}

TEST_F(WithoutASlot, AnInsertionSucceedsInTheSlotThatARebuildHasMade) {
    insert(1);
    insert(2);
    makeHomelessInline();
    insert(3);
    EXPECT_EQ(table.mask, 15U);
    EXPECT_EQ(table.used, 3U);
    EXPECT_TRUE(table.has_key({3}));
}

TEST_F(WithoutASlot, AnInsertionThrowsWhenTheGrowthThatFollowsItFails) {
    for (unsigned number = 1; number < 6; ++number) {
        insert(number);
    }
    makeHomelessOnTheHeap();
    expectInternalError(failureOfInsert(6), "Error occured while resizing table.", 755);
}

TEST_F(WithoutASlot, ResizeGives1AndLeavesTheTablePartlyRebuilt) {
    insert(1);
    insert(2);
    HomelessKey::homeless = [](const HomelessKey& key, unsigned mask) {
        return mask != 7 && key.number == 2;
    };
    EXPECT_EQ(table.resize(8), 1U);
    EXPECT_EQ(table.mask, 15U);
    EXPECT_EQ(table.used, 1U);
    EXPECT_TRUE(table.has_key({1}));
}

TEST_F(WithoutASlot, ResizeThatGives1DoesNotReleaseTheFormerHeapArray) {
    table.resize(8);
    insert(1);
    HomelessTable::Entry* const former = table.table;
    makeAllHomeless();
    EXPECT_EQ(table.resize(16), 1U);
    EXPECT_NE(table.table, former);
    EXPECT_EQ(former[0].key.number, 1U);
    // The heap gives a block of the same size the place of the one that was released last.
    HomelessTable::Entry* const another = new HomelessTable::Entry[17];
    EXPECT_NE(another, former);
    delete[] another;
    delete[] former;
}

TEST(WithoutAReason, AnInsertionThrowsWhenStoringGives0) {
    UnstorableTable table;
    const Failure failure = failureOf([&] { table.insert({1}, 1); });
    expectInternalError(failure, "Error occurred while inserting.", 743);
}

TEST(WithoutARebuild, AnInsertionThrowsWhenTheGrowthThatFollowsItFails) {
    UnmovableTable table;
    for (unsigned number = 0; number < 5; ++number) {
        table.insert({number}, 1);
    }
    const Failure failure = failureOf([&] { table.insert({5}, 1); });
    expectInternalError(failure, "Error occured while resizing table.", 755);
}

TEST(WithoutEquality, SubscriptThrowsWhenTheKeyIsStillAbsentAfterItsInsertion) {
    UnequalTable table;
    const Failure failure = failureOf([&] { table[{1}]; });
    expectInternalError(failure, "Internal lookup error during operator[].", 479);
    EXPECT_EQ(table.used, 1U);
}

}  // namespace
