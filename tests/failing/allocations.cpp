// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "failing/allocations.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace {

// Read by allocations of the program's own threads too, before main() and after it; only the
// thread that watches sets them.
constinit bool watching = false;
constinit std::size_t counted = 0;
constinit std::size_t failingNumber = 0;
constinit Allocations::Failing failingMode = Allocations::Failing::once;
constinit bool failed = false;
constinit std::ptrdiff_t held = 0;

}  // namespace

namespace Allocations {

Watch::Watch(std::size_t number, Failing failing) noexcept {
    counted = 0;
    failingNumber = number;
    failingMode = failing;
    failed = false;
    watching = true;
}

Watch::~Watch() {
    watching = false;
}

std::size_t Watch::count() const noexcept {
    return counted;
}

bool Watch::failedQ() const noexcept {
    return failed;
}

std::ptrdiff_t blocksHeld() noexcept {
    return held;
}

}  // namespace Allocations

namespace {

bool refused() noexcept {
    if (!watching) {
        return false;
    }
    ++counted;
    const bool failing = failingMode == Allocations::Failing::once
                             ? counted == failingNumber
                             : counted >= failingNumber && failingNumber != 0;
    if (failing) {
        // Said only now, so that whoever waits for it finds the failure decided.
        failed = true;
        errno = ENOMEM;
    }
    return failing;
}

void* taken(void* block) noexcept {
    held += block != nullptr ? 1 : 0;
    return block;
}

void givenBack(const void* block) noexcept {
    held -= block != nullptr ? 1 : 0;
}

}  // namespace

extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);

void* malloc(std::size_t size) {
    return refused() ? nullptr : taken(__libc_malloc(size));
}

void* calloc(std::size_t count, std::size_t size) {
    return refused() ? nullptr : taken(__libc_calloc(count, size));
}

void* realloc(void* block, std::size_t size) {
    if (refused()) {
        return nullptr;
    }
    givenBack(block);
    return taken(__libc_realloc(block, size));
}

// An exception's storage under libc++.
int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
    void* const found = refused() ? nullptr : taken(__libc_memalign(alignment, size));
    if (found == nullptr) {
        return ENOMEM;
    }
    *block = found;
    return 0;
}

void free(void* block) {
    givenBack(block);
    __libc_free(block);
}

void* mmap(void* address, std::size_t size, int protection, int flags, int file, off_t offset) {
    if (refused()) {
        return MAP_FAILED;
    }
#if defined(__i386__)
    constexpr long call = SYS_mmap2;
    const long place = static_cast<long>(offset / 4096);
#else
    constexpr long call = SYS_mmap;
    const long place = offset;
#endif
    const long mapped = syscall(call, address, size, protection, flags, file, place);
    void* const block = reinterpret_cast<void*>(mapped);
    held += block != MAP_FAILED ? 1 : 0;
    return block;
}

int munmap(void* address, std::size_t size) {
    givenBack(address);
    return static_cast<int>(syscall(SYS_munmap, address, size));
}
}
