// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The hash table: where keys go, what removal leaves behind, when the table is rebuilt and at what
// size, and in which order it gives up what it holds.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/table_kinds.h"
#include "support/tracked_value.h"

namespace {

using Sorvane::SVHashTable;
using Sorvane::SVHashTableEntry;
using Sorvane::SVObject;

constexpr unsigned empty = 0;
constexpr unsigned occupied = 1;
constexpr unsigned deleted = 2;

static_assert(!std::is_copy_constructible_v<TrackedTable>);
static_assert(!std::is_copy_assignable_v<TrackedTable>);

// ---- What holds for both instantiations ------------------------------------------------------

template <typename Kind>
class BothTables : public testing::Test {
protected:
    using Table = typename Kind::Table;

    void insert(std::initializer_list<unsigned> keys) {
        for (const unsigned key : keys) {
            table.insert(Kind::key(key), Kind::value(static_cast<int>(key)));
        }
    }

    void remove(std::initializer_list<unsigned> keys) {
        for (const unsigned key : keys) {
            table.remove(Kind::key(key));
        }
    }

    /// Inserts and removes keys that all have slots of their own, so that used is 0 in the end.
    void fillWithDeletedSlots(unsigned firstKey, unsigned count) {
        for (unsigned key = firstKey; key < firstKey + count; ++key) {
            insert({key});
            remove({key});
        }
    }

    bool has(unsigned key) const { return table.has_key(Kind::key(key)); }

    /// The slot that holds a key, or where it would go.
    long slotOf(unsigned key) const {
        return static_cast<long>(table.lookup(Kind::key(key), key) - table.table);
    }

    void expectSlot(unsigned index, unsigned key, unsigned state) const {
        EXPECT_EQ(table.table[index].state, state) << "slot " << index;
        EXPECT_EQ(table.table[index].key, Kind::key(key)) << "slot " << index;
        EXPECT_EQ(table.table[index].hash, key) << "slot " << index;
    }

    void expectValue(unsigned index, int number) const {
        EXPECT_TRUE(Kind::same(table.table[index].value, Kind::value(number))) << "slot " << index;
    }

    void expectCounts(unsigned used, unsigned fill, unsigned slots) const {
        EXPECT_EQ(table.used, used);
        EXPECT_EQ(table.fill, fill);
        EXPECT_EQ(table.mask + 1, slots);
        EXPECT_EQ(table.table == table.smalltable, slots == 8);
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
TYPED_TEST_SUITE(BothTables, Kinds, KindNames);

TYPED_TEST(BothTables, ANewTableIsInlineAndEmpty) {
    EXPECT_EQ(this->table.mask, 7U);
    EXPECT_EQ(this->table.used, 0U);
    EXPECT_EQ(this->table.fill, 0U);
    EXPECT_EQ(this->table.table, this->table.smalltable);
    for (const auto& slot : this->table.smalltable) {
        EXPECT_EQ(slot.state, empty);
    }
}

TYPED_TEST(BothTables, ANewTableHasNoKeyAtAll) {
    for (const unsigned key : {0U, 1U, 7U, 8U, 59U, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        EXPECT_FALSE(this->has(key)) << key;
        EXPECT_EQ(this->table.get(TypeParam::key(key)), nullptr) << key;
    }
}

TYPED_TEST(BothTables, TheFieldsLieInTheirOrder) {
    const auto* const first = static_cast<const void*>(&this->table.used);
    const void* const places[] = {&this->table.fill, &this->table.mask, &this->table.table,
                                  &this->table.smalltable, &this->table.hashFunction};
    const void* before = first;
    for (const void* const place : places) {
        EXPECT_LT(before, place);
        before = place;
    }
    EXPECT_EQ(sizeof(this->table.smalltable), 9 * sizeof(this->table.smalltable[0]));
}

TYPED_TEST(BothTables, TheFieldsOfASlotLieInTheirOrder) {
    const auto& slot = this->table.smalltable[0];
    EXPECT_LT(static_cast<const void*>(&slot.key), static_cast<const void*>(&slot.value));
    EXPECT_LT(static_cast<const void*>(&slot.value), static_cast<const void*>(&slot.hash));
    EXPECT_LT(static_cast<const void*>(&slot.hash), static_cast<const void*>(&slot.state));
}

TYPED_TEST(BothTables, FiveKeysStayInline) {
    this->insert({0, 1, 2, 3, 4});
    this->expectCounts(5, 5, 8);
}

TYPED_TEST(BothTables, TheSixthKeyRebuildsTo32Slots) {
    this->insert({0, 1, 2, 3, 4, 5});
    this->expectCounts(6, 6, 32);
    for (unsigned key = 0; key < 6; ++key) {
        this->expectSlot(key, key, occupied);
        this->expectValue(key, static_cast<int>(key));
    }
}

TYPED_TEST(BothTables, InsertingAnExistingKeyReplacesItsValueAndLeavesTheCounts) {
    this->insert({2, 10});
    this->table.insert(TypeParam::key(10), TypeParam::value(33));
    this->expectCounts(2, 2, 8);
    this->expectSlot(5, 10, occupied);
    this->expectValue(5, 33);
    this->expectValue(2, 2);
}

TYPED_TEST(BothTables, Keys2And10ShareAHomeSlotAndTheSecondGoesToSlot5) {
    this->insert({2, 10});
    this->expectSlot(2, 2, occupied);
    this->expectSlot(5, 10, occupied);
}

TYPED_TEST(BothTables, Keys2And10And18LieInSlots2And5And3) {
    this->insert({2, 10, 18});
    this->expectSlot(2, 2, occupied);
    this->expectSlot(5, 10, occupied);
    this->expectSlot(3, 18, occupied);
}

TYPED_TEST(BothTables, TheHigherBitsOfAKeyTakePartInItsWalk) {
    // 18, without such bits, goes to slot 3; 66 = 64 + 2 meets 2 and 10 as well, and turns off.
    this->insert({2, 10, 66});
    this->expectSlot(2, 2, occupied);
    this->expectSlot(5, 10, occupied);
    this->expectSlot(4, 66, occupied);
}

TYPED_TEST(BothTables, TheWalkWrapsAroundIn32Bits) {
    this->insert({7, 0xffffffff});
    this->expectSlot(7, 7, occupied);
    this->expectSlot(3, 0xffffffff, occupied);
}

TYPED_TEST(BothTables, RemovalLeavesFillAndDecrementsUsed) {
    this->insert({2, 10});
    this->remove({10});
    this->expectCounts(1, 2, 8);
    EXPECT_FALSE(this->has(10));
    EXPECT_TRUE(this->has(2));
}

TYPED_TEST(BothTables, RemovalKeepsKeyHashAndValueInTheSlot) {
    this->insert({2, 10});
    this->remove({10});
    this->expectSlot(5, 10, deleted);
    this->expectValue(5, 10);
}

TYPED_TEST(BothTables, RemovingAnAbsentKeyDoesNothing) {
    this->insert({2});
    this->remove({10, 3, 2, 2});
    this->expectCounts(0, 1, 8);
}

TYPED_TEST(BothTables, ReusingADeletedSlotDoesNotIncrementFill) {
    this->insert({2});
    this->remove({2});
    this->insert({10});
    this->expectCounts(1, 1, 8);
    this->expectSlot(2, 10, occupied);
    this->expectValue(2, 10);
}

TYPED_TEST(BothTables, ReusingADeletedSlotDoesNotMakeTheTableGrow) {
    this->insert({0, 1, 2, 3, 4});
    this->remove({2});
    EXPECT_FALSE(this->table.growsWithQ(TypeParam::key(2)));
    EXPECT_TRUE(this->table.growsWithQ(TypeParam::key(5)));
    this->insert({2});
    this->expectCounts(5, 5, 8);
}

TYPED_TEST(BothTables, ADeletedHomeSlotIsPassedOver) {
    this->insert({2, 10});
    this->remove({2});
    EXPECT_TRUE(this->has(10));
    EXPECT_EQ(this->slotOf(10), 5);
}

TYPED_TEST(BothTables, AnAbsentKeyWithADeletedHomeSlotWouldGoThere) {
    this->insert({2, 10});
    this->remove({2});
    EXPECT_EQ(this->slotOf(18), 2);
    EXPECT_EQ(this->slotOf(2), 2);
}

TYPED_TEST(BothTables, ADeletedSlotBeyondTheHomeSlotEndsTheWalk) {
    this->insert({2, 10, 18});
    this->remove({10});
    EXPECT_FALSE(this->has(18));
    EXPECT_EQ(this->table.get(TypeParam::key(18)), nullptr);
    EXPECT_EQ(this->slotOf(18), 5);
    this->expectSlot(3, 18, occupied);
}

TYPED_TEST(BothTables, ADeletedKeyBehindADeletedHomeSlotWouldGoToItsHomeSlot) {
    this->insert({2, 10});
    this->remove({10, 2});
    EXPECT_EQ(this->slotOf(10), 2);
}

TYPED_TEST(BothTables, AKeyBehindADeletedSlotCannotBeRemovedEither) {
    this->insert({2, 10, 18});
    this->remove({10, 18});
    this->expectCounts(2, 3, 8);
    this->expectSlot(3, 18, occupied);
}

TYPED_TEST(BothTables, AKeyInsertedAgainBehindADeletedSlotLeavesAnUnreachableSecondCopy) {
    this->insert({2, 10, 18});
    this->remove({10});
    this->table.insert(TypeParam::key(18), TypeParam::value(40));
    this->expectCounts(3, 3, 8);
    this->expectSlot(5, 18, occupied);
    this->expectValue(5, 40);
    this->expectSlot(3, 18, occupied);
    this->expectValue(3, 18);
    EXPECT_EQ(this->slotOf(18), 5);
}

TYPED_TEST(BothTables, ARebuildMergesTheCopiesOfAKeyAndTheOneInTheLaterSlotWins) {
    this->insert({2, 10, 18});
    this->remove({10});
    this->table.insert(TypeParam::key(18), TypeParam::value(40));
    EXPECT_EQ(this->table.resize(8), 2U);
    this->expectCounts(2, 2, 16);
    EXPECT_TRUE(TypeParam::same(this->table[TypeParam::key(18)], TypeParam::value(40)));
}

TYPED_TEST(BothTables, GetGivesTheSlotOfAPresentKey) {
    this->insert({2, 10});
    EXPECT_EQ(this->table.get(TypeParam::key(10)), &this->table.table[5]);
}

TYPED_TEST(BothTables, LookupGivesTheSlotWhereAnAbsentKeyWouldGo) {
    this->insert({2});
    EXPECT_EQ(this->slotOf(3), 3);
    EXPECT_EQ(this->slotOf(10), 5);
    this->expectCounts(1, 1, 8);
}

TYPED_TEST(BothTables, SubscriptOfAPresentKeyRefersToItsValueAndInsertsNothing) {
    this->insert({2, 10});
    EXPECT_EQ(&this->table[TypeParam::key(10)], &this->table.table[5].value);
    this->expectCounts(2, 2, 8);
    this->expectValue(5, 10);
}

TYPED_TEST(BothTables, SubscriptOfAnAbsentKeyInsertsItAndRefersToItsValue) {
    auto& value = this->table[TypeParam::key(10)];
    this->expectCounts(1, 1, 8);
    this->expectSlot(2, 10, occupied);
    EXPECT_EQ(&value, &this->table.table[2].value);
    value = TypeParam::value(4);
    EXPECT_TRUE(TypeParam::same(this->table.get(TypeParam::key(10))->value, TypeParam::value(4)));
}

TYPED_TEST(BothTables, SubscriptThatMakesTheTableGrowRefersToTheNewSlots) {
    this->insert({0, 1, 2, 3, 4});
    auto& value = this->table[TypeParam::key(37)];
    this->expectCounts(6, 6, 32);
    EXPECT_EQ(&value, &this->table.table[5].value);
}

TYPED_TEST(BothTables, StoringWithoutGrowthStaysInline) {
    for (unsigned key = 0; key < 7; ++key) {
        EXPECT_EQ(this->table.insert_helper(TypeParam::key(key), TypeParam::value(1)), 2U);
    }
    this->expectCounts(7, 7, 8);
    EXPECT_EQ(this->table.insert_helper(TypeParam::key(6), TypeParam::value(9)), 2U);
    this->expectCounts(7, 7, 8);
    this->expectValue(6, 9);
}

TYPED_TEST(BothTables, ReplacingAValueChecksForGrowthToo) {
    for (unsigned key = 0; key < 6; ++key) {
        this->table.insert_helper(TypeParam::key(key), TypeParam::value(1));
    }
    this->insert({3});
    this->expectCounts(6, 6, 32);
    this->expectValue(3, 3);
}

TYPED_TEST(BothTables, ResizeTo0OfAnInlineTableWithoutDeletedSlotsDoesNothing) {
    this->insert({2, 10});
    for (const unsigned minimum : {0U, 1U, 7U}) {
        EXPECT_EQ(this->table.resize(minimum), 0U);
        this->expectCounts(2, 2, 8);
        this->expectSlot(2, 2, occupied);
        this->expectSlot(5, 10, occupied);
    }
}

TYPED_TEST(BothTables, ResizeTo0OfAnInlineTableWithDeletedSlotsRebuildsIt) {
    this->insert({2, 10, 3});
    this->remove({2});
    EXPECT_EQ(this->table.resize(0), 2U);
    this->expectCounts(2, 2, 8);
    this->expectSlot(2, 10, occupied);
    this->expectValue(2, 10);
    this->expectSlot(3, 3, occupied);
    EXPECT_EQ(this->table.table[5].state, empty);
}

TYPED_TEST(BothTables, AnInlineTableThatIsRebuiltKeepsTheKeyInItsLastSlot) {
    this->insert({2, 7});
    this->remove({2});
    EXPECT_EQ(this->table.resize(0), 2U);
    this->expectCounts(1, 1, 8);
    this->expectSlot(7, 7, occupied);
    this->expectValue(7, 7);
}

TYPED_TEST(BothTables, AKeyThatIsThereMakesATableGrowByTheKeysThatThereAre) {
    this->insert({1, 2, 3, 4, 5, 6, 7});
    EXPECT_EQ(this->table.resize(0), 2U);
    this->expectCounts(7, 7, 8);
    this->insert({3});
    this->expectCounts(7, 7, 32);
}

TYPED_TEST(BothTables, ResizeGivesTheSmallestSizeAboveItsArgumentFrom16On) {
    const unsigned sizes[][2] = {{8, 16},  {9, 16},  {15, 16}, {16, 32}, {24, 32},
                                 {31, 32}, {32, 64}, {63, 64}, {64, 128}};
    this->insert({2, 10});
    for (const auto& [minimum, slots] : sizes) {
        EXPECT_EQ(this->table.resize(minimum), 2U);
        this->expectCounts(2, 2, slots);
        EXPECT_TRUE(this->has(2) && this->has(10)) << slots;
    }
}

// Twice the largest power of two wraps to 0, which ends the doubling; nothing but the end slot is
// left then.
TYPED_TEST(BothTables, ResizeToMoreSlotsThanCanBeCountedGivesNone) {
    EXPECT_EQ(this->table.resize(1U << 31), 2U);
    EXPECT_EQ(this->table.mask, std::numeric_limits<unsigned>::max());
    EXPECT_TRUE(this->table.begin() == this->table.end());
    auto* const endSlot = std::exchange(this->table.table, this->table.smalltable);
    this->table.mask = 7;
    delete[] endSlot;
}

TYPED_TEST(BothTables, ResizeBelow8BringsAHeapTableBackInline) {
    this->insert({0, 1, 2, 3, 4, 5});
    this->remove({5});
    EXPECT_EQ(this->table.resize(7), 2U);
    this->expectCounts(5, 5, 8);
    for (unsigned key = 0; key < 5; ++key) {
        this->expectSlot(key, key, occupied);
        this->expectValue(key, static_cast<int>(key));
    }
}

TYPED_TEST(BothTables, ResizeBelow8BringsAHeapTableWithNothingToCleanBackInline) {
    this->insert({2, 10});
    this->table.resize(8);
    this->expectCounts(2, 2, 16);
    EXPECT_EQ(this->table.resize(0), 2U);
    this->expectCounts(2, 2, 8);
    EXPECT_TRUE(this->has(2) && this->has(10));
}

TYPED_TEST(BothTables, ResizeOfAHeapTableRebuildsAlsoWithNothingToClean) {
    this->insert({2});
    this->table.resize(8);
    const auto* const before = this->table.table;
    EXPECT_EQ(this->table.resize(8), 2U);
    this->expectCounts(1, 1, 16);
    EXPECT_NE(this->table.table, before);
}

TYPED_TEST(BothTables, ATableOf32SlotsWithTwoKeysAndFill22ComesDownTo16) {
    this->table.resize(16);
    this->insert({40});
    this->fillWithDeletedSlots(10, 20);
    this->expectCounts(1, 21, 32);
    this->insert({0});
    this->expectCounts(2, 2, 16);
    EXPECT_TRUE(this->has(0) && this->has(40));
}

TYPED_TEST(BothTables, ATableOf32SlotsWithOneKeyAndFill22ComesDownToTheInline8) {
    this->table.resize(16);
    this->fillWithDeletedSlots(10, 21);
    this->expectCounts(0, 21, 32);
    this->insert({0});
    this->expectCounts(1, 1, 8);
    EXPECT_TRUE(this->has(0));
}

TYPED_TEST(BothTables, AnInlineTableOfDeletedSlotsIsCleanedByAnInsertionAndStaysInline) {
    this->fillWithDeletedSlots(0, 5);
    this->expectCounts(0, 5, 8);
    this->insert({5});
    this->expectCounts(1, 1, 8);
    this->expectSlot(5, 5, occupied);
    EXPECT_EQ(this->table.table[0].state, empty);
}

TYPED_TEST(BothTables, TheTableGrowsAtTwoThirdsOfItsSlots) {
    const unsigned growths[][2] = {{22, 128}, {86, 512}};
    unsigned key = 0;
    for (const auto& [keys, slots] : growths) {
        while (key < keys - 1) {
            this->insert({key++});
        }
        EXPECT_LT(this->table.mask + 1, slots);
        this->insert({key++});
        this->expectCounts(keys, keys, slots);
    }
}

TYPED_TEST(BothTables, TheSlotArrayHasAnEndSlotThatStaysEmpty) {
    for (unsigned key = 0; key < 100; ++key) {
        this->insert({key * 8 + 7});
        ASSERT_EQ(this->table.table[this->table.mask + 1].state, empty);
        ASSERT_EQ(this->table.smalltable[8].state, empty);
    }
}

// ---- Where the two instantiations differ -----------------------------------------------------

using OuterTable = OuterTableKind::Table;
using InnerTable = InnerTableKind::Table;

TEST(OuterTable, GrowthQuadruplesUpTo29999KeysAndDoublesFrom30000On) {
    // 65536 slots, filled to one slot less than two thirds, of which so many are deleted that the
    // next insertion leaves exactly the wanted number of keys.
    const unsigned expected[][2] = {{29999, 131072}, {30000, 65536}};
    for (const auto& [keys, slots] : expected) {
        OuterTable table;
        table.resize(65535);
        ASSERT_EQ(table.mask + 1, 65536U);
        for (int key = 0; key < 43690; ++key) {
            table.insert(key, nullptr);
        }
        for (int key = 0; table.used > keys - 1; ++key) {
            table.remove(key);
        }
        ASSERT_EQ(table.fill, 43690U);
        table.insert(50000, nullptr);
        EXPECT_EQ(table.used, keys);
        EXPECT_EQ(table.fill, keys);
        EXPECT_EQ(table.mask + 1, slots);
    }
}

TEST(OuterTable, ANegativeKeyHashesToItsBits) {
    OuterTable table;
    table.insert(-1, nullptr);
    EXPECT_EQ(table.table[7].hash, 0xffffffffU);
    table.insert(std::numeric_limits<int>::min(), nullptr);
    EXPECT_EQ(table.table[0].hash, 0x80000000U);
}

// Records its destruction, and is an inner table for everyone else.
class MortalInnerTable : public InnerTable {
public:
    explicit MortalInnerTable(int& deaths) : m_deaths(deaths) {}
    ~MortalInnerTable() noexcept override { ++m_deaths; }

private:
    int& m_deaths;
};

TEST(OuterTable, NothingThatATableDoesDeletesWhatItsPointersPointTo) {
    int deaths = 0;
    {
        MortalInnerTable value(deaths);
        {
            OuterTable table;
            for (int key = 0; key < 30; ++key) {
                table.insert(key, &value);
            }
            table.insert(3, nullptr);
            table.remove(4);
            table.resize(200);
        }
        EXPECT_EQ(deaths, 0);
    }
    EXPECT_EQ(deaths, 1);
}

TEST(InnerTable, ThePointersLow32BitsAreItsHashAndTheWholePointerIsTheKey) {
    if constexpr (sizeof(void*) > sizeof(std::uint32_t)) {
        InnerTable table;
        void* const low = InnerTableKind::key(0x12345672);
        void* const high = InnerTableKind::key(0xabcd0000'12345672);
        table.insert(low, InnerTableKind::value(1));
        EXPECT_FALSE(table.has_key(high));
        table.insert(high, InnerTableKind::value(2));
        EXPECT_EQ(table.used, 2U);
        EXPECT_EQ(table.get(low)->hash, 0x12345672U);
        EXPECT_EQ(table.get(high)->hash, 0x12345672U);
        EXPECT_NE(table.get(low), table.get(high));
    } else {
        GTEST_SKIP() << "pointers have 32 bits here, and all of them are in the hash";
    }
}

TEST(InnerTable, SubscriptOfAnAbsentKeyInsertsADefaultRecord) {
    InnerTable table;
    EXPECT_TRUE(InnerTableKind::same(table[InnerTableKind::key(3)], InnerTableKind::value(0)));
}

TEST(InnerTable, AStoredRecordIsACopy) {
    InnerTable table;
    InnerTableKind::Value record = InnerTableKind::value(5);
    table.insert(InnerTableKind::key(3), record);
    record = InnerTableKind::value(6);
    EXPECT_TRUE(InnerTableKind::same(table[InnerTableKind::key(3)], InnerTableKind::value(5)));
}

TEST(InnerTable, ARebuildLeavesDefaultRecordsInEmptySlots) {
    InnerTable table;
    table.insert(InnerTableKind::key(2), InnerTableKind::value(1));
    table.insert(InnerTableKind::key(3), InnerTableKind::value(2));
    table.remove(InnerTableKind::key(2));
    EXPECT_EQ(table.resize(0), 2U);
    EXPECT_EQ(table.table[2].state, empty);
    EXPECT_TRUE(InnerTableKind::same(table.table[2].value, InnerTableKind::value(0)));
}

// ---- Hashes and keys that disagree -----------------------------------------------------------

// Equal by its name alone, while its hash is its own affair.
struct HashedKey {
    int name;
    unsigned hash;

    bool operator==(const HashedKey& other) const { return name == other.name; }
};

class GivenHash : public SVObject {
public:
    ~GivenHash() noexcept override {}
    unsigned operator()(const HashedKey& key) const { return key.hash; }
};

using HashedTable = SVHashTable<HashedKey, int, GivenHash>;

TEST(StoredHash, TheHomeSlotIsTheKeysOnlyIfTheStoredHashAgrees) {
    HashedTable table;
    table.insert({1, 2}, 100);
    EXPECT_FALSE(table.has_key({1, 10}));
    table.insert({1, 10}, 200);
    EXPECT_EQ(table.used, 2U);
    EXPECT_EQ(table.table[2].value, 100);
    EXPECT_EQ(table.table[5].value, 200);
}

TEST(StoredHash, BeyondTheHomeSlotOnlyKeysAreCompared) {
    HashedTable table;
    table.insert({1, 5}, 100);
    table.insert({2, 2}, 200);
    EXPECT_EQ(table.lookup({1, 10}, 10), &table.table[5]);
}

TEST(StoredHash, ReplacementAssignsTheKeyAndTheValueAndLeavesTheStoredHash) {
    HashedTable table;
    table.insert({1, 5}, 100);
    table.insert({2, 2}, 200);
    table.insert({1, 10}, 300);
    EXPECT_EQ(table.used, 2U);
    EXPECT_EQ(table.table[5].key.hash, 10U);
    EXPECT_EQ(table.table[5].value, 300);
    EXPECT_EQ(table.table[5].hash, 5U);
}

TEST(StoredHash, ARebuildComputesItAgainFromTheKey) {
    HashedTable table;
    table.insert({1, 5}, 100);
    table.insert({2, 2}, 200);
    table.insert({1, 10}, 300);
    EXPECT_EQ(table.resize(8), 2U);
    EXPECT_EQ(table.table[10].key.name, 1);
    EXPECT_EQ(table.table[10].hash, 10U);
}

// ---- What is constructed, assigned and destroyed ---------------------------------------------

class TrackedTableTest : public testing::Test {
protected:
    void SetUp() override { lifeRecords.clear(); }

    static void insert(TrackedTable& table, int first, int count) {
        for (int key = first; key < first + count; ++key) {
            table.insert(key, TrackedValue(key));
        }
    }

    static std::size_t count(LifeEvent event) {
        const auto matches = [event](const LifeRecord& record) { return record.event == event; };
        return static_cast<std::size_t>(
            std::count_if(lifeRecords.begin(), lifeRecords.end(), matches));
    }

    static bool assignedSinceConstruction(const TrackedValue& value) {
        bool assigned = false;
        for (const LifeRecord& record : lifeRecords) {
            if (record.place == reinterpret_cast<std::uintptr_t>(&value)) {
                assigned = record.event == LifeEvent::assigned;
            }
        }
        return assigned;
    }

    /// The number of events before the first of its kind in an array.
    static std::size_t timeOfFirst(LifeEvent event, const TrackedSlots& slots) {
        for (std::size_t i = 0; i < lifeRecords.size(); ++i) {
            if (lifeRecords[i].event == event && slots.holds(lifeRecords[i])) {
                return i;
            }
        }
        return lifeRecords.size();
    }

    static std::size_t timeOfLast(LifeEvent event, const TrackedSlots& slots) {
        std::size_t time = lifeRecords.size();
        for (std::size_t i = 0; i < lifeRecords.size(); ++i) {
            if (lifeRecords[i].event == event && slots.holds(lifeRecords[i])) {
                time = i;
            }
        }
        return time;
    }

    static std::size_t timeOfHashFunctionsEnd() {
        for (std::size_t i = 0; i < lifeRecords.size(); ++i) {
            if (lifeRecords[i].event == LifeEvent::hashFunctionDestroyed) {
                return i;
            }
        }
        return lifeRecords.size();
    }

    /// The places of the longest run of constructions at the distance of slots: a new array.
    static std::size_t longestRunOfNewSlots() {
        std::size_t longest = 0;
        std::size_t run = 0;
        std::uintptr_t expected = 0;
        for (const LifeRecord& record : lifeRecords) {
            if (record.event != LifeEvent::constructed) {
                continue;
            }
            run = (record.place == expected) ? run + 1 : 1;
            expected = record.place + sizeof(TrackedEntry);
            longest = std::max(longest, run);
        }
        return longest;
    }
};

TEST_F(TrackedTableTest, ATableConstructsAValueInEachOfItsNineInlineSlots) {
    const TrackedTable table;
    EXPECT_EQ(TrackedSlots(table.smalltable, 9).indicesOf(LifeEvent::constructed), firstToLast(9));
    EXPECT_EQ(lifeRecords.size(), 9U);
}

TEST_F(TrackedTableTest, AnInlineTableDestroysItsHashFunctionAndThenItsSlotsLastFirst) {
    auto* const table = new TrackedTable;
    const TrackedSlots slots(table->smalltable, 9);
    lifeRecords.clear();
    delete table;
    EXPECT_EQ(lifeRecords.size(), 10U);
    EXPECT_EQ(timeOfHashFunctionsEnd(), 0U);
    EXPECT_EQ(slots.indicesOf(LifeEvent::destroyed), lastToFirst(9));
}

TEST_F(TrackedTableTest, AHeapTableDestroysItsHeapSlotsLastFirstThenHashFunctionThenInlineSlots) {
    auto* const table = new TrackedTable;
    insert(*table, 0, 6);
    ASSERT_EQ(table->mask, 31U);
    const TrackedSlots heapSlots(table->table, 33);
    const TrackedSlots inlineSlots(table->smalltable, 9);
    lifeRecords.clear();
    delete table;
    EXPECT_EQ(lifeRecords.size(), 43U);
    EXPECT_EQ(heapSlots.indicesOf(LifeEvent::destroyed), lastToFirst(33));
    EXPECT_EQ(timeOfLast(LifeEvent::destroyed, heapSlots), 32U);
    EXPECT_EQ(timeOfHashFunctionsEnd(), 33U);
    EXPECT_EQ(inlineSlots.indicesOf(LifeEvent::destroyed), lastToFirst(9));
}

TEST_F(TrackedTableTest, AHeapTableThatBecomesInlineDestroysItsHeapSlotsOnceAndReadsThemBefore) {
    TrackedTable table;
    insert(table, 0, 6);
    ASSERT_EQ(table.mask, 31U);
    const TrackedSlots heapSlots(table.table, 33);
    for (int key = 1; key < 6; ++key) {
        table.remove(key);
    }
    lifeRecords.clear();
    EXPECT_EQ(table.resize(0), 2U);
    EXPECT_EQ(table.mask, 7U);
    EXPECT_EQ(heapSlots.indicesOf(LifeEvent::destroyed).size(), 33U);
    EXPECT_EQ(table.table[0].value.number, 0);
}

TEST_F(TrackedTableTest, RemovalDestroysNothing) {
    TrackedTable table;
    insert(table, 0, 3);
    lifeRecords.clear();
    table.remove(1);
    EXPECT_TRUE(lifeRecords.empty());
    EXPECT_EQ(table.table[1].value.number, 1);
}

TEST_F(TrackedTableTest, ReplacementAssignsToTheOldValue) {
    TrackedTable table;
    insert(table, 0, 3);
    const TrackedValue value(77);
    lifeRecords.clear();
    table.insert(1, value);
    ASSERT_EQ(lifeRecords.size(), 1U);
    EXPECT_EQ(TrackedSlots(table.table, 9).indicesOf(LifeEvent::assigned),
              std::vector<std::size_t>{1});
    EXPECT_EQ(table.table[1].value.number, 77);
}

TEST_F(TrackedTableTest, NothingIsEverAssignedToAnEndSlot) {
    TrackedTable table;
    table.smalltable[8].key = 4711;
    table.smalltable[8].hash = 4712;
    const auto expectUntouchedEnd = [&table](unsigned slots) {
        EXPECT_EQ(table.mask + 1, slots);
        EXPECT_FALSE(assignedSinceConstruction(table.table[slots].value));
        EXPECT_EQ(table.table[slots].state, empty);
    };
    insert(table, 0, 5);
    expectUntouchedEnd(8);
    insert(table, 5, 17);
    expectUntouchedEnd(128);
    for (int key = 3; key < 22; ++key) {
        table.remove(key);
    }
    table.resize(16);
    expectUntouchedEnd(32);
    table.resize(0);
    expectUntouchedEnd(8);
    table.remove(2);
    table.resize(0);
    expectUntouchedEnd(8);
    EXPECT_EQ(table.smalltable[8].key, 4711);
    EXPECT_EQ(table.smalltable[8].hash, 4712U);
}

TEST_F(TrackedTableTest, GrowthMakesOneNewArrayAndKeepsTheInlineSlots) {
    TrackedTable table;
    insert(table, 0, 5);
    const TrackedSlots inlineSlots(table.smalltable, 9);
    const TrackedValue value(5);
    lifeRecords.clear();
    table.insert(5, value);
    EXPECT_EQ(TrackedSlots(table.table, 33).indicesOf(LifeEvent::constructed), firstToLast(33));
    EXPECT_TRUE(inlineSlots.indicesOf(LifeEvent::destroyed).empty());
    EXPECT_EQ(longestRunOfNewSlots(), 33U);
}

TEST_F(TrackedTableTest, ARebuildOnTheHeapDestroysTheFormerArrayLastSlotFirstAndAtItsEnd) {
    TrackedTable table;
    insert(table, 0, 6);
    const TrackedSlots former(table.table, 33);
    lifeRecords.clear();
    EXPECT_EQ(table.resize(63), 2U);
    EXPECT_EQ(former.indicesOf(LifeEvent::destroyed), lastToFirst(33));
    EXPECT_EQ(longestRunOfNewSlots(), 65U);
    EXPECT_GT(timeOfFirst(LifeEvent::destroyed, former),
              timeOfLast(LifeEvent::assigned, TrackedSlots(table.table, 64)));
}

TEST_F(TrackedTableTest, ACleanOfTheInlineSlotsGoesThroughATemporaryCopyOfThemAll) {
    TrackedTable table;
    insert(table, 0, 3);
    table.remove(1);
    const TrackedSlots inlineSlots(table.smalltable, 9);
    lifeRecords.clear();
    EXPECT_EQ(table.resize(0), 2U);
    EXPECT_EQ(longestRunOfNewSlots(), 9U);
    EXPECT_EQ(count(LifeEvent::constructed), count(LifeEvent::destroyed));
    EXPECT_TRUE(inlineSlots.indicesOf(LifeEvent::constructed).empty());
    EXPECT_TRUE(inlineSlots.indicesOf(LifeEvent::destroyed).empty());
}

TEST_F(TrackedTableTest, AShrinkToTheInlineSlotsGoesThroughATemporaryCopyOfTheWholeHeapArray) {
    TrackedTable table;
    insert(table, 0, 6);
    table.remove(3);
    const TrackedSlots heapSlots(table.table, 33);
    const TrackedSlots inlineSlots(table.smalltable, 8);
    lifeRecords.clear();
    EXPECT_EQ(table.resize(0), 2U);
    EXPECT_EQ(longestRunOfNewSlots(), 33U);
    EXPECT_EQ(heapSlots.indicesOf(LifeEvent::destroyed), lastToFirst(33));
    EXPECT_EQ(count(LifeEvent::constructed) + 33, count(LifeEvent::destroyed));
    // The heap array is gone before anything is stored inline: the copy is the source.
    EXPECT_LT(timeOfLast(LifeEvent::destroyed, heapSlots),
              timeOfFirst(LifeEvent::assigned, inlineSlots));
}

TEST_F(TrackedTableTest, TheDestructorReleasesTheHeapArrayByTheMaskAndNotByTheArraysPlace) {
    auto* const table = new TrackedTable;
    insert(*table, 0, 6);
    TrackedEntry* const heapArray = table->table;
    const TrackedSlots heapSlots(heapArray, 33);
    table->mask = 7;
    lifeRecords.clear();
    delete table;
    EXPECT_TRUE(heapSlots.indicesOf(LifeEvent::destroyed).empty());
    delete[] heapArray;
}

TEST_F(TrackedTableTest, TheDestructorToleratesATableWithoutAnArray) {
    auto* const table = new TrackedTable;
    table->mask = 31;
    table->table = nullptr;
    lifeRecords.clear();
    delete table;
    EXPECT_EQ(lifeRecords.size(), 10U);
}

TEST_F(TrackedTableTest, ARebuildReleasesTheFormerArrayByItsPlaceAndNotByTheMask) {
    TrackedTable table;
    table.table = new TrackedEntry[9];
    const TrackedSlots heapSlots(table.table, 9);
    lifeRecords.clear();
    ASSERT_EQ(table.mask, 7U);
    EXPECT_EQ(table.resize(0), 2U);
    EXPECT_EQ(table.table, table.smalltable);
    EXPECT_EQ(heapSlots.indicesOf(LifeEvent::destroyed), lastToFirst(9));
}

// ---- A slot by itself ------------------------------------------------------------------------

TEST(TableEntry, ANewSlotIsEmptyWithADefaultValue) {
    const SVHashTableEntry<int, TrackedValue> slot;
    EXPECT_EQ(slot.state, empty);
    EXPECT_EQ(slot.value.number, 0);
}

TEST(TableEntry, AssignmentCopiesAllFields) {
    TrackedEntry from;
    from.key = 3;
    from.value.number = 4;
    from.hash = 5;
    from.state = deleted;
    TrackedEntry to;
    to = from;
    EXPECT_EQ(to.key, 3);
    EXPECT_EQ(to.value.number, 4);
    EXPECT_EQ(to.hash, 5U);
    EXPECT_EQ(to.state, deleted);
}

TEST(TableEntry, AssignmentToItselfDoesNothing) {
    TrackedEntry slot;
    slot.key = 3;
    slot.hash = 5;
    const TrackedEntry& same = slot;
    lifeRecords.clear();
    slot = same;
    EXPECT_TRUE(lifeRecords.empty());
}

TEST(TableEntry, ItsDestructorDestroysTheValue) {
    { const TrackedEntry slot; }
    ASSERT_FALSE(lifeRecords.empty());
    EXPECT_EQ(lifeRecords.back().event, LifeEvent::destroyed);
}

TEST(HashFunction, GivesTheKeysOwnBits) {
    const Sorvane::SVGenericHashFunction<int> ofInt;
    EXPECT_EQ(ofInt(0), 0U);
    EXPECT_EQ(ofInt(59), 59U);
    EXPECT_EQ(ofInt(-2), 0xfffffffeU);
    const Sorvane::SVGenericHashFunction<void*> ofPointer;
    EXPECT_EQ(ofPointer(nullptr), 0U);
    EXPECT_EQ(ofPointer(InnerTableKind::key(0x89abcdef)), 0x89abcdefU);
    int object = 0;
    EXPECT_EQ(ofPointer(&object),
              static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&object)));
}

}  // namespace
