// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Compares a table with its model, slot by slot.
#ifndef SORVANE_FUZZ_TABLE_COMPARISON_H
#define SORVANE_FUZZ_TABLE_COMPARISON_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/table_model.h"

/// The model's keys are the bits of the table's.
inline std::uint64_t bitsOf(int key) {
    return static_cast<std::uint32_t>(key);
}
inline std::uint64_t bitsOf(const void* key) {
    return reinterpret_cast<std::uintptr_t>(key);
}

/// Where a table and its model disagree; empty when they don't. Values are compared by a function
/// of a value and the number that stands for it.
template <typename Table, typename SameValue>
class TableComparison {
public:
    TableComparison(const Table& table, TableModel& model, SameValue sameValue)
        : m_table(table), m_model(model), m_sameValue(sameValue) {}

    std::string difference() {
        compareHeader();
        if (m_difference.empty()) {
            compareSlots();
        }
        if (m_difference.empty()) {
            compareIteration();
        }
        return m_difference;
    }

    template <typename Key>
    std::string differenceInLookup(const Key& tableKey) {
        const std::uint64_t key = bitsOf(tableKey);
        const std::size_t expected = m_model.find(key);
        const bool present = m_model.slots[expected].state == occupiedState;
        const auto* const found = m_table.lookup(tableKey, static_cast<std::uint32_t>(key));
        if (found != &m_table.table[expected]) {
            m_difference += "lookup: slot " + std::to_string(found - m_table.table) +
                            ", expected " + std::to_string(expected);
        }
        if (m_table.has_key(tableKey) != present) {
            m_difference += "has_key: expected " + std::to_string(present);
        }
        if (m_table.get(tableKey) != (present ? &m_table.table[expected] : nullptr)) {
            m_difference += "get: not slot " + std::to_string(expected) +
                            ", which holds it: " + std::to_string(present);
        }
        return m_difference;
    }

private:
    void compareHeader() {
        compare("used", m_table.used, m_model.used);
        compare("fill", m_table.fill, m_model.fill);
        compare("mask", m_table.mask, m_model.slots.size() - 1);
        compare("inline", m_table.table == m_table.smalltable, m_model.inlineQ());
    }

    void compareSlots() {
        for (std::size_t i = 0; i < m_model.slots.size(); ++i) {
            compareSlot(i, m_model.slots[i]);
        }
        compareSlot(m_model.slots.size(), ModelSlot());
    }

    void compareSlot(std::size_t index, const ModelSlot& expected) {
        const auto& slot = m_table.table[index];
        if (slot.state != expected.state) {
            compare("state", slot.state, expected.state);
        } else if (expected.state != emptyState &&
                   (slot.hash != expected.hash || bitsOf(slot.key) != expected.key)) {
            m_difference += "key or hash differs; ";
        } else if (!m_sameValue(slot.value, expected)) {
            m_difference += "value is not number " + std::to_string(expected.value) + "; ";
        } else {
            return;
        }
        m_difference += "in slot " + std::to_string(index) + "; ";
    }

    void compareIteration() {
        auto position = m_table.begin();
        for (std::size_t i = 0; i < m_model.slots.size(); ++i) {
            if (m_model.slots[i].state != occupiedState) {
                continue;
            }
            if (position == m_table.end()) {
                m_difference += "the iteration ends before slot " + std::to_string(i);
                return;
            }
            if (&position.GetValue() != &m_table.table[i].value) {
                m_difference += "the iteration is not at slot " + std::to_string(i);
                return;
            }
            position++;
        }
        if (!(position == m_table.end())) {
            m_difference += "the iteration goes on behind the last occupied slot";
        }
    }

    template <typename Actual, typename Expected>
    void compare(const char* what, Actual actual, Expected expected) {
        if (actual != expected) {
            m_difference += what + std::string(" is ") + std::to_string(actual) + ", expected " +
                            std::to_string(expected) + "; ";
        }
    }

    const Table& m_table;
    TableModel& m_model;
    const SameValue m_sameValue;
    std::string m_difference;
};

#endif
