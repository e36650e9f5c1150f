// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The library's own open-addressing hash table.
//
// Layout. A table has mask + 1 addressable slots, a power of two, and one end slot behind them
// that no operation writes and that therefore stays empty: it is the iterator's end position. The
// first eight slots (and their end slot) lie in the table itself; a larger array is on the heap.
// `table` points at `smalltable` exactly when `mask` is 7.
//
// Probing. The hash is the key's own bits. The walk starts at hash & mask and goes on with
// i = 5 * i + 1 + perturb, where perturb starts as the hash and loses five bits a step, so that
// all bits of the hash take part and, once it is used up, every slot is visited. The walk has no
// bound of its own: growth keeps at least a third of the slots empty.
//
// Deletion. A removed key's slot becomes "deleted" and keeps its contents. A deleted home slot is
// passed over and remembered as a place for an insertion; any other deleted slot ENDS the walk,
// as an empty one does. A key that lies behind such a slot is not found any more, and inserting
// it again stores it a second time. Existing layouts depend on that; it is not to be repaired.
//
// Growth. When an insertion leaves `fill`, the occupied and deleted slots, at two thirds of the
// addressable slots or above, the table is rebuilt, without its deleted slots, at a size that
// follows from `used` alone: it may come out larger, the same, or smaller.
#ifndef SORVANE_SVHASHTABLE_H
#define SORVANE_SVHASHTABLE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ostream>

#include "../support/svexport.h"
#include "../support/svobject.h"
#include "svgenerichashfunction.h"
#include "svhashtableentry.h"
#include "svhashtableentry_iterator.h"
#include "svhashtablefailure.h"

namespace Sorvane {

/// A hash table from K to V with the hash function H. K is compared with == and copied by
/// assignment; V needs a default constructor, copy assignment and a destructor, no more.
///
/// The table owns its slots and the values in them, but nothing that a pointer value points to.
/// The fields are open to be read; they are changed by the operations only. A rebuild makes every
/// iterator, and every pointer or reference into the table, stale.
///
/// For every operation that does not say otherwise:
/// - Threads: any, as long as nobody changes the table meanwhile: it has no lock and no atomic
///   field. A handler that interrupts a change counts as another thread.
/// - Signal context: any, as far as K and V allow; but inside a handler that the library dispatched
///   for what allocates or releases memory: insert(), resize(), operator[] for an absent key, and
///   the destructor.
/// - Errors: what the operations of K and V throw; keys may then be lost. The table's own failures
///   are SVExceptions with code 0, and an allocation that fails leaves the table as it was.
template <typename K, typename V, typename H = SVGenericHashFunction<K>>
class SORVANE_API SVHashTable : public SVObject {
public:
    /// A slot.
    using Entry = SVHashTableEntry<K, V>;
    /// A walk over the occupied slots.
    using Iterator = SVHashTableEntry_Iterator<K, V>;

    /// What the inner steps return; the public operations make exceptions of the bad ones.
    static constexpr unsigned int insertNoSlot = 1;
    static constexpr unsigned int insertStored = 2;   ///< of insert_helper()
    static constexpr unsigned int resizeNothing = 0;  ///< of resize()
    static constexpr unsigned int resizeFailed = 1;   ///< of resize()
    static constexpr unsigned int resizeDone = 2;     ///< of resize()

    /// Makes an empty table on its inline slots.
    SVHashTable() : used(0), fill(0), mask(inlineSlots - 1), table(smalltable) {}

    SVHashTable(const SVHashTable&) = delete;
    SVHashTable& operator=(const SVHashTable&) = delete;

    /// Destroys every slot and its value, and releases the heap array if there is one.
    ~SVHashTable() noexcept override {
        if (mask + 1 > inlineSlots) {
            delete[] table;
        }
    }

    /// The slot that holds a key, or else the slot where it would go; never null. The hash is the
    /// key's, by hashFunction.
    [[gnu::always_inline]] inline Entry* lookup(const K& key, unsigned int hash) const;

    /// Whether the table holds a key.
    bool has_key(const K& key) const {
        return lookup(key, hashFunction(key))->state == svslotOccupied;
    }
    /// The slot that holds a key; null when none does.
    Entry* get(const K& key) const {
        Entry* const entry = lookup(key, hashFunction(key));
        return (entry == nullptr || entry->state != svslotOccupied) ? nullptr : entry;
    }

    /// Stores a key and its value, or replaces the value, without growing: the caller sees to it
    /// that a slot stays empty, or the walk for an absent key may never end.
    /// Result: insertStored; insertNoSlot if lookup() gave null, which it never does.
    unsigned int insert_helper(const K& key, const V& value);

    /// Rebuilds the table without its deleted slots: for a minused below 8 on its inline slots,
    /// otherwise with the smallest power of two above minused, 16 at least. minused is below 2^31,
    /// and the keys must fit with room to spare, or their walk never ends: insert() asks for twice
    /// `used` at least.
    ///
    /// Result: resizeNothing when the table is on its inline slots, is to stay there and has no
    /// deleted slot; resizeFailed when a key could not be stored again, which can't happen;
    /// otherwise resizeDone.
    /// Errors: "Unable to allocate space for new table.", kind 5.
    unsigned int resize(unsigned int minused);

    /// Stores a key and its value, or replaces the value, and rebuilds the table when needed.
    /// Errors: "Unable to allocate space for new table.", kind 5, and nothing is stored. Three of
    /// kind 20 for what can't happen: "Error ocurred while resizing table.",
    /// "Error occurred while inserting.", and "Error occured while resizing table.".
    void insert(const K& key, const V& value);

    /// The same for whoever can't have an exception: tells the failure that insert() throws.
    SVFailure tryInsert(const K& key, const V& value);

    /// Whether inserting a key rebuilds the table.
    bool growsWithQ(const K& key) const {
        const Entry* const entry = lookup(key, hashFunction(key));
        return entry != nullptr && tooFullWith(fill + (entry->state == svslotEmpty ? 1 : 0));
    }

    /// The value of a key, which is inserted first when it is absent; its value then means nothing
    /// yet and is to be assigned at once.
    /// Errors: those of insert(); for a key that does not equal itself,
    /// "Internal lookup error during operator[].", kind 20.
    V& operator[](const K& key);

    /// Marks a key's slot deleted; does nothing when the key is absent. The slot keeps its
    /// contents, and `fill` its count.
    void remove(const K& key) {
        Entry* const entry = lookup(key, hashFunction(key));
        if (entry->state == svslotOccupied) {
            entry->state = svslotDeleted;
            --used;
        }
    }

    /// Where a walk over the occupied slots begins: on the first, or at end() when there is none.
    Iterator begin() const {
        const unsigned int size = mask + 2;
        for (unsigned int index = 0; index < size; ++index) {
            if (table[index].state == svslotOccupied) {
                return Iterator(table, size, index);
            }
        }
        return end();
    }
    /// Where such a walk ends: on the end slot.
    Iterator end() const { return Iterator(table, mask + 2, mask + 1); }

    /// Writes the table as a block of markup, its occupied slots in slot order by WriteEntry().
    /// Errors: those of WriteEntry(); the text so far stays.
    /// Signal context: normal context only.
    std::ostream& WriteTable(std::ostream& stream) const {
        stream << "<SVHashTable>";
        for (Iterator position = begin(); position != end(); position++) {
            position.entries[position.index].WriteEntry(stream);
        }
        return stream << "</SVHashTable>";
    }

    unsigned int used;    ///< number of occupied slots
    unsigned int fill;    ///< number of occupied and deleted slots
    unsigned int mask;    ///< number of addressable slots, less one
    Entry* table;         ///< the current slots: smalltable, or a heap array
    Entry smalltable[9];  ///< the inline slots
    H hashFunction;       ///< what makes a key's hash

private:
    static constexpr unsigned int inlineSlots = 8;
    static constexpr unsigned int perturbShift = 5;
    static constexpr unsigned int fastGrowthLimit = 29999;

    static constexpr unsigned int lineAbsentAfterInsert = 479;
    static constexpr unsigned int lineNoCopyArray = 651;
    static constexpr unsigned int lineNoHeapArray = 666;
    static constexpr unsigned int lineNoSlotNoResize = 739;
    static constexpr unsigned int lineInsertFailed = 743;
    static constexpr unsigned int lineGrowthFailed = 755;

    static_assert(sizeof(smalltable) / sizeof(smalltable[0]) == inlineSlots + 1,
                  "the inline array has an end slot of its own");

    /// The slot array that a rebuild needs, had before the rebuild changes anything.
    class Room;

    static unsigned int growthTarget(unsigned int used) {
        return used > fastGrowthLimit ? used * 2 : used * 4;
    }
    bool tooFullWith(unsigned int filled) const { return filled * 3 >= (mask + 1) * 2; }
    // Mostly there is room for one more, whatever the key, and it need not be looked for twice.
    bool insertedWithRoomToSpareQ(const K& key, const V& value) {
        return !tooFullWith(fill + 1) && insert_helper(key, value) == insertStored;
    }
    void copySlotsTo(Entry* copy) const;
    void useEmptySlots(Entry* array, unsigned int addressable);
    unsigned int reinsert(const Entry* source, unsigned int count);
    unsigned int rebuild(Room& room);
};

template <typename K, typename V, typename H>
SVHashTableEntry<K, V>* SVHashTable<K, V, H>::lookup(const K& key, unsigned int hash) const {
    unsigned int i = hash & mask;
    Entry* entry = &table[i];
    if (entry->state == svslotEmpty) {
        return entry;
    }
    Entry* free = nullptr;
    if (entry->state == svslotDeleted) {
        free = entry;
    } else if (entry->hash == hash && entry->key == key) {
        return entry;
    }
    // From the second slot on only keys are compared, and a deleted slot ends the walk.
    for (unsigned int perturb = hash;; perturb >>= perturbShift) {
        i = 5 * i + 1 + perturb;
        entry = &table[i & mask];
        if (entry->state != svslotOccupied) {
            return free != nullptr ? free : entry;
        }
        if (entry->key == key) {
            return entry;
        }
    }
}

template <typename K, typename V, typename H>
unsigned int SVHashTable<K, V, H>::insert_helper(const K& key, const V& value) {
    const unsigned int hash = hashFunction(key);
    Entry* const entry = lookup(key, hash);
    if (entry == nullptr) {
        return insertNoSlot;
    }
    if (entry->state == svslotOccupied) {
        entry->key = key;
        entry->value = value;
        return insertStored;
    }
    if (entry->state == svslotEmpty) {
        ++fill;
    }
    entry->hash = hash;
    entry->key = key;
    entry->value = value;
    // Last, so that whoever is split off from this thread just now finds the slot as it was, or
    // whole.
    std::atomic_signal_fence(std::memory_order_release);
    entry->state = svslotOccupied;
    ++used;
    return insertStored;
}

template <typename K, typename V, typename H>
class SVHashTable<K, V, H>::Room {
public:
    /// Nothing, for no rebuild.
    Room() = default;
    Room(const Room&) = delete;
    Room& operator=(const Room&) = delete;
    ~Room() { delete[] m_array; }

    /// Takes what a rebuild of a table for more than `minused` keys needs: a heap array for the
    /// rebuilt table, or a temporary copy of the slots of one that becomes inline.
    /// Result: nothing, or that there is no memory for it.
    SVFailure take(const SVHashTable& owner, unsigned int minused) {
        while (m_addressable <= minused && m_addressable != 0) {
            m_addressable <<= 1;
        }
        m_array = allocate(inlineQ() ? owner.mask + 2 : m_addressable + 1);
        if (m_array != nullptr) {
            return SVFailure();
        }
        return svhashtableFailure("Unable to allocate space for new table.",
                                  inlineQ() ? lineNoCopyArray : lineNoHeapArray,
                                  svexceptionAllocationFailed);
    }

    bool inlineQ() const { return m_addressable == inlineSlots; }
    unsigned int addressable() const { return m_addressable; }
    Entry* array() const { return m_array; }
    Entry* handOver() {
        Entry* const array = m_array;
        m_array = nullptr;
        return array;
    }

private:
    static Entry* allocate(unsigned int count) {
        // A size that can't be expressed is as little to be had; the new-expression would throw its
        // own exception for it, although the allocation operator throws none. With 64-bit pointers
        // there is no such size.
        constexpr std::size_t most = PTRDIFF_MAX / sizeof(Entry) - 1;
        const std::size_t wanted = count;
        const bool possible = wanted <= most;
        return possible ? new Entry[wanted] : nullptr;  // GCOVR_EXCL_BR_LINE: see above
    }

    Entry* m_array = nullptr;
    unsigned int m_addressable = inlineSlots;
};

template <typename K, typename V, typename H>
void SVHashTable<K, V, H>::copySlotsTo(Entry* copy) const {
    for (unsigned int i = 0; i <= mask; ++i) {
        copy[i] = table[i];
    }
}

template <typename K, typename V, typename H>
void SVHashTable<K, V, H>::useEmptySlots(Entry* array, unsigned int addressable) {
    mask = addressable - 1;
    table = array;
    used = 0;
    const V nothing = V();
    for (unsigned int i = 0; i < addressable; ++i) {
        array[i].value = nothing;
        array[i].state = svslotEmpty;
    }
}

template <typename K, typename V, typename H>
unsigned int SVHashTable<K, V, H>::reinsert(const Entry* source, unsigned int count) {
    fill = 0;
    for (; count > 0; ++source) {
        if (source->state == svslotOccupied &&
            insert_helper(source->key, source->value) != insertStored) {
            return resizeFailed;
        }
        if (source->state != svslotEmpty) {
            --count;
        }
    }
    return resizeDone;
}

// A table that becomes inline is rebuilt from the copy of its slots, also if they are on the heap
// and could serve themselves.
template <typename K, typename V, typename H>
unsigned int SVHashTable<K, V, H>::rebuild(Room& room) {
    const Entry* const former = table;
    Entry* const heap = table == smalltable ? nullptr : table;
    const unsigned int count = fill;
    if (room.inlineQ()) {
        copySlotsTo(room.array());
        delete[] heap;
        useEmptySlots(smalltable, room.addressable());
        return reinsert(room.array(), count);
    }
    useEmptySlots(room.handOver(), room.addressable());
    const unsigned int result = reinsert(former, count);
    if (result == resizeDone) {
        delete[] heap;
    }
    return result;
}

template <typename K, typename V, typename H>
unsigned int SVHashTable<K, V, H>::resize(unsigned int minused) {
    if (minused < inlineSlots && table == smalltable && fill == used) {
        return resizeNothing;
    }
    Room room;
    room.take(*this, minused).throwIfAny();
    return rebuild(room);
}

// The memory for the growth that has to follow an insertion is had before anything is stored:
// otherwise each failure would use up a slot, until the probe walk no longer finds an empty one and
// never ends.
template <typename K, typename V, typename H>
SVFailure SVHashTable<K, V, H>::tryInsert(const K& key, const V& value) {
    if (insertedWithRoomToSpareQ(key, value)) {
        return SVFailure();
    }
    for (;;) {
        const bool grows = growsWithQ(key);
        Room room;
        if (grows) {
            const unsigned int usedThen = used + (get(key) == nullptr ? 1 : 0);
            if (const SVFailure failure = room.take(*this, growthTarget(usedThen))) {
                return failure;
            }
        }
        const unsigned int stored = insert_helper(key, value);
        if (stored == insertStored) {
            // Not to be reached: a rebuild for which there is room is done.
            if (grows && rebuild(room) != resizeDone) {
                return svhashtableFailure("Error occured while resizing table.", lineGrowthFailed,
                                          svexceptionInternalTableError);
            }
            return SVFailure();
        }
        // Neither result below can be reached: lookup() always finds a slot.
        if (stored != insertNoSlot) {
            return svhashtableFailure("Error occurred while inserting.", lineInsertFailed,
                                      svexceptionInternalTableError);
        }
        if (resize(growthTarget(used)) != resizeDone) {
            return svhashtableFailure("Error ocurred while resizing table.", lineNoSlotNoResize,
                                      svexceptionInternalTableError);
        }
    }
}

template <typename K, typename V, typename H>
void SVHashTable<K, V, H>::insert(const K& key, const V& value) {
    if (!insertedWithRoomToSpareQ(key, value)) {
        tryInsert(key, value).throwIfAny();
    }
}

template <typename K, typename V, typename H>
V& SVHashTable<K, V, H>::operator[](const K& key) {
    if (Entry* const entry = get(key)) {
        return entry->value;
    }
    const V fresh = V();
    insert(key, fresh);
    Entry* const entry = get(key);
    // Not to be reached with a key that equals itself.
    if (entry == nullptr) {
        svhashtableFailure("Internal lookup error during operator[].", lineAbsentAfterInsert,
                           svexceptionInternalTableError)
            .throwIt();
    }
    return entry->value;
}

}  // namespace Sorvane

#endif
