// Storage for every heap object, in any context.
//
// The problem: a signal may interrupt the heap in the middle of its work, so inside a handler
// nothing may be allocated from it or given back to it.
//
// The mechanism: inside a handler a block is mapped from the operating system, one mapping each;
// mmap and munmap are plain system calls. A block knows where it came from. A mapped one is given
// back at once, in any context. One from the heap that is released inside a handler is put onto a
// list, and goes to the heap at the next allocation or release outside of one.
//
// The list is only ever pushed onto and taken as a whole, so that no block can be mistaken for an
// earlier one at its address.

#include "svobject.h"

#include <sys/mman.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "svhandlercontext.h"
#include "svmemoryrefusal.h"

namespace Sorvane {

constinit thread_local unsigned int SVHandlerContext::depth = 0;
constinit thread_local bool SVMemoryRefusal::inForce = false;

namespace {

// Stands before every block. Its alignment is that of any object, and so is the block's.
struct alignas(std::max_align_t) Header {
    std::size_t mappedSize;  // 0 for a block from the heap
    Header* next;            // on the list of the released
};

std::atomic<Header*> released{nullptr};

static_assert(std::atomic<Header*>::is_always_lock_free);

Header* takeFromHeap(std::size_t size) noexcept {
    void* const block = std::malloc(size);
    return block == nullptr ? nullptr : new (block) Header{0, nullptr};
}

Header* takeFromSystem(std::size_t size) noexcept {
    void* const block =
        // cppcheck-suppress invalidFunctionArg ; a mapping without a file has no descriptor
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return block == MAP_FAILED ? nullptr : new (block) Header{size, nullptr};
}

void putAside(Header* block) noexcept {
    Header* head = released.load(std::memory_order_relaxed);
    do {
        block->next = head;
        // Release: whoever takes the list sees the link, and all that was done with the block.
    } while (!released.compare_exchange_weak(head, block, std::memory_order_release,
                                             std::memory_order_relaxed));
}

void freeWhatWasPutAside() noexcept {
    if (released.load(std::memory_order_relaxed) == nullptr) {
        return;
    }
    Header* block = released.exchange(nullptr, std::memory_order_acquire);
    while (block != nullptr) {
        Header* const next = block->next;
        std::free(block);
        block = next;
    }
}

}  // namespace

void* SVObject::operator new(std::size_t size) noexcept {
    if (size > SIZE_MAX - sizeof(Header) || SVMemoryRefusal::inForceQ()) {
        return nullptr;
    }
    Header* block = nullptr;
    if (SVHandlerContext::insideQ()) {
        block = takeFromSystem(sizeof(Header) + size);
    } else {
        freeWhatWasPutAside();
        block = takeFromHeap(sizeof(Header) + size);
    }
    return block == nullptr ? nullptr : block + 1;
}

void* SVObject::operator new[](std::size_t size) noexcept {
    return SVObject::operator new(size);
}

void SVObject::operator delete(void* storage) noexcept {
    if (storage == nullptr) {
        return;
    }
    Header* const block = static_cast<Header*>(storage) - 1;
    if (block->mappedSize != 0) {
        munmap(block, block->mappedSize);
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
