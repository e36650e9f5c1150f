// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svpin.h"

#include <utility>

#include "../support/svhandlercontext.h"
#include "svgate.h"

namespace Sorvane {

alignas(64) constinit SVPin::Slot SVPin::slots[slotCount];
constinit std::atomic<unsigned int> SVPin::withoutSlot{0};

// Somebody is changing the tables, or has just changed them.
[[gnu::noinline]] void SVPin::pinAnew() noexcept {
    do {
        letGo();
        SVGate::waitUntilOpen();
        take();
    } while (!settledQ());
}

// Only its own thread counts in a slot that it has, and what interrupts that leaves the count as it
// found it.
[[gnu::noinline]] void SVPin::pinElsewhere(const void* thread, unsigned int first) noexcept {
    for (unsigned int i = 0; i < slotCount; ++i) {
        Slot& slot = slots[(first + i) % slotCount];
        if (slot.takeFor(thread, m_tables)) {
            m_slot = &slot;
            return;
        }
        if (slot.tables.load(std::memory_order_relaxed) == m_tables &&
            slot.thread.load(std::memory_order_relaxed) == thread) {
            slot.times.store(slot.times.load(std::memory_order_relaxed) + 1,
                             std::memory_order_relaxed);
            m_slot = &slot;
            return;
        }
    }
    withoutSlot.fetch_add(1);
}

// Release pairs with the search for pins: whoever finds none comes after all that was read.
[[gnu::noinline]] void SVPin::letGoElsewhere() noexcept {
    if (m_slot == nullptr) {
        withoutSlot.fetch_sub(1, std::memory_order_release);
    } else {
        m_slot->times.store(m_slot->times.load(std::memory_order_relaxed) - 1,
                            std::memory_order_relaxed);
    }
}

void SVPin::swap(SVPin& other) noexcept {
    std::swap(m_tables, other.m_tables);
    std::swap(m_slot, other.m_slot);
}

bool SVPin::pinnedQ(const SVSignalTable* tables) noexcept {
    for (const Slot& slot : slots) {
        if (slot.tables.load(std::memory_order_seq_cst) == tables) {
            return true;
        }
    }
    return withoutSlot.load(std::memory_order_seq_cst) != 0;
}

// A slot that was taken at the very instant of the fork does not tell by whom, and stays.
void SVPin::forgetOtherThreads() noexcept {
    for (Slot& slot : slots) {
        const void* const thread = slot.thread.load(std::memory_order_relaxed);
        if (thread != nullptr && thread != SVHandlerContext::thisThread()) {
            slot.thread.store(nullptr, std::memory_order_relaxed);
            slot.tables.store(nullptr, std::memory_order_relaxed);
        }
    }
    if (!SVHandlerContext::insideQ()) {
        withoutSlot.store(0, std::memory_order_relaxed);
    }
}

}  // namespace Sorvane
