// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Histories of a table and its model: long ones from fixed seeds, and those that a fuzzer finds.
#ifndef SORVANE_FUZZ_TABLE_HISTORY_H
#define SORVANE_FUZZ_TABLE_HISTORY_H

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "fuzz/byte_source.h"
#include "fuzz/table_comparison.h"
#include "fuzz/table_model.h"

/// One history of a table and its model. The bytes say what happens.
template <typename Kind>
class TableHistory {
public:
    explicit TableHistory(ByteSource& bytes) : m_bytes(bytes) { chooseKeys(); }

    /// Describes the first disagreement; empty when there is none.
    std::string play() {
        for (unsigned step = 1; m_bytes.moreQ(); ++step) {
            if (step % 150 == 1) {
                m_wantedKeys = wantedKeyCounts[below(std::size(wantedKeyCounts))];
            }
            const std::string done = takeStep();
            const std::string difference = differences();
            if (!difference.empty()) {
                return "step " + std::to_string(step) + ", after " + done + ": " + difference;
            }
        }
        return "";
    }

    const TableEvents& events() const { return m_model.events; }

private:
    // Few, so that a rebuild finds little to keep; and many, so that there are several growths.
    static constexpr std::uint32_t wantedKeyCounts[] = {1, 1, 2, 3, 4, 12, 40, 100};
    static constexpr std::uint32_t resizeArguments[] = {0,  0,  1,  4,  5,  6,  7,  7,   8,   9,
                                                        15, 16, 24, 31, 32, 63, 64, 100, 127, 128};
    static constexpr std::size_t keyCount = 110;

    std::size_t below(std::size_t bound) { return m_bytes.below(bound); }

    // Three families: few home slots and many high bits; keys that differ in the high bits of a
    // 64-bit pointer only, so that their hashes are alike; and the small numbers of signals.
    void chooseKeys() {
        std::mt19937 random(static_cast<unsigned>(below(256)));
        for (std::size_t i = 0; i < keyCount; ++i) {
            const std::uint64_t home = 2 + 3 * (random() % 2);
            const std::uint64_t high = random();
            const std::uint64_t bits[] = {home | (high << 5), home | (high << 32), i - 3};
            m_keys.push_back(bitsOf(Kind::key(bits[i % 3])));
        }
    }

    std::uint64_t anyKey() { return m_keys[below(keyCount)]; }

    std::string takeStep() {
        switch (below(16)) {
            case 0:
                return resizeTable();
            case 1:
                return insertWithoutGrowth();
            case 2:
            case 3:
                return readOrWriteThroughReference();
            case 4:
                return insertKey(occupiedKey());
            default:
                return changeNumberOfKeys();
        }
    }

    // Inserts and removes, around the wanted number of keys.
    std::string changeNumberOfKeys() {
        const bool insert = m_model.used < m_wantedKeys || (m_wantedKeys > 1 && below(4) == 0);
        return insert ? insertKey(anyKey()) : removeKey(below(4) == 0 ? anyKey() : occupiedKey());
    }

    std::string insertKey(std::uint64_t key) {
        const int value = ++m_lastValue;
        m_table.insert(Kind::key(key), Kind::value(value));
        m_model.insert(key, value);
        return "insert " + std::to_string(key);
    }

    std::string removeKey(std::uint64_t key) {
        m_table.remove(Kind::key(key));
        m_model.remove(key);
        return "remove " + std::to_string(key);
    }

    std::string readOrWriteThroughReference() {
        const std::uint64_t key = below(4) == 0 ? anyKey() : occupiedKey();
        const bool present = m_model.hasKey(key);
        auto& value = m_table[Kind::key(key)];
        if (!present) {
            m_model.insert(key, 0);
        }
        ModelSlot& slot = m_model.slots[m_model.find(key)];
        if (!present || below(2) == 0) {
            slot.value = ++m_lastValue;
            value = Kind::value(slot.value);
        }
        return "operator[] " + std::to_string(key) +
               (Kind::same(value, Kind::value(slot.value)) ? "" : ", which gave another value");
    }

    // Only where it leaves an empty slot: a walk through a full table has no end.
    std::string insertWithoutGrowth() {
        const std::uint64_t key = anyKey();
        if (m_model.fill + 1 >= m_model.slots.size()) {
            return "nothing";
        }
        const int value = ++m_lastValue;
        const unsigned result = m_table.insert_helper(Kind::key(key), Kind::value(value));
        m_model.store(key, value);
        return "insert_helper " + std::to_string(key) + resultText(result, 2);
    }

    std::string resizeTable() {
        const std::uint32_t minimum = resizeArguments[below(std::size(resizeArguments))];
        if (TableModel::sizeAbove(minimum) <= m_model.used) {
            return "nothing";
        }
        const unsigned result = m_table.resize(minimum);
        return "resize " + std::to_string(minimum) + resultText(result, m_model.rebuild(minimum));
    }

    std::string resultText(unsigned result, unsigned expected) {
        m_wrongResult = m_wrongResult || result != expected;
        return " = " + std::to_string(result);
    }

    std::uint64_t occupiedKey() {
        const std::size_t start = below(m_model.slots.size());
        for (std::size_t i = 0; i < m_model.slots.size(); ++i) {
            const ModelSlot& slot = m_model.slots[(start + i) % m_model.slots.size()];
            if (slot.state == occupiedState) {
                return slot.key;
            }
        }
        return anyKey();
    }

    static bool sameValue(const typename Kind::Value& value, const ModelSlot& expected) {
        return (expected.state == emptyState && !Kind::valuesStartDefined) ||
               Kind::same(value, Kind::value(expected.value));
    }

    std::string differences() {
        std::string difference = m_wrongResult ? "the result is wrong; " : "";
        TableComparison comparison(m_table, m_model, sameValue);
        difference += comparison.difference();
        for (std::size_t i = 0; difference.empty() && i < 3; ++i) {
            m_lastLookedFor = (m_lastLookedFor + 1) % keyCount;
            difference += comparison.differenceInLookup(Kind::key(m_keys[m_lastLookedFor]));
        }
        return difference;
    }

    ByteSource& m_bytes;
    std::vector<std::uint64_t> m_keys;
    typename Kind::Table m_table;
    TableModel m_model;
    std::uint32_t m_wantedKeys = 0;
    int m_lastValue = 0;
    std::size_t m_lastLookedFor = 0;
    bool m_wrongResult = false;
};

#endif
