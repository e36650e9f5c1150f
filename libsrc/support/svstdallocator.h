// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The allocator of the library's standard strings and containers.
#ifndef SORVANE_SVSTDALLOCATOR_H
#define SORVANE_SVSTDALLOCATOR_H

#include <cstddef>
#include <limits>
#include <type_traits>

#include "svexport.h"
#include "svobject.h"

namespace Sorvane {

/// Throws std::bad_alloc: in the library, so that the headers do for programs that are compiled
/// without exceptions.
[[noreturn]] SORVANE_API void svthrowBadAlloc();
/// The same with std::bad_array_new_length.
[[noreturn]] SORVANE_API void svthrowBadArrayNewLength();

/// Gives standard containers their storage from SVObject's operators. All allocators are alike:
/// storage from one may be given back through any other.
///
/// Signal context: inside a handler that the library dispatched.
template <typename T>
class SORVANE_API SVStdAllocator : public SVObject {
public:
    /// What standard containers ask of an allocator.
    using value_type = T;
    using is_always_equal = std::true_type;                         ///< as value_type
    using propagate_on_container_move_assignment = std::true_type;  ///< as value_type

    constexpr SVStdAllocator() noexcept = default;
    constexpr SVStdAllocator(const SVStdAllocator&) noexcept = default;
    SVStdAllocator& operator=(const SVStdAllocator&) noexcept = default;
    /// From that of another type.
    template <typename U>
    constexpr SVStdAllocator(const SVStdAllocator<U>&) noexcept {}
    ~SVStdAllocator() noexcept override {}

    /// Storage for so many elements, none of them constructed; give it back with deallocate().
    /// Errors: std::bad_alloc when memory can't be had, as standard containers demand;
    /// std::bad_array_new_length when the size can't be expressed.
    T* allocate(std::size_t count) {
        if (count > (std::numeric_limits<std::size_t>::max)() / sizeof(T)) {
            svthrowBadArrayNewLength();
        }
        void* storage = SVObject::operator new(count * sizeof(T));
        if (storage == nullptr) {
            svthrowBadAlloc();
        }
        return static_cast<T*>(storage);
    }

    /// Gives back what allocate() gave; the count is not needed.
    void deallocate(T* storage, std::size_t) noexcept { SVObject::operator delete(storage); }
};

/// Characters are what exceptions keep their texts in, and an exception about missing memory must
/// not fail for want of it: when memory can't be had, the library's strings take what they need
/// from a small reserve, and fail with std::bad_alloc only when that has no room either.
template <>
SORVANE_API char* SVStdAllocator<char>::allocate(std::size_t count);
/// Gives it back to where it is from.
template <>
SORVANE_API void SVStdAllocator<char>::deallocate(char* storage, std::size_t) noexcept;

/// Any two are equal.
template <typename T, typename U>
constexpr bool operator==(const SVStdAllocator<T>&, const SVStdAllocator<U>&) noexcept {
    return true;
}

/// No two differ.
template <typename T, typename U>
constexpr bool operator!=(const SVStdAllocator<T>&, const SVStdAllocator<U>&) noexcept {
    return false;
}

}  // namespace Sorvane

#endif
