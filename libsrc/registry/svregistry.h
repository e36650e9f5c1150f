// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The registry: the published tables, and how they change inside the gate.
//
// What is published is one outer table with an inner table for each signal. It changes in one of
// three ways, and is whole at every instruction on each of them, with the change made or not:
// - A record comes to a free slot of its table, or goes: that is done in place, and is one store.
//   The table's counts follow it; a child that is split off just between counts anew.
// - A record is replaced, its table is rebuilt, or a signal gets a table: a copy stands in for the
//   table that changes; that is changed where nobody can find it, and takes its place again. So
//   whoever watches the tables undisturbed sees the objects that it knows change, rather than
//   others take their place.
// - Somebody reads the tables: what is published is left to those who read it, and retired, and a
//   copy of the outer table is published. A copy of the inner table takes its place there, and is
//   changed. What is retired is released by the first change that finds it read no more; until
//   then it shares the inner tables that have not changed.
// Memory is had before anything changes; without it the change fails, and nothing has changed. Only
// a stand-in can be done without: the change is then made in place.
#ifndef SORVANE_SVREGISTRY_H
#define SORVANE_SVREGISTRY_H

#include <atomic>

#include "../support/svfailure.h"
#include "svpin.h"
#include "svsignaltables.h"

namespace Sorvane {

/// Threads: any that has closed the gate. Signal context: inside the gate. No exceptions.
class SVRegistry {
public:
    /// Parameters: place, where the published tables are; null for none.
    constexpr explicit SVRegistry(SVSignalTable*& place) noexcept : m_place(place) {}

    /// Publishes empty tables. There are still none if there is no memory.
    void begin() noexcept;

    /// Forgets everything, and releases it when nobody reads it any more: a handler that has
    /// destroyed the last manager returns to a walk.
    void end() noexcept;

    /// How often the registry has ended. Signal context: any.
    unsigned int timesEnded() const noexcept { return m_timesEnded.load(); }

    /// The table of a signal, or null.
    SVSignalHandlerTable* tableOf(int signalNumber) const noexcept;

    /// Makes sure that a signal has a table.
    /// Errors: the one that is given, when a table can't be had; those of the outer table's
    /// insert().
    SVFailure addTable(int signalNumber, const SVFailure& noTable) noexcept;

    /// Stores a record, under its function's address, in the table of its signal, which must have
    /// one. Errors: as above.
    SVFailure store(const SVSignalHandler& record, const SVFailure& noTable) noexcept;

    /// Leaves the table of a signal, which must have one, to those who read it, and puts a copy in
    /// its place. Errors: the one that is given, when it is being read and there is no memory.
    SVFailure detach(int signalNumber, const SVFailure& noTable) noexcept;

    /// Takes a record that is there out of the table of its signal, which detach() or store() must
    /// have made nobody's but the registry's in this same gate.
    void remove(int signalNumber, void* function) noexcept;

    /// Takes all records for which a test holds out of such a table. They are looked for slot by
    /// slot, because one that lies behind a cleared slot is not found by its function.
    void removeAll(int signalNumber, bool (*test)(const SVSignalHandler&)) noexcept;

    /// Leaves no cleared slot in such a table, so that every record in it is found by its function.
    /// Without memory the table stays as it is.
    void compact(int signalNumber) noexcept;

    /// Forgets such a table. The signal has none then.
    void dropTable(int signalNumber) noexcept;

    /// Counts the slots of a table that a thread was changing which is not in this process.
    static void countAnew() noexcept;

private:
    struct Retired;

    bool retiredTablesHaveQ(int key, const SVSignalHandlerTable* table) const noexcept;
    bool retireFor(SVSignalTable* successor) noexcept;
    bool leaveToReaders() noexcept;
    void release(SVSignalTable* tables) noexcept;
    void releaseWhatNobodyReads() noexcept;

    SVSignalTable*& m_place;
    std::atomic<unsigned int> m_timesEnded{0};
    Retired* m_retired = nullptr;
};

/// Whether the records of two tables of one signal stand in the same slots, as far as both have
/// them: whether a walk over one of them can go on with the other. Signal context: any, pinned.
bool svsameSlotsQ(const SVSignalHandlerTable& one, const SVSignalHandlerTable& other) noexcept;

}  // namespace Sorvane

#endif
