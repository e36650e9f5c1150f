// A signal at each instruction of each operation, by both kinds of manager.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>

#include "interrupt/each_instruction.h"
#include "interrupt/operations.h"

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
    {"ThisThreadHasASignal", true, realTime, Arrive::onThisThread},
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

class WhileOneThread : public testing::TestWithParam<std::tuple<Operation, Kind>> {};

std::string nameOf(const testing::TestParamInfo<std::tuple<Operation, Kind>>& info) {
    return std::string(std::get<0>(info.param).name) + "_" + std::get<1>(info.param).name;
}

INSTANTIATE_TEST_SUITE_P(EachInstruction, WhileOneThread,
                         testing::Combine(testing::ValuesIn(operations()),
                                          testing::ValuesIn(kinds)),
                         nameOf);

TEST_P(WhileOneThread, EachArrivalIsCalledOnceByTheStateBeforeOrAfter) {
    const auto& [operation, kind] = GetParam();
    const Called& before = operation.states.front();
    if (kind.arrive == Arrive::asFault && std::count(before.begin(), before.end(), host) == 0) {
        GTEST_SKIP() << "a fault ends the process where the host has no handler";
    }
    arriveAtEachInstruction(courseOf(operation, kind));
}

}  // namespace
