// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Lets chosen allocations of this program fail: those of the heap, and those that are mapped from
// the operating system inside signal handlers. Both are interposed below the library.
#ifndef SORVANE_TESTS_FAILING_ALLOCATIONS_H
#define SORVANE_TESTS_FAILING_ALLOCATIONS_H

#include <cstddef>

namespace Allocations {

/// How often memory is not to be had, once it is not.
enum class Failing { once, fromThenOn };

/// While one of these lives, allocations are counted, and the given one of them fails, counted
/// from 1, or it and all after it. None fails for 0.
class Watch {
public:
    explicit Watch(std::size_t number = 0, Failing failing = Failing::once) noexcept;
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch();

    /// How many there were, and whether the given one was among them.
    std::size_t count() const noexcept;
    bool failedQ() const noexcept;
};

/// How many blocks the program holds, watched or not.
std::ptrdiff_t blocksHeld() noexcept;

}  // namespace Allocations

#endif
