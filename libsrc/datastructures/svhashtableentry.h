// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// One slot of a hash table.
#ifndef SORVANE_SVHASHTABLEENTRY_H
#define SORVANE_SVHASHTABLEENTRY_H

#include <ostream>
#include <type_traits>

#include "../support/svexport.h"
#include "../support/svobject.h"

namespace Sorvane {

/// The states of a slot, as numbers, because that is what the field holds.
constexpr unsigned int svslotEmpty = 0;     ///< never used since the last rebuild
constexpr unsigned int svslotOccupied = 1;  ///< holds a key and its value
constexpr unsigned int svslotDeleted = 2;   ///< did; key, value and hash still lie there

/// One slot: a key, its value, the hash that the key had when it came in, and the slot's state.
/// It never owns what a pointer value points to. The fields belong to the table; read them, and
/// leave writing to its operations.
///
/// Threads: as for the table. Signal context: any, as far as K and V allow.
template <typename K, typename V>
class SORVANE_API SVHashTableEntry : public SVObject {
public:
    /// Makes an empty slot. Key and hash are left unset, and so is a value that has no default
    /// constructor of its own: nothing reads them before they are assigned, and a table makes many
    /// slots.
    /// Errors: what the default constructors of K and V throw.
    SVHashTableEntry() : state(svslotEmpty) {}

    SVHashTableEntry(const SVHashTableEntry&) = delete;

    /// Copies all fields; key and value by their own assignments.
    /// Errors: what those throw.
    SVHashTableEntry& operator=(const SVHashTableEntry& other) {
        if (this != &other) {
            key = other.key;
            value = other.value;
            hash = other.hash;
            state = other.state;
        }
        return *this;
    }

    ~SVHashTableEntry() noexcept override {}

    /// Writes the slot, whatever its state, as a block of markup that begins and ends with a line
    /// feed. Key and value are written by their own stream insertions, but a null key as 0.
    /// Errors: what the stream or an insertion throws; the text so far stays.
    /// Signal context: normal context only.
    std::ostream& WriteEntry(std::ostream& stream) {
        stream << "\n";
        stream << "\t<SVHashTableEntry>\n";
        stream << "\t\t<K>";
        writeKey(stream);
        stream << "</K>\n";
        stream << "\t\t<V>" << value << "</V>\n";
        stream << "\t</SVHashTableEntry>\n";
        return stream;
    }

    K key;
    V value;
    unsigned int hash;
    unsigned int state;

private:
    // By the stream's insertion, but for null, which standard libraries write differently.
    void writeKey(std::ostream& stream) const {
        if constexpr (std::is_pointer_v<K>) {
            if (key == nullptr) {
                stream << '0';
                return;
            }
        }
        stream << key;
    }
};

}  // namespace Sorvane

#endif
