// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Storage of the library's own, for where the ordinary heap is out of bounds.
//
// The problem. A signal may have interrupted the heap in the middle of its work, on this thread or
// on one that waits for this one. Storage that is needed then can't come from the heap, and can't
// go back to it.
//
// The mechanism. Memory is mapped from the operating system in chunks, cut into blocks of some
// fixed sizes, and never given back. A block that is released goes to the list of its size. Lists
// are only ever pushed onto and taken as a whole, each in one instruction; whoever wants one block
// takes the list, keeps the first one and gives back the rest. So nobody follows a link of a list
// that somebody else may be changing, and a block can't be mistaken for an earlier one at its
// address. What a thread holds when it is stopped for good, or is lost to a forked child, is
// missing from the list and does no other harm.
//
// Nothing here waits, and nothing is undone by whatever interrupts it. Large blocks are mapped and
// unmapped by themselves.
#ifndef SORVANE_SVSTORE_H
#define SORVANE_SVSTORE_H

#include <cstddef>

namespace Sorvane {

/// Signal context: any context. Threads: any. No exceptions. May change errno.
namespace SVStore {

/// Storage aligned for any object; null when the operating system has no memory.
void* take(std::size_t size) noexcept;

/// Gives back what was taken, with the same size.
void giveBack(void* block, std::size_t size) noexcept;

}  // namespace SVStore

}  // namespace Sorvane

#endif
