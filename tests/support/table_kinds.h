// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The two instantiations of the hash table that the manager uses, behind one face, so that a test
// can be written once for both.
#ifndef SORVANE_TESTS_SUPPORT_TABLE_KINDS_H
#define SORVANE_TESTS_SUPPORT_TABLE_KINDS_H

#include <sorvane/svhashtable.h>
#include <sorvane/svsignalhandlermanager.h>

#include <array>
#include <cstdint>

// Handlers that are stored and compared, and never called.
inline void unusedInformationHandler(int, siginfo*, void*) {}
inline void unusedSimpleHandler(int) {}

/// A handler record for each number; 0 stands for the record of an empty slot.
struct InnerTableKind {
    using Key = void*;
    using Value = Sorvane::SVSignalHandler;
    using Table = Sorvane::SVHashTable<Key, Value, Sorvane::SVGenericHashFunction<Key>>;
    using Iterator = Sorvane::SVHashTableEntry_Iterator<Key, Value>;

    static constexpr bool valuesStartDefined = true;

    static Key key(std::uint64_t bits) {
        return reinterpret_cast<void*>(static_cast<std::uintptr_t>(bits));
    }

    static Value value(int number) {
        if (number == 0) {
            return Value();
        }
        const bool preExists = (number & 1) != 0;
        const bool external = (number & 2) != 0;
        const bool valid = (number & 4) != 0;
        return number % 3 == 0 ? Value(number, unusedInformationHandler, preExists, external, valid)
                               : Value(number, unusedSimpleHandler, preExists, external, valid);
    }

    static bool same(const Value& left, const Value& right) {
        return left.getSignalNumber() == right.getSignalNumber() &&
               left.getHandlerFunction() == right.getHandlerFunction() &&
               left.preExistsQ() == right.preExistsQ() && left.externalQ() == right.externalQ() &&
               left.validQ() == right.validQ() && flags(left) == flags(right);
    }

private:
    static int flags(Value value) { return value.getOSStruct().sa_flags; }
};

/// Pointers to inner tables, which belong to the test.
struct OuterTableKind {
    using Key = int;
    using Value = InnerTableKind::Table*;
    using Table = Sorvane::SVHashTable<Key, Value, Sorvane::SVGenericHashFunction<Key>>;
    using Iterator = Sorvane::SVHashTableEntry_Iterator<Key, Value>;

    static constexpr bool valuesStartDefined = false;

    static Key key(std::uint64_t bits) {
        return static_cast<int>(static_cast<std::uint32_t>(bits));
    }

    static Value value(int number) {
        static std::array<InnerTableKind::Table, 61> pool;
        return &pool[static_cast<std::size_t>(number) % pool.size()];
    }

    static bool same(const InnerTableKind::Table* left, const InnerTableKind::Table* right) {
        return left == right;
    }
};

#endif
