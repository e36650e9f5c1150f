// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "support/faults.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <system_error>

#if defined(__clang__)
#define UNSEEN_BY_SANITIZERS [[clang::no_sanitize("address", "undefined", "thread")]]
#else
#define UNSEEN_BY_SANITIZERS [[gnu::no_sanitize("address", "undefined", "thread")]]
#endif

namespace {

constexpr std::size_t pageSize = 4096;

void* mapOrThrow(int protection, int flags, int file) {
    void* const address = mmap(nullptr, pageSize, protection, flags, file, 0);
    if (address == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "mmap");
    }
    return address;
}

void protectOrAbort(void* address, int protection) noexcept {
    if (mprotect(address, pageSize, protection) != 0) {
        std::abort();
    }
}

UNSEEN_BY_SANITIZERS [[gnu::noinline]] void useStack(std::size_t pages) {
    volatile char room[pageSize];
    room[0] = 1;
    if (pages > 0) {
        useStack(pages - 1);
    }
    // No tail call, for the room is used after it.
    room[1] = room[0];
}

int makeFile() {
    const int file = memfd_create("truncated", MFD_CLOEXEC);
    if (file < 0 || ftruncate(file, pageSize) != 0) {
        throw std::system_error(errno, std::generic_category(), "memfd_create");
    }
    return file;
}

}  // namespace

UNSEEN_BY_SANITIZERS [[gnu::noinline]] void writeTo(void* address) {
    *static_cast<volatile char*>(address) = 1;
}

UNSEEN_BY_SANITIZERS [[gnu::noinline]] char readFrom(const void* address) {
    return *static_cast<const volatile char*>(address);
}

void overflowStack() {
    useStack(std::numeric_limits<std::size_t>::max());
}

ClosedPage::ClosedPage() : m_address(mapOrThrow(PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1)) {}

ClosedPage::~ClosedPage() {
    munmap(m_address, pageSize);
}

void ClosedPage::open() const noexcept {
    protectOrAbort(m_address, PROT_READ | PROT_WRITE);
}

void ClosedPage::close() const noexcept {
    protectOrAbort(m_address, PROT_NONE);
}

TruncatedFile::TruncatedFile()
    : m_file(makeFile()), m_address(mapOrThrow(PROT_READ | PROT_WRITE, MAP_SHARED, m_file)) {
    if (ftruncate(m_file, 0) != 0) {
        throw std::system_error(errno, std::generic_category(), "ftruncate");
    }
}

TruncatedFile::~TruncatedFile() {
    munmap(m_address, pageSize);
    close(m_file);
}

void TruncatedFile::lengthen() const noexcept {
    if (ftruncate(m_file, pageSize) != 0) {
        std::abort();
    }
}
