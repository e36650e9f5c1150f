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
template <typename K, typename V>
class SORVANE_API SVHashTableEntry : public SVObject {
public:
    /// Makes an empty slot. Key and hash are left unset, and so is a value that has no default
    /// constructor of its own: nothing reads them before they are assigned, and a table makes many
    /// slots.
    /// Errors: what V's default constructor throws. Threads: any. Signal context: any context, as
    /// far as V allows.
    SVHashTableEntry() : state(svslotEmpty) {}

    SVHashTableEntry(const SVHashTableEntry&) = delete;

    /// Copies all fields; the value by its own assignment.
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

    /// Writes the slot as a block of markup, which begins and ends with a line feed.
    /// Parameters: stream. Ownership: none. Result: the stream.
    /// Errors: what the stream, or the value's stream insertion, throws; the text so far stays.
    /// Guarantee: the slot is unchanged. Threads: as for reading the table.
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
