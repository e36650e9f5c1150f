// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Dispatches and walks that have begun before an operation, and go on while it is done.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "stepped/each_instruction.h"
#include "stepped/operations.h"

namespace {

// Those that begin when the library has the signal, and change what a dispatch finds.
std::vector<Operation> changes() {
    std::vector<Operation> found;
    for (const char* const name :
         {"RegistersANewRecord", "ReplacesAUsersRecordByAnInvalidOneOfTheHosts",
          "ReplacesAnInvalidRecordOfTheHostsByAUsers", "RegistersSoThatTheTableGrows",
          "RegistersSoThatDeletedSlotsGo", "RegistersForASixthSignal", "ClearsARecord",
          "ClearsTheLastPreexistingRecord", "HandsASignalBack", "Stops", "RestoresTheHosts",
          "DestroysTheLastManager"}) {
        found.push_back(operationNamed(name));
    }
    return found;
}

class WhileADispatch : public testing::TestWithParam<Operation> {
protected:
    static Course courseOf(int signalNumber, Arrive arrive) {
        const Operation& operation = GetParam();
        const bool fatal = signalNumber == SIGSEGV;
        useSetting({!fatal, signalNumber});
        return {operation.prepare,
                operation.operate,
                signalNumber,
                arrive,
                fatal ? States{{host}} : operation.states,
                operation.detail};
    }
};

INSTANTIATE_TEST_SUITE_P(Each, WhileADispatch, testing::ValuesIn(changes()),
                         [](const auto& one) { return std::string(one.param.name); });

TEST_P(WhileADispatch, StandsAtAnyInstructionAnotherThreadOperates) {
    operateAtEachInstructionOfADispatch(courseOf(SIGUSR1, Arrive::onAnother));
}

TEST_P(WhileADispatch, OfASignalIsInAHandlerAnotherThreadOperates) {
    goOnAtSomeInstructions(courseOf(SIGUSR1, Arrive::onAnother));
}

TEST_P(WhileADispatch, OfAFaultIsInAHandlerAnotherThreadOperates) {
    goOnAtSomeInstructions(courseOf(SIGSEGV, Arrive::asFault));
}

}  // namespace
