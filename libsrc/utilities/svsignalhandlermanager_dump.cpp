// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The diagnostic dump: for people who read logs. Nothing is buffered; every fragment goes straight
// into the caller's stream, with the caller's formats.

#include <ostream>

#include "svsharedstate.h"
#include "svsignalhandlermanager.h"

namespace Sorvane {

std::ostream& SVSignalHandlerManager::print(std::ostream& stream) const {
    const SVLocked scope(lockHandle());
    stream << "<SVSignalHandlerManager>";
    stream << "<numberOfManagers>" << static_cast<unsigned long>(svshared(numberOfManagers).load())
           << "</numberOfManagers>";
    stream << "<currentlyHandlingSignals>" << svshared(currentlyHandlingSignals).load()
           << "</currentlyHandlingSignals>";
    const SVTablesPin pin;
    svforEachSignal([&](int signalNumber) {
        const SVSignalHandlerTable* const table = pin.tableOf(signalNumber);
        if (table != nullptr && table->used != 0) {
            table->WriteTable(stream);
        }
    });
    return stream << "</SVSignalHandlerManager>";
}

std::ostream& operator<<(std::ostream& stream, const SVSignalHandlerManager& manager) {
    return manager.print(stream);
}

}  // namespace Sorvane
