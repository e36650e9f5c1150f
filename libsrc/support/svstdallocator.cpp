// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svstdallocator.h"

#include <atomic>
#include <cstdint>
#include <new>

namespace Sorvane {

namespace {

// The reserve: a few blocks, each large enough for any text that the library itself puts into an
// exception. Two are needed for each exception that is alive at once without memory.
constexpr std::size_t blockSize = 128;
constexpr std::size_t blockCount = 32;

alignas(std::max_align_t) char reserve[blockCount][blockSize];
std::atomic<bool> taken[blockCount];

static_assert(std::atomic<bool>::is_always_lock_free);

char* takeFromReserve(std::size_t size) noexcept {
    if (size > blockSize) {
        return nullptr;
    }
    for (std::size_t i = 0; i < blockCount; ++i) {
        // Acquire pairs with the release in giveBackToReserve: the former owner is done with it.
        if (!taken[i].exchange(true, std::memory_order_acquire)) {
            return reserve[i];
        }
    }
    return nullptr;
}

// As numbers, because pointers may be compared only within one array. What lies before the reserve
// wraps to a distance far beyond its end.
bool isFromReserve(const char* storage) noexcept {
    const auto first = reinterpret_cast<std::uintptr_t>(reserve);
    return reinterpret_cast<std::uintptr_t>(storage) - first < sizeof(reserve);
}

void giveBackToReserve(const char* storage) noexcept {
    const auto index = static_cast<std::size_t>(storage - reserve[0]) / blockSize;
    taken[index].store(false, std::memory_order_release);
}

}  // namespace

void svthrowBadAlloc() {
    throw std::bad_alloc();
}

void svthrowBadArrayNewLength() {
    throw std::bad_array_new_length();
}

template <>
char* SVStdAllocator<char>::allocate(std::size_t count) {
    void* storage = SVObject::operator new(count);
    if (storage == nullptr) {
        storage = takeFromReserve(count);
    }
    if (storage == nullptr) {
        svthrowBadAlloc();
    }
    return static_cast<char*>(storage);
}

template <>
void SVStdAllocator<char>::deallocate(char* storage, std::size_t) noexcept {
    if (isFromReserve(storage)) {
        giveBackToReserve(storage);
    } else {
        SVObject::operator delete(storage);
    }
}

}  // namespace Sorvane
