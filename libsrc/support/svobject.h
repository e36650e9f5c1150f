// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The root class of the library, with the allocation operators of every heap object.
#ifndef SORVANE_SVOBJECT_H
#define SORVANE_SVOBJECT_H

#include <cstddef>

#include "svexport.h"

namespace Sorvane {

/// Root of every class of the library. Its virtual destructor is the only virtual operation that
/// most classes have, and its operators allocate and release every heap object.
///
/// The destructor may let an exception out, because the manager's may (see
/// ~SVSignalHandlerManager()); every other class declares its own destructor noexcept.
///
/// In every class, for every operation that does not say otherwise:
/// - Threads: any. An object is used by one thread at a time, or by several that only read it.
/// - Ownership: an argument that is kept is copied; what is returned by pointer or reference stays
///   the object's.
/// - Errors: none.
/// - Signal context: each class says which. "Any" means any signal handler, whatever it
///   interrupted. "Inside a handler that the library dispatched" means one that the library calls,
///   or normal context. "Normal context only" means no signal handler at all.
///
/// Throwing takes memory from the heap. What may throw is therefore safe in a signal handler only
/// as long as it succeeds.
class SORVANE_API SVObject {
public:
    constexpr SVObject() noexcept = default;
    constexpr SVObject(const SVObject&) noexcept = default;
    SVObject& operator=(const SVObject&) noexcept = default;

    virtual ~SVObject() noexcept(false) {}

    /// Storage of so many bytes, aligned for any object; null when memory can't be had. The
    /// new-expression then yields null too, so test its result.
    ///
    /// In normal context the storage comes from malloc. Inside a handler that the library runs, and
    /// inside its own operations, it comes from a store of the library's own, because malloc may be
    /// what was interrupted.
    /// Signal context: inside a handler that the library dispatched.
    static void* operator new(std::size_t size) noexcept;
    /// The same for an array.
    static void* operator new[](std::size_t size) noexcept;

    /// Gives back what the matching operator new gave, on whatever thread and in whatever context
    /// that was; null is allowed.
    /// Signal context: inside a handler that the library dispatched.
    static void operator delete(void* storage) noexcept;
    /// The same for an array.
    static void operator delete[](void* storage) noexcept;

    /// The placement forms, which the class's own operators would hide otherwise.
    /// Signal context: any.
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void* operator new[](std::size_t, void* place) noexcept { return place; }
    static void operator delete(void*, void*) noexcept {}
    static void operator delete[](void*, void*) noexcept {}
};

}  // namespace Sorvane

#endif
