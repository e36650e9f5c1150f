// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A walk over the occupied slots of a hash table.
#ifndef SORVANE_SVHASHTABLEENTRY_ITERATOR_H
#define SORVANE_SVHASHTABLEENTRY_ITERATOR_H

#include "../support/svexport.h"
#include "../support/svobject.h"
#include "svhashtableentry.h"
#include "svhashtablefailure.h"

namespace Sorvane {

/// Stands on one slot of a table's slot array and steps from occupied slot to occupied slot, in
/// slot order. It refers to the array and not to the table: a rebuild of the table leaves it
/// pointing at a stale array, so nothing may insert into the table during the walk.
///
/// An iterator without an array is not ready; tables give out only ready ones. Every failure is an
/// SVException of kind 12 and code 0, and leaves the iterator as it was.
///
/// Threads: as for reading the table. Signal context: any, as long as nothing fails.
template <typename K, typename V>
class SORVANE_API SVHashTableEntry_Iterator : public SVObject {
public:
    using Entry = SVHashTableEntry<K, V>;

    /// Makes an iterator that is not ready.
    SVHashTableEntry_Iterator() noexcept : entries(nullptr), size(0), index(0) {}

    /// Makes an iterator on a slot of an array; slotCount includes the end slot.
    SVHashTableEntry_Iterator(Entry* slotArray, unsigned int slotCount,
                              unsigned int slotIndex) noexcept
        : entries(slotArray), size(slotCount), index(slotIndex) {}

    SVHashTableEntry_Iterator(const SVHashTableEntry_Iterator&) noexcept = default;
    SVHashTableEntry_Iterator& operator=(const SVHashTableEntry_Iterator&) noexcept = default;
    ~SVHashTableEntry_Iterator() noexcept override {}

    /// Equal are two iterators on the same slot of the same array, taken for equally long.
    bool operator==(const SVHashTableEntry_Iterator& other) const noexcept {
        return entries == other.entries && size == other.size && index == other.index;
    }
    bool operator!=(const SVHashTableEntry_Iterator& other) const noexcept {
        return !(*this == other);
    }

    /// Steps to the next occupied slot, or to the end position. There is no result: no loop needs
    /// the former state.
    /// Errors: "Iterator not ready to increment."; at the end position, "Iterator at end.".
    void operator++(int) {
        if (entries == nullptr) {
            svhashtableFailure("Iterator not ready to increment.", lineStepNotReady,
                               svexceptionIteratorMisused)
                .throwIt();
        }
        if (index == size - 1) {
            svhashtableFailure("Iterator at end.", lineStepAtEnd, svexceptionIteratorMisused)
                .throwIt();
        }
        unsigned int next = index + 1;
        while (next < size - 1 && entries[next].state != svslotOccupied) {
            ++next;
        }
        index = next;
    }

    /// The value of the slot that the iterator stands on.
    /// Errors: "Iterator not ready to get value."; for an empty or deleted slot, the end included,
    /// "Iterator refers to invalid table entry.".
    const V& GetValue() const {
        if (entries == nullptr) {
            svhashtableFailure("Iterator not ready to get value.", lineValueNotReady,
                               svexceptionIteratorMisused)
                .throwIt();
        }
        const Entry& entry = entries[index];
        if (entry.state == svslotEmpty || entry.state == svslotDeleted) {
            svhashtableFailure("Iterator refers to invalid table entry.", lineValueInvalid,
                               svexceptionIteratorMisused)
                .throwIt();
        }
        return entry.value;
    }

    Entry* entries;      ///< the slot array being walked; null: not ready
    unsigned int size;   ///< its number of slots, the end slot included
    unsigned int index;  ///< the current slot; size - 1 is the end position

private:
    static constexpr unsigned int lineStepNotReady = 119;
    static constexpr unsigned int lineStepAtEnd = 121;
    static constexpr unsigned int lineValueNotReady = 210;
    static constexpr unsigned int lineValueInvalid = 213;
};

}  // namespace Sorvane

#endif
