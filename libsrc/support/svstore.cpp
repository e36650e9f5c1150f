// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svstore.h"

#include <sys/mman.h>

#include <atomic>
#include <bit>
#include <cstdint>
#include <new>

namespace Sorvane {

namespace {

struct Block {
    Block* next;
};

// Sizes of blocks: four to a doubling, so that at most a fifth of a block is wasted.
constexpr std::size_t smallestBlock = 64;
constexpr std::size_t largestBlock = std::size_t{64} * 1024;
constexpr unsigned int stepsInDoubling = 4;
constexpr unsigned int doublings = 10;
static_assert(smallestBlock << doublings == largestBlock);
constexpr unsigned int sizes = stepsInDoubling * doublings + 1;

constinit std::atomic<Block*> released[sizes];

static_assert(std::atomic<Block*>::is_always_lock_free);
static_assert(std::atomic<std::size_t>::is_always_lock_free);

// The index of the smallest size that is large enough.
constexpr unsigned int indexOf(std::size_t size) noexcept {
    if (size <= smallestBlock) {
        return 0;
    }
    const auto doubling =
        static_cast<unsigned int>(std::bit_width((size - 1) / smallestBlock | 1U)) - 1;
    const std::size_t step = (smallestBlock << doubling) / stepsInDoubling;
    const std::size_t above = size - (smallestBlock << doubling);
    return doubling * stepsInDoubling + static_cast<unsigned int>((above + step - 1) / step);
}

constexpr std::size_t sizeAt(unsigned int index) noexcept {
    const std::size_t doubled = smallestBlock << (index / stepsInDoubling);
    return doubled + doubled / stepsInDoubling * (index % stepsInDoubling);
}

static_assert(indexOf(largestBlock) == sizes - 1 && sizeAt(sizes - 1) == largestBlock);
static_assert(indexOf(65) == 1 && sizeAt(1) == 80 && indexOf(129) == 5 && sizeAt(5) == 160);

// A mapping that is cut from its beginning to its end.
struct alignas(smallestBlock) Chunk {
    std::atomic<std::size_t> cut{sizeof(Chunk)};
    std::size_t size;

    void* take(std::size_t wanted) noexcept {
        // Looked at first, so that attempts that fail do not go on counting.
        if (wanted > size || cut.load(std::memory_order_relaxed) > size - wanted) {
            return nullptr;
        }
        const std::size_t start = cut.fetch_add(wanted, std::memory_order_relaxed);
        return start + wanted <= size ? reinterpret_cast<char*>(this) + start : nullptr;
    }
};

// Large enough for a few tables, and small enough to cost nothing where there are no more.
constexpr std::size_t chunkSize = std::size_t{16} * 1024;

constinit std::atomic<Chunk*> currentChunk{nullptr};

void* map(std::size_t size) noexcept {
    void* const mapped =
        // cppcheck-suppress invalidFunctionArg ; a mapping without a file has no descriptor
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    // cppcheck-suppress memleak ; the caller's
    return mapped == MAP_FAILED ? nullptr : mapped;
}

void* cutFromChunk(std::size_t size) noexcept {
    for (;;) {
        // Acquire pairs with the exchange below: whoever finds a chunk finds it made.
        Chunk* chunk = currentChunk.load(std::memory_order_acquire);
        void* const block = chunk == nullptr ? nullptr : chunk->take(size);
        if (block != nullptr) {
            return block;
        }
        const std::size_t wanted =
            chunkSize < size + sizeof(Chunk) ? size + sizeof(Chunk) : chunkSize;
        void* const mapped = map(wanted);
        if (mapped == nullptr) {
            return nullptr;
        }
        auto* const made = new (mapped) Chunk;
        made->size = wanted;
        if (!currentChunk.compare_exchange_strong(chunk, made, std::memory_order_acq_rel)) {
            munmap(mapped, wanted);
        }
    }
}

// Pushes a chain of blocks.
void push(std::atomic<Block*>& list, Block* first, Block* last) noexcept {
    Block* head = list.load(std::memory_order_relaxed);
    do {
        last->next = head;
        // Release: whoever takes the list sees the links, and all that was done with the blocks.
    } while (!list.compare_exchange_weak(head, first, std::memory_order_release,
                                         std::memory_order_relaxed));
}

Block* pop(std::atomic<Block*>& list) noexcept {
    if (list.load(std::memory_order_relaxed) == nullptr) {
        return nullptr;
    }
    Block* const first = list.exchange(nullptr, std::memory_order_acquire);
    if (first == nullptr || first->next == nullptr) {
        return first;
    }
    Block* const rest = first->next;
    Block* none = nullptr;
    if (!list.compare_exchange_strong(none, rest, std::memory_order_release,
                                      std::memory_order_relaxed)) {
        Block* last = rest;
        while (last->next != nullptr) {
            last = last->next;
        }
        push(list, rest, last);
    }
    return first;
}

}  // namespace

void* SVStore::take(std::size_t size) noexcept {
    if (size > largestBlock) {
        return map(size);
    }
    const unsigned int index = indexOf(size);
    if (Block* const block = pop(released[index])) {
        return block;
    }
    return cutFromChunk(sizeAt(index));
}

void SVStore::giveBack(void* block, std::size_t size) noexcept {
    if (size > largestBlock) {
        munmap(block, size);
        return;
    }
    auto* const returned = new (block) Block{nullptr};
    push(released[indexOf(size)], returned, returned);
}

}  // namespace Sorvane
