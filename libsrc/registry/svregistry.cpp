// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svregistry.h"

#include <atomic>
#include <memory>
#include <type_traits>

#include "../support/svatomicref.h"

namespace Sorvane {

/// Tables that have been displaced while somebody read them.
struct SVRegistry::Retired final : public SVObject {
    Retired(SVSignalTable* displaced, Retired* others) noexcept : tables(displaced), next(others) {}
    ~Retired() noexcept override {}

    SVSignalTable* const tables;
    Retired* next;
};

namespace {

// The table that is being changed in place.
constinit SVSignalHandlerTable* beingChanged = nullptr;

// What a pointer to a table is changed to is complete by then, and what comes next comes after it,
// also for a child that is split off just then, and for a debugger.
template <typename Table>
void letPointTo(Table*& place, std::type_identity_t<Table>* table) noexcept {
    SVAtomicRef<Table*>(place).store(table);
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

// A table with the same slots, the deleted ones included; null without memory.
template <typename Table>
Table* copyOf(const Table& table) noexcept {
    auto* const copy = new Table;
    if (copy == nullptr) {
        return nullptr;
    }
    if (table.mask != copy->mask) {
        auto* const slots = new typename Table::Entry[table.mask + 2];
        if (slots == nullptr) {
            delete copy;
            return nullptr;
        }
        copy->table = slots;
        copy->mask = table.mask;
    }
    for (unsigned int i = 0; i <= table.mask; ++i) {
        copy->table[i] = table.table[i];
    }
    copy->used = table.used;
    copy->fill = table.fill;
    return copy;
}

SVSignalHandlerTable* tableIn(const SVSignalTable* tables, int key) noexcept {
    const SVSignalTable::Entry* const entry = tables == nullptr ? nullptr : tables->get(key);
    return entry == nullptr ? nullptr : entry->value;
}

// Makes a change where nobody can find the table, for which a copy stands in meanwhile. Without
// memory for both it is made in place, or tells what it lacks itself.
template <typename Table, typename Make>
SVFailure changeOutOfSight(Table*& place, Make make) noexcept {
    Table* const table = place;
    Table* const standIn = copyOf(*table);
    if (standIn != nullptr) {
        letPointTo(place, standIn);
    }
    const SVFailure failure = make(*table);
    letPointTo(place, table);
    delete standIn;
    return failure && standIn != nullptr ? make(*table) : failure;
}

// Makes a change that is one store, and tells meanwhile whose counts follow it.
template <typename Make>
void changeInPlace(SVSignalHandlerTable* table, Make make) noexcept {
    letPointTo(beingChanged, table);
    make(*table);
    letPointTo(beingChanged, nullptr);
}

}  // namespace

void SVRegistry::begin() noexcept {
    letPointTo(m_place, new SVSignalTable);
}

void SVRegistry::end() noexcept {
    SVSignalTable* const tables = m_place;
    m_timesEnded.fetch_add(1);
    if (tables == nullptr) {
        return;
    }
    if (m_retired != nullptr || SVPin::pinnedQ(tables)) {
        // Without memory to retire them, the tables stay for good.
        if (!retireFor(nullptr)) {
            letPointTo(m_place, nullptr);
        }
        releaseWhatNobodyReads();
        return;
    }
    letPointTo(m_place, nullptr);
    release(tables);
}

SVSignalHandlerTable* SVRegistry::tableOf(int signalNumber) const noexcept {
    return tableIn(m_place, signalKey(signalNumber));
}

bool SVRegistry::retiredTablesHaveQ(int key, const SVSignalHandlerTable* table) const noexcept {
    for (const Retired* retired = m_retired; retired != nullptr; retired = retired->next) {
        if (tableIn(retired->tables, key) == table) {
            return true;
        }
    }
    return false;
}

// An inner table goes with the last of the outer ones that have it.
void SVRegistry::release(SVSignalTable* tables) noexcept {
    for (auto position = tables->begin(); position != tables->end(); position++) {
        const int key = position.entries[position.index].key;
        SVSignalHandlerTable* const table = position.GetValue();
        if (tableIn(m_place, key) != table && !retiredTablesHaveQ(key, table)) {
            delete table;
        }
    }
    delete tables;
}

// What is retired and published all the same was just being displaced when this child was split
// off.
void SVRegistry::releaseWhatNobodyReads() noexcept {
    Retired** link = &m_retired;
    while (Retired* const retired = *link) {
        SVSignalTable* const tables = retired->tables;
        if (tables != m_place && SVPin::pinnedQ(tables)) {
            link = &retired->next;
            continue;
        }
        const std::unique_ptr<Retired> gone(retired);
        letPointTo(*link, gone->next);
        if (tables != m_place) {
            release(tables);
        }
    }
}

// Publishes other tables, and retires those that were: first, so that a child that is split off
// just between knows what its thread may be reading. It finds them retired and published, then.
// False without memory.
bool SVRegistry::retireFor(SVSignalTable* successor) noexcept {
    auto* const retired = new Retired(m_place, m_retired);
    if (retired != nullptr) {
        letPointTo(m_retired, retired);
        letPointTo(m_place, successor);
    }
    return retired != nullptr;
}

// Leaves the published tables to those who read them, and publishes a copy. False without memory.
bool SVRegistry::leaveToReaders() noexcept {
    releaseWhatNobodyReads();
    if (!SVPin::pinnedQ(m_place)) {
        return true;
    }
    SVSignalTable* const copy = copyOf(*m_place);
    if (copy == nullptr || !retireFor(copy)) {
        delete copy;
        return false;
    }
    return true;
}

SVFailure SVRegistry::addTable(int signalNumber, const SVFailure& noTable) noexcept {
    if (tableOf(signalNumber) != nullptr) {
        return SVFailure();
    }
    auto* const table = m_place == nullptr ? nullptr : new SVSignalHandlerTable;
    if (table == nullptr) {
        return noTable;
    }
    const auto add = [&](SVSignalTable& tables) {
        return tables.tryInsert(signalKey(signalNumber), table);
    };
    const SVFailure failure = leaveToReaders() ? changeOutOfSight(m_place, add) : noTable;
    if (failure) {
        delete table;
    }
    return failure;
}

SVFailure SVRegistry::detach(int signalNumber, const SVFailure& noTable) noexcept {
    if (!leaveToReaders()) {
        return noTable;
    }
    SVSignalHandlerTable*& place = m_place->get(signalKey(signalNumber))->value;
    if (retiredTablesHaveQ(signalKey(signalNumber), place)) {
        SVSignalHandlerTable* const copy = copyOf(*place);
        if (copy == nullptr) {
            return noTable;
        }
        letPointTo(place, copy);
    }
    return SVFailure();
}

void SVRegistry::countAnew() noexcept {
    if (beingChanged != nullptr) {
        beingChanged->used = 0;
        beingChanged->fill = 0;
        for (unsigned int i = 0; i <= beingChanged->mask; ++i) {
            const unsigned int state = beingChanged->table[i].state;
            beingChanged->used += state == svslotOccupied ? 1 : 0;
            beingChanged->fill += state != svslotEmpty ? 1 : 0;
        }
        beingChanged = nullptr;
    }
}

SVFailure SVRegistry::store(const SVSignalHandler& record, const SVFailure& noTable) noexcept {
    const int signalNumber = record.getSignalNumber();
    void* const function = record.getHandlerFunction();
    return detach(signalNumber, noTable).then([&] {
        SVSignalHandlerTable*& table = m_place->get(signalKey(signalNumber))->value;
        const auto insert = [&](SVSignalHandlerTable& changed) {
            return changed.tryInsert(function, record);
        };
        if (table->has_key(function) || table->growsWithQ(function)) {
            return changeOutOfSight(table, insert);
        }
        changeInPlace(table, insert);
        return SVFailure();
    });
}

void SVRegistry::remove(int signalNumber, void* function) noexcept {
    changeInPlace(tableOf(signalNumber),
                  [function](SVSignalHandlerTable& changed) { changed.remove(function); });
}

void SVRegistry::removeAll(int signalNumber, bool (*test)(const SVSignalHandler&)) noexcept {
    SVSignalHandlerTable* const table = tableOf(signalNumber);
    for (unsigned int i = 0; i <= table->mask; ++i) {
        SVSignalHandlerTable::Entry& slot = table->table[i];
        if (slot.state == svslotOccupied && test(slot.value)) {
            changeInPlace(table, [&slot](SVSignalHandlerTable& changed) {
                slot.state = svslotDeleted;
                --changed.used;
            });
        }
    }
}

void SVRegistry::compact(int signalNumber) noexcept {
    SVSignalHandlerTable*& place = m_place->get(signalKey(signalNumber))->value;
    auto* const compacted = place->fill == place->used ? nullptr : new SVSignalHandlerTable;
    if (compacted == nullptr) {
        return;
    }
    for (auto position = place->begin(); position != place->end(); position++) {
        const SVSignalHandler& record = position.GetValue();
        if (compacted->tryInsert(record.getHandlerFunction(), record)) {
            delete compacted;
            return;
        }
    }
    const std::unique_ptr<SVSignalHandlerTable> former(place);
    letPointTo(place, compacted);
}

void SVRegistry::dropTable(int signalNumber) noexcept {
    SVSignalHandlerTable*& place = m_place->get(signalKey(signalNumber))->value;
    const std::unique_ptr<SVSignalHandlerTable> former(place);
    letPointTo(place, nullptr);
}

// Only a rebuild empties a slot, and only a rebuild moves a key to another one.
bool svsameSlotsQ(const SVSignalHandlerTable& one, const SVSignalHandlerTable& other) noexcept {
    bool same = one.mask == other.mask;
    for (unsigned int i = 0; same && i <= one.mask; ++i) {
        const SVSignalHandlerTable::Entry& before = one.table[i];
        const SVSignalHandlerTable::Entry& now = other.table[i];
        const bool emptied = before.state != svslotEmpty && now.state == svslotEmpty;
        const bool moved =
            before.state == svslotOccupied && before.key != now.key && other.has_key(before.key);
        same = !emptied && !moved;
    }
    return same;
}

}  // namespace Sorvane
