// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The table of virtual functions of an object, as a client sees it that was compiled elsewhere:
// the pointer at the object's start leads to the functions, in their order (Itanium C++ ABI).
#ifndef SORVANE_TESTS_SUPPORT_VIRTUAL_TABLE_H
#define SORVANE_TESTS_SUPPORT_VIRTUAL_TABLE_H

#include <sorvane/svhashtable.h>

#include <cstddef>

#include "support/sanitizers.h"

class VirtualTable {
public:
    explicit VirtualTable(const Sorvane::SVObject& object);

    /// Whether size() can tell: AddressSanitizer pads the tables, and their symbols with them.
    static constexpr bool sizeKnown = !builtWithAddressSanitizer;

    /// How many functions there are, from the size of the table's symbol; 0 when it has none.
    std::size_t size() const;

    /// The function in a slot; the two destructors come first.
    template <typename Function>
    Function* function(std::size_t slot) const {
        return reinterpret_cast<Function*>(m_functions[slot]);
    }

private:
    void* const* m_functions;
};

#endif
