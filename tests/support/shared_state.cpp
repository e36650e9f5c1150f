// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "support/shared_state.h"

#include <stdexcept>
#include <thread>

HandlerTable* tableOf(int signalNumber) {
    if (Manager::handlerTables == nullptr) {
        return nullptr;
    }
    const SignalTable::Entry* const entry = Manager::handlerTables->get(signalNumber - 1);
    return entry == nullptr ? nullptr : entry->value;
}

unsigned int recordCount(int signalNumber) {
    const HandlerTable* const table = tableOf(signalNumber);
    return table == nullptr ? 0 : table->used;
}

const Record* recordUnder(int signalNumber, void* function) {
    const HandlerTable* const table = tableOf(signalNumber);
    const HandlerTable::Entry* const entry = table == nullptr ? nullptr : table->get(function);
    return entry == nullptr ? nullptr : &entry->value;
}

std::vector<void*> functionsInSlotOrder(int signalNumber) {
    std::vector<void*> functions;
    const HandlerTable* const table = tableOf(signalNumber);
    for (unsigned int slot = 0; table != nullptr && slot <= table->mask; ++slot) {
        if (table->table[slot].state == Sorvane::svslotOccupied) {
            functions.push_back(table->table[slot].key);
        }
    }
    return functions;
}

void putIntoTable(const Record& record) {
    HandlerTable* const table = tableOf(record.getSignalNumber());
    if (table == nullptr) {
        throw std::logic_error("the signal has no table");
    }
    table->insert(record.getHandlerFunction(), record);
}

void makeTableOf(Manager& manager, int signalNumber) {
    const bool former = mayHandleQ(signalNumber);
    manager.setSignalDisposition(signalNumber, false);
    manager.handleSignal(signalNumber);
    manager.setSignalDisposition(signalNumber, former);
}

Record userRecord(int signalNumber, void (*handler)(int)) {
    return Record(signalNumber, handler, false, false, true);
}

Record hostRecord(int signalNumber, void (*handler)(int)) {
    return Record(signalNumber, handler, true, true, true);
}

bool lockIsFree() {
    bool taken = false;
    std::thread([&taken] {
        taken = Manager::handlerTableLock->tryLock();
        if (taken) {
            Manager::handlerTableLock->unlock();
        }
    }).join();
    return taken;
}

bool mayHandleQ(int signalNumber) {
    return Manager::signalDispositionSet.getSignalDisposition(signalNumber);
}
