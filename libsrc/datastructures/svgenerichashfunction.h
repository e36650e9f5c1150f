// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The hash function of the tables.
#ifndef SORVANE_SVGENERICHASHFUNCTION_H
#define SORVANE_SVGENERICHASHFUNCTION_H

#include <cstdint>

#include "../support/svexport.h"
#include "../support/svobject.h"

namespace Sorvane {

/// Hashes a key to its own bits, read as a 32-bit unsigned value: of a 64-bit pointer, the low
/// ones. Nothing is mixed; the table's probe sequence does the spreading.
///
/// Signal context: any.
template <typename K>
class SORVANE_API SVGenericHashFunction : public SVObject {
public:
    constexpr SVGenericHashFunction() noexcept = default;
    SVGenericHashFunction(const SVGenericHashFunction&) noexcept = default;
    SVGenericHashFunction& operator=(const SVGenericHashFunction&) noexcept = default;
    ~SVGenericHashFunction() noexcept override {}

    /// The key's hash.
    unsigned int operator()(const K& key) const noexcept { return bits(key); }

private:
    static unsigned int bits(const void* key) noexcept {
        return static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(key));
    }
    static unsigned int bits(int key) noexcept { return static_cast<unsigned int>(key); }
};

}  // namespace Sorvane

#endif
