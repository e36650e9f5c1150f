// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "support/memory_limit.h"

#include <../support/svhandlercontext.h>
#include <../support/svstore.h>
#include <sorvane/svhashtable.h>

#include <cstdio>
#include <cstdlib>
#include <new>

#include "support/emulation.h"
#include "support/sanitizers.h"
#include "support/stack_growth.h"

namespace {

namespace SVStore = Sorvane::SVStore;
using Sorvane::SVObject;

// Up to here the allocator keeps a list of free blocks for each size, which only requests of that
// size draw on; above, a large free block is split for a smaller request.
constexpr std::size_t largestListedSize = 2048;
constexpr std::size_t listStep = 8;
constexpr std::size_t largestSize = std::size_t{1} << 24;

// The store has four sizes of blocks to a doubling.
constexpr std::size_t smallestStored = 64;
constexpr std::size_t largestStored = 64 * 1024;

[[noreturn]] void fail(const char* call) noexcept {
    std::perror(call);
    std::abort();
}

}  // namespace

MemoryLimit::MemoryLimit(const std::vector<std::size_t>& spare) {
    Block* kept = nullptr;
    for (const std::size_t size : spare) {
        const Sorvane::SVHandlerContext::Scope fromTheStore;
        void* const storage = SVObject::operator new(size < sizeof(Block) ? sizeof(Block) : size);
        if (storage == nullptr) {
            fail("memory for the spare blocks");
        }
        kept = new (storage) Block{kept};
    }
    // The stack could not grow under the limit either.
    growStack();
    if (getrlimit(RLIMIT_AS, &m_former) != 0) {
        fail("getrlimit");
    }
    rlimit none = m_former;
    none.rlim_cur = 0;
    if (setrlimit(RLIMIT_AS, &none) != 0) {
        fail("setrlimit");
    }
    takeRest();
    while (kept != nullptr) {
        Block* const next = kept->next;
        SVObject::operator delete(kept);
        kept = next;
    }
}

bool MemoryLimit::takeAllOfHeap(std::size_t size) noexcept {
    bool tookAny = false;
    while (void* const storage = SVObject::operator new(size)) {
        m_taken = new (storage) Block{m_taken};
        tookAny = true;
    }
    return tookAny;
}

bool MemoryLimit::takeAllOfStore(std::size_t size) noexcept {
    bool tookAny = false;
    while (void* const storage = SVStore::take(size)) {
        m_takenFromStore = new (storage) StoredBlock{m_takenFromStore, size};
        tookAny = true;
    }
    return tookAny;
}

void MemoryLimit::takeRest() noexcept {
    bool tookAny = true;
    // A large request can make the allocator merge small free blocks, hence the rounds.
    while (tookAny) {
        tookAny = false;
        for (std::size_t size = largestSize; size > largestListedSize; size /= 2) {
            tookAny = takeAllOfHeap(size) || tookAny;
        }
        for (std::size_t size = largestListedSize; size >= sizeof(Block); size -= listStep) {
            tookAny = takeAllOfHeap(size) || tookAny;
        }
        for (std::size_t size = largestStored; size >= smallestStored; size /= 2) {
            for (std::size_t quarters = 4; quarters < 8; ++quarters) {
                tookAny = takeAllOfStore(size / 4 * quarters) || tookAny;
            }
        }
    }
}

void MemoryLimit::release() noexcept {
    if (m_released) {
        return;
    }
    m_released = true;
    if (setrlimit(RLIMIT_AS, &m_former) != 0) {
        fail("setrlimit");
    }
    while (m_taken != nullptr) {
        Block* const next = m_taken->next;
        SVObject::operator delete(m_taken);
        m_taken = next;
    }
    while (m_takenFromStore != nullptr) {
        StoredBlock* const next = m_takenFromStore->next;
        SVStore::giveBack(m_takenFromStore, m_takenFromStore->size);
        m_takenFromStore = next;
    }
}

const char* MemoryLimit::reasonForBeingAbsent() noexcept {
    if constexpr (builtWithAddressSanitizer) {
        return "AddressSanitizer's own memory can't be limited";
    } else if constexpr (builtWithThreadSanitizer) {
        return "ThreadSanitizer's own memory can't be limited";
    } else if constexpr (emulated) {
        return "the emulator's own memory can't be limited";
    } else {
        return underValgrindQ() ? "valgrind's own memory can't be limited" : nullptr;
    }
}
