// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A look into the manager's shared state. Pointers into tables are good until the next operation
// of a manager, so they are asked for anew each time.
#ifndef SORVANE_TESTS_SUPPORT_SHARED_STATE_H
#define SORVANE_TESTS_SUPPORT_SHARED_STATE_H

#include <sorvane/svsignalhandlermanager.h>

#include <vector>

#include "support/observed_handlers.h"

using Manager = Sorvane::SVSignalHandlerManager;
using HandlerTable = Sorvane::SVSignalHandlerTable;
using SignalTable = Sorvane::SVSignalTable;
using Record = Sorvane::SVSignalHandler;
using RecordList = Sorvane::SVSignalHandlerList;

/// The table of a signal, or null.
HandlerTable* tableOf(int signalNumber);

/// How many records a signal has; none without a table.
unsigned int recordCount(int signalNumber);

/// A signal's record under a function's address, or null.
const Record* recordUnder(int signalNumber, void* function);

template <typename Result, typename... Arguments>
const Record* recordOf(int signalNumber, Result (*function)(Arguments...)) {
    return recordUnder(signalNumber, addressOf(function));
}

/// The function addresses of a signal's records, in slot order.
std::vector<void*> functionsInSlotOrder(int signalNumber);

/// Puts a record into the table of its signal, which must exist, without any manager's knowledge.
void putIntoTable(const Record& record);

/// Makes a signal's table, empty, as the manager does for a signal that it may not handle.
void makeTableOf(Manager& manager, int signalNumber);

/// A record for a function, with the flags of what a user registers.
Record userRecord(int signalNumber, void (*handler)(int));

/// A record for a function, with the flags of what was there before the library.
Record hostRecord(int signalNumber, void (*handler)(int));

/// Whether another thread could take the manager's lock.
bool lockIsFree();

/// Whether the shared disposition set lets the library handle a signal.
bool mayHandleQ(int signalNumber);

#endif
