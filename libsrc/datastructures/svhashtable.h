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
//
// A rebuild makes every iterator and every pointer to an entry stale. The table has no lock and no
// atomic field; its users serialise their access.
#ifndef SORVANE_SVHASHTABLE_H
#define SORVANE_SVHASHTABLE_H

#include <cstddef>
#include <cstdint>
#include <optional>
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
/// The fields are open to be read; they are changed by the operations only.
///
/// For every operation that does not say otherwise: threads, any, as long as nobody changes the
/// table at the same time; signal context, normal context only.
template <typename K, typename V, typename H = SVGenericHashFunction<K>>
class SORVANE_API SVHashTable : public SVObject {
public:
    using Entry = SVHashTableEntry<K, V>;
    using Iterator = SVHashTableEntry_Iterator<K, V>;

    /// What the inner steps return; the public operations make exceptions of the bad ones.
    static constexpr unsigned int insertNoSlot = 1;
    static constexpr unsigned int insertStored = 2;
    static constexpr unsigned int resizeNothing = 0;
    static constexpr unsigned int resizeFailed = 1;
    static constexpr unsigned int resizeDone = 2;

    /// Makes an empty table on its inline slots.
    /// Errors: what V's default constructor throws.
    SVHashTable() : used(0), fill(0), mask(inlineSlots - 1), table(smalltable) {}

    SVHashTable(const SVHashTable&) = delete;
    SVHashTable& operator=(const SVHashTable&) = delete;

    /// Destroys every slot and its value, and releases the heap array if there is one.
    ~SVHashTable() noexcept override {
        if (mask + 1 > inlineSlots) {
            releaseSlots(table);
        }
    }

    /// Finds the slot that holds a key, or else the slot where it would go.
    /// Parameters: key; hash, the key's hash. Ownership: the slot stays the table's.
    /// Result: the slot, never null. Errors: none thrown. Guarantee: no exception.
    /// Signal context: any context.
    Entry* lookup(const K& key, unsigned int hash) const;

    /// Whether the table holds a key, and the slot that does (null when none does).
    /// Parameters: key. Ownership: the slot stays the table's. Errors: none thrown.
    /// Guarantee: no exception. Signal context: any context.
    bool has_key(const K& key) const {
        return lookup(key, hashFunction(key))->state == svslotOccupied;
    }
    Entry* get(const K& key) const {
        Entry* const entry = lookup(key, hashFunction(key));
        return (entry == nullptr || entry->state != svslotOccupied) ? nullptr : entry;
    }

    /// Stores a key and its value, or replaces the value, without growing.
    /// Parameters: key, value. Ownership: both are copied.
    /// Result: insertStored, or insertNoSlot when there is no slot to store in.
    /// Errors: what the assignments of K and V throw. Guarantee: basic.
    unsigned int insert_helper(const K& key, const V& value);

    /// Rebuilds the table without its deleted slots.
    /// Parameters: minused, which the number of addressable slots will exceed; the least is 8. The
    ///   keys must fit with room to spare, or their walk never ends: insert() asks for twice `used`
    ///   at least.
    /// Ownership: none.
    /// Result: resizeNothing when the table is on its inline slots, is to stay there and has no
    ///   deleted slot; resizeFailed when a key could not be stored again; resizeDone.
    /// Errors: SVException "Unable to allocate space for new table.", kind 5, code 0.
    /// Guarantee: strong for that exception.
    unsigned int resize(unsigned int minused);

    /// Stores a key and its value, or replaces the value, and grows when needed.
    /// Parameters: key, value. Ownership: both are copied. Result: none.
    /// Errors: SVException "Unable to allocate space for new table.", kind 5, code 0, when the
    ///   growth that the insertion needs can't have its memory; kind 20, code 0, for what can't
    ///   happen: "Error ocurred while resizing table.", "Error occurred while inserting." and
    ///   "Error occured while resizing table.".
    /// Guarantee: strong for an allocation that fails: the table is as it was before the call.
    void insert(const K& key, const V& value);

    /// The value of a key, which is inserted first when it is absent.
    /// Parameters: key. Ownership: the value stays the table's.
    /// Result: the value; that of an inserted key means nothing yet and is to be assigned at once.
    /// Errors: those of insert(), and "Internal lookup error during operator[].", kind 20, code 0.
    /// Guarantee: strong for an allocation that fails.
    /// Signal context: any context for a key that is there.
    V& operator[](const K& key);

    /// Marks a key's slot deleted; does nothing when the key is absent. The slot keeps its
    /// contents, and `fill` its count.
    /// Parameters: key. Ownership: none. Result: none. Errors: none thrown.
    /// Guarantee: no exception.
    void remove(const K& key) {
        Entry* const entry = lookup(key, hashFunction(key));
        if (entry->state == svslotOccupied) {
            entry->state = svslotDeleted;
            --used;
        }
    }

    /// The walk over the occupied slots: where it begins, and where it has ended.
    /// Ownership: the slots stay the table's. Result: an iterator; on the first occupied slot or
    ///   the end position, and on the end position. Errors: none thrown. Guarantee: no exception.
    /// Signal context: any context.
    Iterator begin() const {
        const unsigned int size = mask + 2;
        for (unsigned int index = 0; index < size; ++index) {
            if (table[index].state == svslotOccupied) {
                return Iterator(table, size, index);
            }
        }
        return end();
    }
    Iterator end() const { return Iterator(table, mask + 2, mask + 1); }

    /// Writes the table as a block of markup, its occupied slots in slot order.
    /// Parameters: stream. Ownership: none. Result: the stream.
    /// Errors: what the stream, or a value's stream insertion, throws; the text so far stays.
    /// Guarantee: the table is unchanged.
    std::ostream& WriteTable(std::ostream& stream) const {
        stream << "<SVHashTable>";
        for (Iterator position = begin(); position != end(); position++) {
            position.entries[position.index].WriteEntry(stream);
        }
        return stream << "</SVHashTable>";
    }

    unsigned int used;  ///< number of occupied slots
    unsigned int fill;  ///< number of occupied and deleted slots
    unsigned int mask;  ///< number of addressable slots, less one
    Entry* table;       ///< the current slots: smalltable, or a heap array
    Entry smalltable[9];
    H hashFunction;

private:
    static constexpr unsigned int inlineSlots = 8;
    static constexpr unsigned int smallestHeapSlots = 16;
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

    /// Keeps a slot as it is before an insertion that may have to be taken back.
    class SlotBackup;

    unsigned int growthTarget() const { return used > fastGrowthLimit ? used * 2 : used * 4; }
    bool tooFullWith(unsigned int filled) const { return filled * 3 >= (mask + 1) * 2; }
    static Entry* allocateSlots(unsigned int count, unsigned int line);
    static void releaseSlots(Entry* slots) { delete[] slots; }
    Entry* copyOfSlots() const;
    void useEmptySlots(Entry* slots, unsigned int addressable);
    unsigned int reinsert(const Entry* source, unsigned int count);
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
    entry->state = svslotOccupied;
    ++used;
    return insertStored;
}

template <typename K, typename V, typename H>
SVHashTableEntry<K, V>* SVHashTable<K, V, H>::allocateSlots(unsigned int count, unsigned int line) {
    // A size that can't be expressed is as little to be had; the new-expression would throw its own
    // exception for it, although the allocation operator throws none. With 64-bit pointers there is
    // no such size.
    constexpr std::size_t most = PTRDIFF_MAX / sizeof(Entry) - 1;
    const std::size_t wanted = count;
    const bool possible = wanted <= most;
    Entry* const slots = possible ? new Entry[wanted] : nullptr;  // GCOVR_EXCL_BR_LINE: see above
    if (slots == nullptr) {
        throw svhashtableFailure("Unable to allocate space for new table.", line,
                                 svexceptionAllocationFailed);
    }
    return slots;
}

template <typename K, typename V, typename H>
SVHashTableEntry<K, V>* SVHashTable<K, V, H>::copyOfSlots() const {
    Entry* const copy = allocateSlots(mask + 2, lineNoCopyArray);
    for (unsigned int i = 0; i <= mask; ++i) {
        copy[i] = table[i];
    }
    return copy;
}

template <typename K, typename V, typename H>
void SVHashTable<K, V, H>::useEmptySlots(Entry* slots, unsigned int addressable) {
    mask = addressable - 1;
    table = slots;
    used = 0;
    const V nothing = V();
    for (unsigned int i = 0; i < addressable; ++i) {
        slots[i].value = nothing;
        slots[i].state = svslotEmpty;
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

template <typename K, typename V, typename H>
unsigned int SVHashTable<K, V, H>::resize(unsigned int minused) {
    bool sourceOnHeap = table != smalltable;
    Entry* source = table;
    Entry* target = smalltable;
    unsigned int newsize = inlineSlots;
    if (minused < inlineSlots) {
        if (!sourceOnHeap && fill == used) {
            return resizeNothing;
        }
        source = copyOfSlots();
        if (sourceOnHeap) {
            releaseSlots(table);
        }
        sourceOnHeap = true;
    } else {
        newsize = smallestHeapSlots;
        while (newsize <= minused && newsize != 0) {
            newsize <<= 1;
        }
        target = allocateSlots(newsize + 1, lineNoHeapArray);
    }
    const unsigned int count = fill;
    useEmptySlots(target, newsize);
    if (reinsert(source, count) != resizeDone) {
        return resizeFailed;
    }
    if (sourceOnHeap) {
        releaseSlots(source);
    }
    return resizeDone;
}

/// Holds a slot's contents and the counters, once told to, and puts them back at the end of its
/// scope unless told to forget them.
template <typename K, typename V, typename H>
class SVHashTable<K, V, H>::SlotBackup {
public:
    SlotBackup() = default;
    SlotBackup(const SlotBackup&) = delete;
    SlotBackup& operator=(const SlotBackup&) = delete;
    ~SlotBackup() {
        if (m_owner != nullptr) {
            *m_slot = *m_content;
            m_owner->used = m_used;
            m_owner->fill = m_fill;
        }
    }

    void keep(SVHashTable& owner, Entry* slot) {
        m_slot = slot;
        m_used = owner.used;
        m_fill = owner.fill;
        m_content.emplace();
        *m_content = *slot;
        m_owner = &owner;
    }
    void forget() { m_owner = nullptr; }

private:
    SVHashTable* m_owner = nullptr;
    Entry* m_slot = nullptr;
    unsigned int m_used = 0;
    unsigned int m_fill = 0;
    std::optional<Entry> m_content;
};

template <typename K, typename V, typename H>
void SVHashTable<K, V, H>::insert(const K& key, const V& value) {
    for (;;) {
        // The growth that may have to follow can fail for want of memory, and what was stored is
        // then taken back: otherwise each failure would use up a slot, until the probe walk no
        // longer finds an empty one and never ends.
        SlotBackup backup;
        if (tooFullWith(fill + 1)) {
            backup.keep(*this, lookup(key, hashFunction(key)));
        }
        const unsigned int stored = insert_helper(key, value);
        if (stored == insertStored) {
            const unsigned int grown = tooFullWith(fill) ? resize(growthTarget()) : resizeDone;
            backup.forget();
            // Not to be reached: a rebuild that has to clean or grow does so, or throws.
            if (grown != resizeDone) {
                throw svhashtableFailure("Error occured while resizing table.", lineGrowthFailed,
                                         svexceptionInternalTableError);
            }
            return;
        }
        backup.forget();
        // Neither result below can be reached: lookup() always finds a slot.
        if (stored != insertNoSlot) {
            throw svhashtableFailure("Error occurred while inserting.", lineInsertFailed,
                                     svexceptionInternalTableError);
        }
        if (resize(growthTarget()) != resizeDone) {
            throw svhashtableFailure("Error ocurred while resizing table.", lineNoSlotNoResize,
                                     svexceptionInternalTableError);
        }
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
        throw svhashtableFailure("Internal lookup error during operator[].", lineAbsentAfterInsert,
                                 svexceptionInternalTableError);
    }
    return entry->value;
}

}  // namespace Sorvane

#endif
