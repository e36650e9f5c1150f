// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "support/fresh_process.h"

#include <csignal>

#include "support/shared_state.h"
#include "support/system_actions.h"

void resetSystemActions() {
    for (int signalNumber = 1; signalNumber <= lastSystemSignal; ++signalNumber) {
        // Fails for the signals that nobody may change, which are then as they were.
        std::signal(signalNumber, SIG_DFL);
    }
}

// Nobody reads the tables any more, and what a test left in them may be such that no manager could
// put it back.
void emptyTables() {
    for (int signalNumber = 1; signalNumber <= Manager::maxSignalHandlerNumber; ++signalNumber) {
        HandlerTable* const table = tableOf(signalNumber);
        for (unsigned int slot = 0; table != nullptr && slot <= table->mask; ++slot) {
            table->table[slot].state = Sorvane::svslotEmpty;
            table->used = 0;
            table->fill = 0;
        }
    }
}

// Managers may still be counted that a jump out of a handler left behind.
void forgetSharedState() {
    emptyTables();
    Manager::signalDispositionSet.reset();
    Manager::numberOfManagers = 0;
    {
        Manager last(false);
        last.startHandlingSignals();
    }
    delete Manager::handlerTableLock;
    Manager::handlerTableLock = nullptr;
}
