// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The library's own store for programs that let single allocations fail: each block is mapped by
// itself, and unmapped when it comes back, so that none is made of what was there before. Linked
// before the library, it takes the place of the library's.

#include <../support/svstore.h>
#include <sys/mman.h>

void* Sorvane::SVStore::take(std::size_t size) noexcept {
    void* const block =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return block == MAP_FAILED ? nullptr : block;
}

void Sorvane::SVStore::giveBack(void* block, std::size_t size) noexcept {
    munmap(block, size);
}
