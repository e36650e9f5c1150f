// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Who reads the published tables.
//
// A reader writes the address of the tables that it reads into a slot that nobody else uses; that
// is its pin. Whoever changes the tables, inside the gate, looks through the slots, and neither
// changes nor releases what is pinned. A reader looks at the gate after it has pinned, and only
// then at what it pinned (svgate.h says why that suffices), so an address may be pinned for a
// moment behind which there is nothing any more.
//
// There are many more slots than threads are likely to dispatch at once. A thread begins its search
// at a place of its own, so that threads do not keep taking a cache line from each other. Where no
// slot is left, a count takes its place, and everything is pinned as long as it is not zero.
//
// A thread that reads the same tables again, in a handler, uses the same slot. So a handler that
// leaves by siglongjmp, and leaves its pin behind, uses up a slot only when something has changed
// since the last one did; those tables then stay for good.
#ifndef SORVANE_SVPIN_H
#define SORVANE_SVPIN_H

#include <atomic>

#include "../support/svatomicref.h"
#include "../support/svhandlercontext.h"
#include "svgate.h"
#include "svsignaltables.h"

namespace Sorvane {

/// The key of a signal in the outer table. Defined for every int: the lowest one wraps.
/// Signal context: any context.
inline int signalKey(int signalNumber) noexcept {
    return static_cast<int>(static_cast<unsigned int>(signalNumber) - 1U);
}

/// Keeps the published tables, if there are any, as they are for the length of a scope. May sleep
/// at the gate for a moment when it is made. Threads: any. Signal context: any context.
class SVPin {
public:
    /// Parameters: place, where the published tables are.
    explicit SVPin(SVSignalTable*& place) noexcept : m_place(place) {
        take();
        if (!settledQ()) {
            pinAnew();
        }
    }
    SVPin(const SVPin&) = delete;
    SVPin& operator=(const SVPin&) = delete;
    ~SVPin() { letGo(); }

    SVSignalTable* tables() const noexcept { return m_tables; }

    /// The table of a signal, or null.
    SVSignalHandlerTable* tableOf(int signalNumber) const noexcept {
        const SVSignalTable::Entry* const entry =
            m_tables == nullptr ? nullptr : m_tables->get(signalKey(signalNumber));
        return entry == nullptr ? nullptr : entry->value;
    }

    /// Whether nothing else has been published since.
    bool publishedQ() const noexcept {
        return SVAtomicRef<SVSignalTable*>(m_place).load() == m_tables;
    }

    /// Exchanges what two pins keep.
    void swap(SVPin& other) noexcept;

    /// Whether somebody reads these tables. Signal context: inside the gate.
    static bool pinnedQ(const SVSignalTable* tables) noexcept;

    /// Forgets the pins of other threads, for the only thread of a forked child.
    static void forgetOtherThreads() noexcept;

private:
    struct alignas(4 * sizeof(void*)) Slot {
        bool takeFor(const void* reader, const void* itsTables) noexcept {
            const void* found = tables.load(std::memory_order_relaxed);
            if (found != nullptr || !tables.compare_exchange_strong(found, itsTables)) {
                return false;
            }
            times.store(1, std::memory_order_relaxed);
            thread.store(reader, std::memory_order_relaxed);
            return true;
        }
        void free() noexcept {
            thread.store(nullptr, std::memory_order_relaxed);
            tables.store(nullptr, std::memory_order_release);
        }

        std::atomic<const void*> tables;  ///< null: free
        std::atomic<const void*> thread;  ///< null just after it was taken
        std::atomic<unsigned int> times;  ///< how often that thread has pinned them
    };
    static constexpr unsigned int slotCount = 64;
    alignas(64) static Slot slots[slotCount];
    static std::atomic<unsigned int> withoutSlot;

    // Where a thread's search begins: at the beginning of a cache line, which not many threads
    // share.
    static unsigned int firstSlotOf(const void* thread) noexcept {
        constexpr unsigned int slotsInLine = 64 / sizeof(Slot);
        return SVHandlerContext::spread(thread) % (slotCount / slotsInLine) * slotsInLine;
    }

    void take() noexcept {
        m_tables = SVAtomicRef<SVSignalTable*>(m_place).load(std::memory_order_acquire);
        if (m_tables != nullptr) {
            const void* const thread = SVHandlerContext::thisThread();
            const unsigned int first = firstSlotOf(thread);
            if (slots[first].takeFor(thread, m_tables)) {
                m_slot = &slots[first];
            } else {
                pinElsewhere(thread, first);
            }
        }
    }
    bool settledQ() const noexcept { return SVGate::openQ() && publishedQ(); }
    void letGo() noexcept {
        if (m_slot != nullptr && m_slot->times.load(std::memory_order_relaxed) == 1) {
            m_slot->free();
        } else if (m_tables != nullptr) {
            letGoElsewhere();
        }
        m_slot = nullptr;
    }

    void pinAnew() noexcept;
    void pinElsewhere(const void* thread, unsigned int first) noexcept;
    void letGoElsewhere() noexcept;

    SVSignalTable*& m_place;
    SVSignalTable* m_tables = nullptr;
    Slot* m_slot = nullptr;
};

}  // namespace Sorvane

#endif
