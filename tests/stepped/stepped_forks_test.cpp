// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A child that one thread forks while another one stands in the middle of an operation, inside the
// gate. What that thread was changing is as before or as after in the child, which can do
// everything at once, also take the lock that the other thread had.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <tuple>
#include <vector>

#include "stepped/arrivals.h"
#include "stepped/operations.h"
#include "stepped/other_thread.h"
#include "stepped/places.h"
#include "stepped/report.h"
#include "support/shared_state.h"
#include "support/stepping.h"
#include "support/system_actions.h"

namespace {

const Operation* operation;
int theSignal;
OtherThread other;
Selection selection;

// --- The child

void expectArrival(int signalNumber) {
    const std::size_t number = Arrivals::add();
    Arrivals::bySignal(signalNumber, number);
    noteIfWrong(Arrivals::judge(number));
}

bool countedRightQ(const HandlerTable& table) {
    unsigned int used = 0;
    unsigned int fill = 0;
    for (unsigned int slot = 0; slot <= table.mask; ++slot) {
        used += table.table[slot].state == Sorvane::svslotOccupied ? 1 : 0;
        fill += table.table[slot].state != Sorvane::svslotEmpty ? 1 : 0;
    }
    return used == table.used && fill == table.fill;
}

void expectWholeTable() {
    const HandlerTable* const table = tableOf(theSignal);
    if (table != nullptr && !countedRightQ(*table)) {
        noteIfWrong("the child has a table that counts its records wrong");
    }
}

void useEverything() {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR2, observed[7]);
    manager.startHandlingSignals();
    Arrivals::expect({{7}});
    expectArrival(SIGUSR2);
    manager.stopHandlingSignals();
    if (takenOverQ(theSignal) || takenOverQ(SIGUSR2)) {
        noteIfWrong("a stop in the child hands a signal not back");
    }
}

// The manager that the other thread was just destroying is there or not.
[[noreturn]] void goOnAsChild(unsigned int managers) {
    constexpr unsigned int going = 1;
    constexpr unsigned int seconds = 60;
    alarm(seconds);
    if (Manager::numberOfManagers != managers && Manager::numberOfManagers + going != managers) {
        noteIfWrong("the child has another number of managers");
    }
    expectWholeTable();
    expectArrival(theSignal);
    report().statesFound |= Arrivals::statesFound();
    useEverything();
    _exit(0);
}

// --- The threads of the parent

void forkHere(std::size_t) {
    const unsigned int managers = Manager::numberOfManagers;
    const pid_t child = fork();
    if (child == 0) {
        goOnAsChild(managers);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
    }
    if (WIFSIGNALED(status)) {
        noteIfWrong("a signal ended the child");
    }
}

bool selectedQ(const Standing& standing, Watch& watch) {
    static unsigned long inside = 0;
    constexpr unsigned long distance = 8;
    const bool due = selection.selectsQ(standing) && ++inside % distance == 0;
    return gateClosedQ() && (watch.justChangedQ() || due || everyInstructionQ());
}

void operateStepped() {
    Arrivals::expect(theSignal == SIGSEGV ? States{{host}} : operation->states);
    operation->prepare();
    other.begin();
    Watch watch(theSignal);
    step(operation->operate, [&](const Standing& standing) {
        ++report().instructions;
        if (selectedQ(standing, watch)) {
            ++report().visited;
            other.tell(forkHere, 0);
            other.waitUntilDone();
        }
        return true;
    });
}

std::vector<Operation> changes() {
    std::vector<Operation> found;
    for (const char* const name :
         {"RegistersANewRecord", "ReplacesAUsersRecordByAnInvalidOneOfTheHosts",
          "ReplacesAnInvalidRecordOfTheHostsByAUsers", "RegistersSoThatTheTableGrows",
          "RegistersForASixthSignal", "ClearsARecord", "ClearsTheLastPreexistingRecord",
          "TakesASignalOver", "Stops", "DestroysTheLastManager"}) {
        found.push_back(operationNamed(name));
    }
    return found;
}

using Parameters = std::tuple<Operation, int>;

class ForkWhileAnotherThread : public testing::TestWithParam<Parameters> {};

INSTANTIATE_TEST_SUITE_P(Each, ForkWhileAnotherThread,
                         testing::Combine(testing::ValuesIn(changes()),
                                          testing::Values(SIGUSR1, SIGSEGV)),
                         [](const testing::TestParamInfo<Parameters>& one) {
                             const bool fatal = std::get<1>(one.param) == SIGSEGV;
                             return std::string(std::get<0>(one.param).name) +
                                    (fatal ? "_ForAFatalSignal" : "");
                         });

TEST_P(ForkWhileAnotherThread, IsInsideTheGateMakesAChildThatCanDoEverything) {
    SKIP_WITHOUT_STEPS();
    operation = &std::get<0>(GetParam());
    theSignal = std::get<1>(GetParam());
    useSetting({true, theSignal});
    clearReport();
    runInChild(operateStepped);
    expectNothingWrong("forks");
    const std::size_t states = theSignal == SIGSEGV ? 1 : operation->states.size();
    EXPECT_EQ(report().statesFound, (1U << states) - 1) << "not each of the states was found";
}

}  // namespace
