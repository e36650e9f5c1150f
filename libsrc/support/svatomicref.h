// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Atomic access to a plain object: std::atomic_ref, also where the standard library lacks it.
#ifndef SORVANE_SVATOMICREF_H
#define SORVANE_SVATOMICREF_H

#include <atomic>
#include <cstddef>

namespace Sorvane {

/// Atomic access to a plain integer, flag or pointer by the compiler's own operations, under the
/// names of std::atomic_ref and with their meaning: as many of them as the library uses.
///
/// The object must outlive this one, and while one of these refers to it, it is only to be used
/// through such. Errors: none. Threads: any. Signal context: any context, as far as T is lock-free.
template <typename T>
class SVBuiltinAtomicRef {
public:
    static constexpr bool is_always_lock_free = __atomic_always_lock_free(sizeof(T), nullptr);

    explicit SVBuiltinAtomicRef(T& object) noexcept : m_object(&object) {}
    SVBuiltinAtomicRef(const SVBuiltinAtomicRef&) noexcept = default;
    SVBuiltinAtomicRef& operator=(const SVBuiltinAtomicRef&) = delete;

    T load(std::memory_order order = std::memory_order_seq_cst) const noexcept {
        return __atomic_load_n(m_object, number(order));
    }
    void store(T desired, std::memory_order order = std::memory_order_seq_cst) const noexcept {
        __atomic_store_n(m_object, desired, number(order));
    }
    T exchange(T desired, std::memory_order order = std::memory_order_seq_cst) const noexcept {
        return __atomic_exchange_n(m_object, desired, number(order));
    }
    operator T() const noexcept { return load(); }

    bool compare_exchange_strong(
        T& expected, T desired,
        std::memory_order order = std::memory_order_seq_cst) const noexcept {
        return compare_exchange_strong(expected, desired, order, orderOfFailure(order));
    }
    bool compare_exchange_strong(T& expected, T desired, std::memory_order success,
                                 std::memory_order failure) const noexcept {
        return __atomic_compare_exchange_n(m_object, &expected, desired, false, number(success),
                                           number(failure));
    }
    bool compare_exchange_weak(T& expected, T desired,
                               std::memory_order order = std::memory_order_seq_cst) const noexcept {
        return compare_exchange_weak(expected, desired, order, orderOfFailure(order));
    }
    bool compare_exchange_weak(T& expected, T desired, std::memory_order success,
                               std::memory_order failure) const noexcept {
        return __atomic_compare_exchange_n(m_object, &expected, desired, true, number(success),
                                           number(failure));
    }

    T fetch_add(T operand, std::memory_order order = std::memory_order_seq_cst) const noexcept {
        return __atomic_fetch_add(m_object, operand, number(order));
    }
    T fetch_sub(T operand, std::memory_order order = std::memory_order_seq_cst) const noexcept {
        return __atomic_fetch_sub(m_object, operand, number(order));
    }
    T fetch_and(T operand, std::memory_order order = std::memory_order_seq_cst) const noexcept {
        return __atomic_fetch_and(m_object, operand, number(order));
    }
    T fetch_or(T operand, std::memory_order order = std::memory_order_seq_cst) const noexcept {
        return __atomic_fetch_or(m_object, operand, number(order));
    }

private:
    static constexpr int number(std::memory_order order) noexcept {
        switch (order) {
            case std::memory_order_relaxed:
                return __ATOMIC_RELAXED;
            case std::memory_order_consume:
                return __ATOMIC_CONSUME;
            case std::memory_order_acquire:
                return __ATOMIC_ACQUIRE;
            case std::memory_order_release:
                return __ATOMIC_RELEASE;
            case std::memory_order_acq_rel:
                return __ATOMIC_ACQ_REL;
            default:
                return __ATOMIC_SEQ_CST;
        }
    }
    // A failed exchange only reads.
    static constexpr std::memory_order orderOfFailure(std::memory_order order) noexcept {
        switch (order) {
            case std::memory_order_release:
                return std::memory_order_relaxed;
            case std::memory_order_acq_rel:
                return std::memory_order_acquire;
            default:
                return order;
        }
    }

    T* m_object;
};

#ifdef __cpp_lib_atomic_ref
template <typename T>
using SVAtomicRef = std::atomic_ref<T>;
#else
template <typename T>
using SVAtomicRef = SVBuiltinAtomicRef<T>;
#endif

}  // namespace Sorvane

#endif
