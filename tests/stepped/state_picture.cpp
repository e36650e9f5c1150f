// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "stepped/state_picture.h"

#include <../registry/svownership.h>
#include <sorvane/svsignalhandlermanager.h>

#include <algorithm>
#include <sstream>
#include <vector>

namespace {

using Manager = Sorvane::SVSignalHandlerManager;
using Record = Sorvane::SVSignalHandler;

std::string pictureOfRecord(Record record) {
    const struct sigaction action = record.getOSStruct();
    std::ostringstream text;
    text << record.getSignalNumber() << ' ' << record.getHandlerFunction() << ' '
         << record.preExistsQ() << record.externalQ() << record.validQ() << ' ' << action.sa_flags;
    return text.str();
}

void addTable(std::ostream& text, const Sorvane::SVSignalHandlerTable& table, Detail detail) {
    std::vector<std::string> records;
    for (unsigned int i = 0; i <= table.mask; ++i) {
        const auto& slot = table.table[i];
        if (slot.state == Sorvane::svslotOccupied) {
            const std::string place = detail == Detail::layout ? std::to_string(i) + ": " : "";
            records.push_back(place + pictureOfRecord(slot.value));
        }
    }
    if (detail == Detail::layout) {
        text << table.used << '/' << table.fill << '/' << table.mask << '\n';
    } else {
        std::sort(records.begin(), records.end());
    }
    for (const std::string& record : records) {
        text << "  " << record << '\n';
    }
}

void addTables(std::ostream& text, Detail detail) {
    const Sorvane::SVSignalTable* const tables = Manager::handlerTables;
    if (detail == Detail::layout) {
        text << "tables " << (tables != nullptr) << '\n';
    }
    if (tables == nullptr) {
        return;
    }
    if (detail == Detail::layout) {
        text << tables->used << '/' << tables->fill << '/' << tables->mask << '\n';
    }
    for (int key = 0; key < Manager::maxSignalHandlerNumber; ++key) {
        const auto* const entry = tables->get(key);
        if (entry != nullptr) {
            addTable(text, *entry->value, detail);
        }
    }
}

void addActions(std::ostream& text) {
    constexpr int lastSystemSignal = 64;
    for (int signalNumber = 1; signalNumber <= lastSystemSignal; ++signalNumber) {
        struct sigaction action = {};
        if (signalNumber != SIGTRAP && sigaction(signalNumber, nullptr, &action) == 0) {
            text << reinterpret_cast<void*>(action.sa_sigaction) << ' ';
        }
    }
    text << '\n';
}

void addOwners(std::ostream& text) {
    for (int signalNumber = 1; signalNumber <= Manager::maxSignalHandlerNumber; ++signalNumber) {
        text << (signalNumber != SIGTRAP && Sorvane::SVOwnership::librarysQ(signalNumber));
    }
    text << '\n';
}

void addDispositions(std::ostream& text) {
    for (int signalNumber = 1; signalNumber <= Manager::maxSignalHandlerNumber; ++signalNumber) {
        text << Manager::signalDispositionSet.getSignalDisposition(signalNumber);
    }
    text << '\n';
}

}  // namespace

std::string pictureOfState(Detail detail) {
    std::ostringstream text;
    text << "managers " << Manager::numberOfManagers << '\n'
         << "handling " << Manager::currentlyHandlingSignals << '\n';
    if (detail == Detail::layout) {
        text << "lock " << (Manager::handlerTableLock != nullptr) << '\n';
    }
    addTables(text, detail);
    addActions(text);
    addOwners(text);
    addDispositions(text);
    return text.str();
}
