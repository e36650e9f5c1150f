// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A hash table written by hand with the layout, the hash and the probing of the library's, for keys
// and values that can be copied as they lie in memory: what these cost by themselves.
#ifndef SORVANE_BENCH_REFERENCE_TABLE_H
#define SORVANE_BENCH_REFERENCE_TABLE_H

#include <cstdint>
#include <cstdlib>
#include <type_traits>

namespace Bench {

template <typename K, typename V>
class ReferenceTable {
public:
    enum State : unsigned int { empty, occupied, deleted };
    struct Slot {
        void* reserved;
        K key;
        V value;
        unsigned int hash;
        unsigned int state;
    };
    static_assert(std::is_trivially_copyable_v<Slot>);

    ReferenceTable() { makeEmpty(m_inline, inlineSlots); }
    ReferenceTable(const ReferenceTable&) = delete;
    ReferenceTable& operator=(const ReferenceTable&) = delete;
    ~ReferenceTable() { release(m_slots); }

    unsigned int size() const { return m_used; }

    /// Rebuilds it with the smallest power of two above minused, and without its deleted slots.
    void resize(unsigned int minused) {
        unsigned int addressable = inlineSlots;
        while (addressable <= minused) {
            addressable *= 2;
        }
        Slot* const former = m_slots;
        const unsigned int count = m_mask + 1;
        if (addressable > inlineSlots) {
            makeEmpty(static_cast<Slot*>(std::malloc((addressable + 1) * sizeof(Slot))),
                      addressable);
            reinsert(former, count);
        } else {
            compact(former, count);
        }
        release(former);
    }

    void insert(const K& key, const V& value) {
        store(key, value);
        if (m_fill * 3 >= (m_mask + 1) * 2) {
            resize(m_used > fastGrowthLimit ? m_used * 2 : m_used * 4);
        }
    }

    V* find(const K& key) const {
        Slot* const slot = lookup(key, hashOf(key));
        return slot->state == occupied ? &slot->value : nullptr;
    }

    void erase(const K& key) {
        Slot* const slot = lookup(key, hashOf(key));
        if (slot->state == occupied) {
            slot->state = deleted;
            --m_used;
        }
    }

private:
    static constexpr unsigned int inlineSlots = 8;
    static constexpr unsigned int fastGrowthLimit = 29999;

    static unsigned int hashOf(int key) { return static_cast<unsigned int>(key); }
    static unsigned int hashOf(const void* key) {
        return static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(key));
    }

    Slot* lookup(const K& key, unsigned int hash) const {
        unsigned int i = hash & m_mask;
        Slot* slot = &m_slots[i];
        if (slot->state == empty || (slot->state == occupied && slot->key == key)) {
            return slot;
        }
        Slot* const home = slot;
        for (unsigned int perturb = hash;; perturb >>= 5) {
            i = 5 * i + 1 + perturb;
            slot = &m_slots[i & m_mask];
            if (slot->state != occupied) {
                return home->state == deleted ? home : slot;
            }
            if (slot->key == key) {
                return slot;
            }
        }
    }

    void store(const K& key, const V& value) {
        const unsigned int hash = hashOf(key);
        Slot* const slot = lookup(key, hash);
        if (slot->state != occupied) {
            m_fill += slot->state == empty ? 1 : 0;
            ++m_used;
            slot->hash = hash;
            slot->state = occupied;
        }
        slot->key = key;
        slot->value = value;
    }

    void makeEmpty(Slot* slots, unsigned int addressable) {
        m_slots = slots;
        m_mask = addressable - 1;
        m_used = 0;
        m_fill = 0;
        for (unsigned int i = 0; i <= addressable; ++i) {
            slots[i].state = empty;
        }
    }

    // What is left of the keys, which fit into the inline slots.
    void compact(const Slot* source, unsigned int count) {
        Slot left[inlineSlots];
        unsigned int leftCount = 0;
        for (unsigned int i = 0; i < count; ++i) {
            if (source[i].state == occupied) {
                left[leftCount++] = source[i];
            }
        }
        makeEmpty(m_inline, inlineSlots);
        reinsert(left, leftCount);
    }

    void reinsert(const Slot* source, unsigned int count) {
        for (unsigned int i = 0; i < count; ++i) {
            if (source[i].state == occupied) {
                store(source[i].key, source[i].value);
            }
        }
    }

    void release(Slot* slots) {
        if (slots != m_inline) {
            std::free(slots);
        }
    }

    unsigned int m_used;
    unsigned int m_fill;
    unsigned int m_mask;
    Slot* m_slots;
    Slot m_inline[inlineSlots + 1];
};

}  // namespace Bench

#endif
