// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A signal at each instruction of each operation, by both kinds of manager.

#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "stepped/each_instruction.h"
#include "stepped/operations.h"

namespace {

// --- Who does it, and what arrives

struct Kind {
    const char* name;
    bool locking;
    int signalNumber;
    Arrive arrive;

    friend std::ostream& operator<<(std::ostream& stream, const Kind& kind) {
        return stream << kind.name;
    }
};

constexpr int realTime = 40;

const Kind kinds[] = {
    {"AnotherThreadHasASignal", true, SIGUSR1, Arrive::onAnother},
    {"AnotherThreadHasARealTimeSignal", false, realTime, Arrive::onAnother},
    {"AnotherThreadFaults", false, SIGSEGV, Arrive::asFault},
    {"AnotherThreadWalks", true, SIGUSR1, Arrive::asWalk},
    {"ThisThreadHasASignal", true, realTime, Arrive::onThisThread},
    {"ThisThreadHasASystemCallTrapped", true, SIGSYS, Arrive::atSystemCall},
};

// Of a fatal signal only the host's handler is called, before and after.
Course courseOf(const Operation& operation, const Kind& kind) {
    useSetting({kind.locking, kind.signalNumber});
    const bool fatal = kind.signalNumber == SIGSEGV;
    return {operation.prepare,
            operation.operate,
            kind.signalNumber,
            kind.arrive,
            fatal ? States{{host}} : operation.states,
            operation.detail};
}

bool amongQ(const std::string& name, std::initializer_list<const char*> names) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

// A fault ends the process where the host has no handler. A walk goes by the records alone. Few
// operations make system calls while the gate is closed.
bool meetQ(const Operation& operation, const Kind& kind) {
    const Called& before = operation.states.front();
    switch (kind.arrive) {
        case Arrive::asFault:
            return std::find(before.begin(), before.end(), host) != before.end();
        case Arrive::asWalk:
            return amongQ(operation.name,
                          {"RegistersANewRecord", "ReplacesAUsersRecordByAnInvalidOneOfTheHosts",
                           "RegistersSoThatTheTableGrows", "RegistersSoThatDeletedSlotsGo",
                           "RegistersForASixthSignal", "ClearsARecord"});
        case Arrive::atSystemCall:
            return amongQ(operation.name, {"RegistersANewRecord", "ClearsTheLastPreexistingRecord",
                                           "TakesASignalOver", "Starts", "HandsASignalBack",
                                           "Stops", "RestoresTheHosts", "DestroysTheLastManager"});
        case Arrive::onThisThread:
        case Arrive::onAnother:
            break;
    }
    return true;
}

using Parameters = std::pair<Operation, Kind>;

std::vector<Parameters> everyOperationOfEachKind() {
    std::vector<Parameters> found;
    for (const Operation& operation : operations()) {
        for (const Kind& kind : kinds) {
            if (meetQ(operation, kind)) {
                found.emplace_back(operation, kind);
            }
        }
    }
    return found;
}

class WhileOneThread : public testing::TestWithParam<Parameters> {};

INSTANTIATE_TEST_SUITE_P(Each, WhileOneThread, testing::ValuesIn(everyOperationOfEachKind()),
                         [](const testing::TestParamInfo<Parameters>& one) {
                             return std::string(one.param.first.name) + "_" + one.param.second.name;
                         });

TEST_P(WhileOneThread, OperatesEachArrivalIsCalledOnceByTheStateBeforeOrAfter) {
    arriveAtEachInstruction(courseOf(GetParam().first, GetParam().second));
}

}  // namespace
