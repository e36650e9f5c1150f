#include "svpin.h"

#include <cstdint>
#include <utility>

#include "../support/svhandlercontext.h"
#include "svgate.h"

namespace Sorvane {

alignas(64) constinit SVPin::Slot SVPin::slots[slotCount];
constinit std::atomic<unsigned int> SVPin::withoutSlot{0};

namespace {

// Where a thread's search begins: at the beginning of a cache line, which not many threads share.
unsigned int firstSlotOf(const void* thread, unsigned int slotsInLine,
                         unsigned int lines) noexcept {
    constexpr std::uint32_t spreading = 2654435769U;
    const auto bits = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(thread) >> 6U);
    return ((bits * spreading) >> 16U) % lines * slotsInLine;
}

}  // namespace

SVPin::SVPin(SVSignalTable*& place) noexcept : m_place(place) {
    for (;;) {
        m_tables = SVAtomicRef<SVSignalTable*>(place).load(std::memory_order_acquire);
        if (m_tables != nullptr) {
            pin();
        }
        if (SVGate::openQ() && publishedQ()) {
            return;
        }
        letGo();
        SVGate::waitUntilOpen();
    }
}

// Only its own thread counts in a slot that it has, and what interrupts that leaves the count as it
// found it.
void SVPin::pin() noexcept {
    constexpr unsigned int slotsInLine = 64 / sizeof(Slot);
    const void* const thread = SVHandlerContext::thisThread();
    const unsigned int first = firstSlotOf(thread, slotsInLine, slotCount / slotsInLine);
    for (unsigned int i = 0; i < slotCount; ++i) {
        Slot& slot = slots[(first + i) % slotCount];
        const void* found = slot.tables.load(std::memory_order_relaxed);
        if (found == nullptr && slot.tables.compare_exchange_strong(found, m_tables)) {
            slot.times.store(1, std::memory_order_relaxed);
            slot.thread.store(thread, std::memory_order_relaxed);
            m_slot = &slot;
            return;
        }
        if (found == m_tables && slot.thread.load(std::memory_order_relaxed) == thread) {
            slot.times.store(slot.times.load(std::memory_order_relaxed) + 1,
                             std::memory_order_relaxed);
            m_slot = &slot;
            return;
        }
    }
    withoutSlot.fetch_add(1);
}

// Release pairs with the search for pins: whoever finds none comes after all that was read.
void SVPin::letGo() noexcept {
    if (m_tables == nullptr) {
        return;
    }
    if (m_slot == nullptr) {
        withoutSlot.fetch_sub(1, std::memory_order_release);
    } else if (const unsigned int times = m_slot->times.load(std::memory_order_relaxed);
               times > 1) {
        m_slot->times.store(times - 1, std::memory_order_relaxed);
    } else {
        m_slot->thread.store(nullptr, std::memory_order_relaxed);
        m_slot->tables.store(nullptr, std::memory_order_release);
    }
    m_slot = nullptr;
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
