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
class SORVANE_API SVObject {
public:
    constexpr SVObject() noexcept = default;
    constexpr SVObject(const SVObject&) noexcept = default;
    SVObject& operator=(const SVObject&) noexcept = default;

    virtual ~SVObject() noexcept(false) {}

    /// Allocates the storage of one object, or of an array of objects.
    /// Parameters: size, in bytes.
    /// Ownership: the caller's; give it back with the matching operator delete.
    /// Result: the storage, aligned for any object; null when memory can't be had, so that a
    ///   new-expression yields null too and its result is to be tested.
    /// Errors: none thrown. Guarantee: no exception.
    /// Threads: any. Signal context: normal context only.
    static void* operator new(std::size_t size) noexcept;
    static void* operator new[](std::size_t size) noexcept;

    /// Gives storage back.
    /// Parameters: storage, from the matching operator new; null is allowed and does nothing.
    /// Ownership: taken. Result: none. Errors: none thrown. Guarantee: no exception.
    /// Threads: any. Signal context: normal context only.
    static void operator delete(void* storage) noexcept;
    static void operator delete[](void* storage) noexcept;

    /// The placement forms, which the class's own operators would hide otherwise.
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void* operator new[](std::size_t, void* place) noexcept { return place; }
    static void operator delete(void*, void*) noexcept {}
    static void operator delete[](void*, void*) noexcept {}
};

}  // namespace Sorvane

#endif
