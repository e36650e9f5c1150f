// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A value whose life is recorded: what a table constructs, assigns and destroys, where, and when.
#ifndef SORVANE_TESTS_SUPPORT_TRACKED_VALUE_H
#define SORVANE_TESTS_SUPPORT_TRACKED_VALUE_H

#include <sorvane/svhashtable.h>

#include <cstddef>
#include <cstdint>
#include <vector>

enum class LifeEvent { constructed, assigned, destroyed, hashFunctionDestroyed };

struct LifeRecord {
    LifeEvent event;
    std::uintptr_t place;
};

/// What happened since the last clear(), in order; to all tracked objects of the process.
inline std::vector<LifeRecord> lifeRecords;

/// Has all that a table may ask of a value, and no more: no copy constructor, no comparison.
class TrackedValue {
public:
    TrackedValue() { note(LifeEvent::constructed); }
    explicit TrackedValue(int newNumber) : number(newNumber) { note(LifeEvent::constructed); }
    TrackedValue(const TrackedValue&) = delete;
    TrackedValue& operator=(const TrackedValue& other) {
        number = other.number;
        note(LifeEvent::assigned);
        return *this;
    }
    // Whoever reads it afterwards reads another number.
    ~TrackedValue() {
        note(LifeEvent::destroyed);
        static_cast<volatile int&>(number) = -1;
    }

    int number = 0;

private:
    void note(LifeEvent event) const {
        lifeRecords.push_back({event, reinterpret_cast<std::uintptr_t>(this)});
    }
};

/// The hash function of the tables, with a destructor that is recorded too.
class TrackedHashFunction : public Sorvane::SVGenericHashFunction<int> {
public:
    ~TrackedHashFunction() noexcept override {
        lifeRecords.push_back(
            {LifeEvent::hashFunctionDestroyed, reinterpret_cast<std::uintptr_t>(this)});
    }
};

using TrackedEntry = Sorvane::SVHashTableEntry<int, TrackedValue>;
using TrackedTable = Sorvane::SVHashTable<int, TrackedValue, TrackedHashFunction>;

/// The places of the values of an array of slots; it may be looked for after the array is gone.
class TrackedSlots {
public:
    TrackedSlots(const TrackedEntry* slots, std::size_t count)
        : m_first(reinterpret_cast<std::uintptr_t>(&slots->value)), m_count(count) {}

    /// The indices of the slots that an event happened to, in the order in which it did.
    std::vector<std::size_t> indicesOf(LifeEvent event) const {
        std::vector<std::size_t> indices;
        for (const LifeRecord& record : lifeRecords) {
            if (record.event == event && holds(record)) {
                indices.push_back((record.place - m_first) / sizeof(TrackedEntry));
            }
        }
        return indices;
    }

    bool holds(const LifeRecord& record) const {
        return record.place >= m_first && record.place - m_first < m_count * sizeof(TrackedEntry);
    }

private:
    std::uintptr_t m_first;
    std::size_t m_count;
};

/// All indices of an array, from the first to the last, or from the last to the first.
inline std::vector<std::size_t> firstToLast(std::size_t count) {
    std::vector<std::size_t> indices;
    for (std::size_t i = 0; i < count; ++i) {
        indices.push_back(i);
    }
    return indices;
}
inline std::vector<std::size_t> lastToFirst(std::size_t count) {
    const std::vector<std::size_t> indices = firstToLast(count);
    return {indices.rbegin(), indices.rend()};
}

#endif
