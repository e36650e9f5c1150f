// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The two levels of the registry's tables.
#ifndef SORVANE_SVSIGNALTABLES_H
#define SORVANE_SVSIGNALTABLES_H

#include <list>

#include "../datastructures/svhashtable.h"
#include "../support/svsignalhandler.h"
#include "../support/svstdallocator.h"

namespace Sorvane {

/// The handler records of one signal, by the address of their function.
using SVSignalHandlerTable = SVHashTable<void*, SVSignalHandler, SVGenericHashFunction<void*>>;

/// The table of every signal that ever had a handler or was taken over, by signal number less one;
/// null where only subscriptions had asked for the signal, and have ended.
using SVSignalTable = SVHashTable<int, SVSignalHandlerTable*, SVGenericHashFunction<int>>;

/// A batch of handler records.
using SVSignalHandlerList = std::list<SVSignalHandler, SVStdAllocator<SVSignalHandler>>;

}  // namespace Sorvane

#endif
