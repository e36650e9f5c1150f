// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The text of a table and of its slots, for any types that a stream can write.

#include <gtest/gtest.h>
#include <sorvane/svhashtable.h>

#include <sstream>
#include <string>

namespace {

using NumberTable = Sorvane::SVHashTable<int, int>;
using AddressTable = Sorvane::SVHashTable<void*, int>;

template <typename Table>
std::string textOf(const Table& table) {
    std::ostringstream stream;
    EXPECT_EQ(&table.WriteTable(stream), &stream);
    return stream.str();
}

std::string entryText(const char* key, const char* value) {
    return std::string("\n\t<SVHashTableEntry>\n\t\t<K>") + key + "</K>\n\t\t<V>" + value +
           "</V>\n\t</SVHashTableEntry>\n";
}

TEST(TableText, OfAnEmptyTableIsItsTwoTags) {
    EXPECT_EQ(textOf(NumberTable()), "<SVHashTable></SVHashTable>");
}

TEST(TableText, OfASlotTellsItsKeyAndItsValueAndStandsOnLinesOfItsOwn) {
    NumberTable table;
    table.insert(10, 33);
    std::ostringstream stream;
    EXPECT_EQ(&table.table[2].WriteEntry(stream), &stream);
    EXPECT_EQ(stream.str(), entryText("10", "33"));
}

TEST(TableText, TellsTheSlotsInTheirOrderAndNotThoseThatAreDeletedOrEmpty) {
    NumberTable table;
    for (const int key : {18, 7, 1, 4}) {
        table.insert(key, key + 100);
    }
    table.remove(4);
    EXPECT_EQ(textOf(table), "<SVHashTable>" + entryText("1", "101") + entryText("18", "118") +
                                 entryText("7", "107") + "</SVHashTable>");
}

TEST(TableText, TellsTheKeyAndNotItsHash) {
    NumberTable table;
    table.insert(-1, 1);
    EXPECT_EQ(textOf(table), "<SVHashTable>" + entryText("-1", "1") + "</SVHashTable>");
}

TEST(TableText, TellsAnAddressInHexadecimalAndNullAsOneDigit) {
    AddressTable table;
    table.insert(nullptr, 1);
    table.insert(reinterpret_cast<void*>(0x10a2c), 2);
    EXPECT_EQ(textOf(table),
              "<SVHashTable>" + entryText("0", "1") + entryText("0x10a2c", "2") + "</SVHashTable>");
}

}  // namespace
