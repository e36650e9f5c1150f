// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Takes all memory away from the process, and gives it back.
#ifndef SORVANE_TESTS_SUPPORT_MEMORY_LIMIT_H
#define SORVANE_TESTS_SUPPORT_MEMORY_LIMIT_H

#include <sys/resource.h>

#include <cstddef>
#include <initializer_list>
#include <vector>

/// Leaves a test, as skipped, where memory can't be taken away (see MemoryLimit).
#define SKIP_WITHOUT_MEMORY_LIMIT()                                         \
    do {                                                                    \
        if (const char* const reason = MemoryLimit::reasonForBeingAbsent()) \
            GTEST_SKIP() << reason;                                         \
    } while (false)

/// While one of these lives, there is no memory: the address space may not grow any more, and
/// everything that the heap and the library's own store had left is taken. Nothing is simulated;
/// malloc and mmap fail.
///
/// GoogleTest needs memory to report, and so do std::string and std::thread. Note results in plain
/// variables while the limit lives, and judge them after release() or after the scope.
///
/// It is the calling thread's memory; another thread may still have free blocks in its own cache.
/// What is freed while the limit lives can be had again; takeRest() takes that too.
class MemoryLimit {
public:
    /// Takes everything, except for one block of the store for each size in spare, for an
    /// allocation of that size which is to succeed: SVObject's operators find it in any context,
    /// and nobody else does. Sizes that differ by less than a fifth may share a block.
    explicit MemoryLimit(std::initializer_list<std::size_t> spare = {})
        : MemoryLimit(std::vector<std::size_t>(spare)) {}
    explicit MemoryLimit(const std::vector<std::size_t>& spare);
    MemoryLimit(const MemoryLimit&) = delete;
    MemoryLimit& operator=(const MemoryLimit&) = delete;
    ~MemoryLimit() { release(); }

    /// Takes what has become free since.
    void takeRest() noexcept;

    /// Ends the limit before the end of the scope.
    void release() noexcept;

    /// Null when memory can be taken away here, otherwise why it can't.
    static const char* reasonForBeingAbsent() noexcept;

private:
    struct Block {
        Block* next;
    };
    struct StoredBlock {
        StoredBlock* next;
        std::size_t size;
    };

    bool takeAllOfHeap(std::size_t size) noexcept;
    bool takeAllOfStore(std::size_t size) noexcept;

    rlimit m_former = {};
    Block* m_taken = nullptr;  ///< by SVObject's operator
    StoredBlock* m_takenFromStore = nullptr;
    bool m_released = false;
};

#endif
