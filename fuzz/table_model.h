// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A model of the hash table. What both the table and the model are told, they must agree about.
#ifndef SORVANE_FUZZ_TABLE_MODEL_H
#define SORVANE_FUZZ_TABLE_MODEL_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

/// What happened to a model, so that a test can see that agreement meant something.
struct TableEvents {
    unsigned growths = 0;
    unsigned shrinksToSmallerHeapArray = 0;
    unsigned shrinksToInlineArray = 0;
    unsigned heapCleansAtTheSameSize = 0;
    unsigned inlineCleans = 0;
    unsigned resizesWithNothingToDo = 0;
    unsigned replacements = 0;
    unsigned deletedSlots = 0;
    unsigned deletedHomeSlotsPassedOver = 0;
    unsigned deletedHomeSlotsReused = 0;
    unsigned walksEndedByDeletedSlot = 0;
    unsigned unreachableCopies = 0;
    unsigned copiesMerged = 0;
    unsigned differentKeysWithOneHash = 0;
    unsigned longWalks = 0;
};

constexpr unsigned emptyState = 0;
constexpr unsigned occupiedState = 1;
constexpr unsigned deletedState = 2;

/// Values are numbers here; 0 stands for the value of a slot that was never used.
struct ModelSlot {
    unsigned state = emptyState;
    std::uint64_t key = 0;
    std::uint32_t hash = 0;
    int value = 0;
};

/// A table, written from the rules alone, with arrays and loops; it shares nothing with the table.
class TableModel {
public:
    static constexpr std::size_t inlineSize = 8;

    std::vector<ModelSlot> slots = std::vector<ModelSlot>(inlineSize);
    std::uint32_t used = 0;
    std::uint32_t fill = 0;
    TableEvents events;

    bool inlineQ() const { return slots.size() == inlineSize; }

    std::size_t find(std::uint64_t key) {
        const std::uint32_t hash = hashOf(key);
        const std::size_t home = hash % slots.size();
        if (slots[home].state == emptyState) {
            return home;
        }
        const bool homeDeleted = slots[home].state == deletedState;
        if (!homeDeleted && slots[home].hash == hash) {
            if (slots[home].key == key) {
                return home;
            }
            ++events.differentKeysWithOneHash;
        }
        return findBeyondHome(key, home, homeDeleted);
    }

    bool hasKey(std::uint64_t key) { return slots[find(key)].state == occupiedState; }

    void store(std::uint64_t key, int value) {
        ModelSlot& slot = slots[find(key)];
        slot.key = key;
        slot.value = value;
        if (slot.state == occupiedState) {
            ++events.replacements;
            return;
        }
        if (slot.state == emptyState) {
            ++fill;
        }
        slot.hash = hashOf(key);
        slot.state = occupiedState;
        ++used;
    }

    void insert(std::uint64_t key, int value) {
        store(key, value);
        if (copiesOf(key) > 1) {
            ++events.unreachableCopies;
        }
        if (tooFullWith(fill)) {
            rebuild(growthTarget(used));
        }
    }

    /// What insert() would rebuild the table for, if it had to.
    std::optional<std::uint32_t> rebuildByInsertOf(std::uint64_t key) {
        const unsigned state = slots[find(key)].state;
        const std::uint32_t filled = fill + (state == emptyState ? 1 : 0);
        const std::uint32_t stored = used + (state == occupiedState ? 0 : 1);
        return tooFullWith(filled) ? std::optional(growthTarget(stored)) : std::nullopt;
    }

    void remove(std::uint64_t key) {
        ModelSlot& slot = slots[find(key)];
        if (slot.state == occupiedState) {
            slot.state = deletedState;
            --used;
            ++events.deletedSlots;
        }
    }

    static std::size_t sizeAbove(std::uint32_t minimum) {
        std::size_t size = inlineSize;
        while (size <= minimum) {
            size *= 2;
        }
        return size;
    }

    unsigned rebuild(std::uint32_t minimum) {
        const std::size_t size = sizeAbove(minimum);
        if (inlineQ() && size == inlineSize && used == fill) {
            ++events.resizesWithNothingToDo;
            return 0;
        }
        countRebuild(size);
        const std::vector<ModelSlot> former = slots;
        const std::uint32_t formerUsed = used;
        slots.assign(size, ModelSlot());
        used = 0;
        fill = 0;
        for (const ModelSlot& slot : former) {
            if (slot.state == occupiedState) {
                store(slot.key, slot.value);
            }
        }
        events.copiesMerged += formerUsed - used;
        return 2;
    }

private:
    static std::uint32_t growthTarget(std::uint32_t keys) {
        return keys < 30000 ? 4 * keys : 2 * keys;
    }
    bool tooFullWith(std::uint32_t filled) const {
        return 3 * std::uint64_t{filled} >= 2 * slots.size();
    }
    static std::uint32_t hashOf(std::uint64_t key) { return static_cast<std::uint32_t>(key); }

    std::size_t findBeyondHome(std::uint64_t key, std::size_t home, bool homeDeleted) {
        std::uint32_t step = hashOf(key);
        auto position = static_cast<std::uint32_t>(home);
        for (unsigned visited = 2;; ++visited) {
            position = position * 5 + 1 + step;
            const std::size_t index = position % slots.size();
            const ModelSlot& slot = slots[index];
            if (slot.state != occupiedState) {
                events.walksEndedByDeletedSlot += (slot.state == deletedState) ? 1 : 0;
                events.deletedHomeSlotsReused += homeDeleted ? 1 : 0;
                return homeDeleted ? home : index;
            }
            if (slot.key == key) {
                events.deletedHomeSlotsPassedOver += homeDeleted ? 1 : 0;
                return index;
            }
            events.longWalks += (visited == 4) ? 1 : 0;
            step /= 32;
        }
    }

    unsigned copiesOf(std::uint64_t key) const {
        unsigned copies = 0;
        for (const ModelSlot& slot : slots) {
            copies += (slot.state == occupiedState && slot.key == key) ? 1 : 0;
        }
        return copies;
    }

    void countRebuild(std::size_t size) {
        if (size > slots.size()) {
            ++events.growths;
        } else if (size == inlineSize) {
            ++(inlineQ() ? events.inlineCleans : events.shrinksToInlineArray);
        } else {
            ++(size < slots.size() ? events.shrinksToSmallerHeapArray
                                   : events.heapCleansAtTheSameSize);
        }
    }
};

#endif
