// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "fuzz/manager_comparison.h"

#include <cstring>
#include <sstream>

#include "fuzz/table_comparison.h"
#include "support/shared_state.h"
#include "support/system_actions.h"

namespace {

// Null is the same text with every standard library, unlike their own.
void writeKey(std::ostream& stream, const void* key) {
    if (key == nullptr) {
        stream << '0';
    } else {
        stream << key;
    }
}

// The C library hides these; there is nothing to be read.
bool readableQ(int signalNumber) {
    return signalNumber != 32 && signalNumber != 33;
}

template <typename Actual, typename Expected>
std::string compare(const char* what, Actual actual, Expected expected) {
    if (actual == expected) {
        return "";
    }
    std::ostringstream text;
    text << what << " is " << actual << ", expected " << expected << "; ";
    return text.str();
}

std::string compareDispositions(const ManagerModel& model) {
    for (int signalNumber = -1; signalNumber <= ManagerModel::lastSystemSignal + 1;
         ++signalNumber) {
        if (mayHandleQ(signalNumber) != model.disposition(signalNumber)) {
            return "the disposition of " + std::to_string(signalNumber) + " is wrong; ";
        }
    }
    return "";
}

std::string compareSystem(const ManagerModel& model) {
    for (int signalNumber = 1; signalNumber <= ManagerModel::lastSystemSignal; ++signalNumber) {
        if (readableQ(signalNumber) &&
            !sameAction(systemAction(signalNumber),
                        model.system[static_cast<std::size_t>(signalNumber)])) {
            return "the system's action for " + std::to_string(signalNumber) + " is wrong; ";
        }
    }
    return "";
}

std::string compareSignal(int key, const HandlerTable& table, ModelSignal& signal) {
    const auto same = [&signal](const Record& value, const ModelSlot& expected) {
        return expected.state == emptyState ||
               differenceFrom(signal.records[static_cast<std::size_t>(expected.value) - 1], value)
                   .empty();
    };
    const std::string difference = TableComparison(table, signal.table, same).difference();
    return difference.empty() ? "" : "table of key " + std::to_string(key) + ": " + difference;
}

std::string compareTables(ManagerModel& model) {
    if ((Manager::handlerTables != nullptr) != model.tablesExist) {
        return compare("the outer table's existence", !model.tablesExist, model.tablesExist);
    }
    if (!model.tablesExist) {
        return "";
    }
    const auto same = [](HandlerTable* value, const ModelSlot& expected) {
        return expected.state == emptyState || value != nullptr;
    };
    const std::string difference =
        TableComparison(*Manager::handlerTables, model.outer, same).difference();
    if (!difference.empty()) {
        return "the outer table: " + difference;
    }
    for (auto& [key, signal] : model.signals) {
        const std::string ofSignal =
            compareSignal(key, *Manager::handlerTables->get(key)->value, signal);
        if (!ofSignal.empty()) {
            return ofSignal;
        }
    }
    return "";
}

std::string compareCalls(const ManagerModel& model) {
    if (callCount() != model.calls.size()) {
        return compare("the number of calls", callCount(), model.calls.size());
    }
    for (std::size_t i = 0; i < model.calls.size(); ++i) {
        const HandlerCall& call = callAt(i);
        const ModelCall& expected = model.calls[i];
        if (call.function != expected.function || call.signalNumber != expected.signalNumber ||
            (call.information != nullptr) != expected.withInformation ||
            (call.context != nullptr) != expected.withInformation ||
            call.managers != expected.managers) {
            return "call " + std::to_string(i + 1) + " is not the expected one; ";
        }
    }
    return "";
}

}  // namespace

std::string differenceFrom(ManagerModel& model) {
    return compare("numberOfManagers", Manager::numberOfManagers, model.managers) +
           compare("currentlyHandlingSignals", Manager::currentlyHandlingSignals, model.handling) +
           compare("the lock's existence", Manager::handlerTableLock != nullptr, model.lockExists) +
           compareDispositions(model) + compareTables(model) + compareSystem(model) +
           compareCalls(model);
}

std::string differenceFrom(const ModelRecord& expected, Sorvane::SVSignalHandler record) {
    return compare("the record's signal", record.getSignalNumber(), expected.signalNumber) +
           compare("the record's function", record.getHandlerFunction(), expected.function()) +
           compare("preExistsQ", record.preExistsQ(), expected.preExists) +
           compare("externalQ", record.externalQ(), expected.external) +
           compare("validQ", record.validQ(), expected.valid) +
           (sameAction(record.getOSStruct(), expected.action) ? "" : "the record's action; ");
}

std::string differenceFrom(const std::optional<ModelFailure>& expected, const Failure& failure) {
    if (!expected.has_value() || !failure.has_value()) {
        return expected.has_value() == failure.has_value() ? ""
               : failure.has_value() ? std::string("threw \"") + failure->getMessage() + "\"; "
                                     : std::string("did not throw \"") + expected->message + "\"; ";
    }
    return compare("the message", std::string(failure->getMessage()),
                   std::string(expected->message)) +
           compare("the file", std::string(failure->getFile()), std::string(expected->file)) +
           compare("the line", failure->getLine(), expected->line) +
           compare("the kind", static_cast<int>(failure->getType()), expected->kind) +
           compare("the code", failure->getCode(), expected->code);
}

Sorvane::SVSignalHandler realRecord(const ModelRecord& record) {
    struct sigaction action = record.action;
    return Record(record.signalNumber, action, record.preExists, record.external, record.valid);
}

std::string expectedDump(const ManagerModel& model) {
    std::ostringstream text;
    text << "<SVSignalHandlerManager><numberOfManagers>" << model.managers
         << "</numberOfManagers><currentlyHandlingSignals>" << (model.handling ? 1 : 0)
         << "</currentlyHandlingSignals>";
    for (int signalNumber = 1; signalNumber <= ManagerModel::lastWalkedSignal; ++signalNumber) {
        const ModelSignal* const signal = model.signal(signalNumber);
        if (signal == nullptr || signal->table.used == 0) {
            continue;
        }
        text << "<SVHashTable>";
        for (const ModelRecord& record : signal->recordsInSlotOrder()) {
            text << "\n\t<SVHashTableEntry>\n\t\t<K>";
            writeKey(text, record.function());
            text << "</K>\n\t\t<V>" << realRecord(record) << "</V>\n\t</SVHashTableEntry>\n";
        }
        text << "</SVHashTable>";
    }
    text << "</SVSignalHandlerManager>";
    return text.str();
}
