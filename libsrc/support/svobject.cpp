// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Storage for every heap object, in any context.
//
// Ordinarily it comes from the heap. Where the heap is out of bounds it comes from the library's
// own store. A block knows where it came from. One from the heap that is released where that is out
// of bounds is put onto a list, and goes to the heap at the next allocation or release in ordinary
// context.
//
// The list is only ever pushed onto and taken as a whole, so that no block can be mistaken for an
// earlier one at its address.

#include "svobject.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "svhandlercontext.h"
#include "svstore.h"

namespace Sorvane {

constinit thread_local unsigned int SVHandlerContext::depth
    __attribute__((tls_model("initial-exec"))) = 0;

namespace {

// Stands before every block. Its alignment is that of any object, and so is the block's.
struct alignas(std::max_align_t) Header {
    std::size_t storedSize;  // 0 for a block from the heap
    Header* next;            // on the list of the released
};

constinit std::atomic<Header*> blocksPutAside{nullptr};

static_assert(std::atomic<Header*>::is_always_lock_free);

void putAside(Header* block) noexcept {
    Header* head = blocksPutAside.load(std::memory_order_relaxed);
    do {
        block->next = head;
        // Release: whoever takes the list sees the link, and all that was done with the block.
    } while (!blocksPutAside.compare_exchange_weak(head, block, std::memory_order_release,
                                                   std::memory_order_relaxed));
}

void freeWhatWasPutAside() noexcept {
    if (blocksPutAside.load(std::memory_order_relaxed) == nullptr) {
        return;
    }
    Header* block = blocksPutAside.exchange(nullptr, std::memory_order_acquire);
    while (block != nullptr) {
        Header* const next = block->next;
        std::free(block);
        block = next;
    }
}

}  // namespace

void* SVObject::operator new(std::size_t size) noexcept {
    if (size > SIZE_MAX - sizeof(Header)) {
        return nullptr;
    }
    const std::size_t wanted = sizeof(Header) + size;
    if (!SVHandlerContext::insideQ()) {
        freeWhatWasPutAside();
        if (void* const block = std::malloc(wanted)) {
            return new (block) Header{0, nullptr} + 1;
        }
    }
    void* const block = SVStore::take(wanted);
    return block == nullptr ? nullptr : new (block) Header{wanted, nullptr} + 1;
}

void* SVObject::operator new[](std::size_t size) noexcept {
    return SVObject::operator new(size);
}

void SVObject::operator delete(void* storage) noexcept {
    if (storage == nullptr) {
        return;
    }
    Header* const block = static_cast<Header*>(storage) - 1;
    if (block->storedSize != 0) {
        SVStore::giveBack(block, block->storedSize);
    } else if (SVHandlerContext::insideQ()) {
        putAside(block);
    } else {
        freeWhatWasPutAside();
        std::free(block);
    }
}

void SVObject::operator delete[](void* storage) noexcept {
    SVObject::operator delete(storage);
}

}  // namespace Sorvane
