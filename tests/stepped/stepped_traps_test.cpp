// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// SIGTRAP taken over by the library, whose handlers then are called after each instruction of an
// operation, inside the gate, too: what is published is whole there, with the change made or not.

#include <../registry/svownership.h>
#include <gtest/gtest.h>
#include <ucontext.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "stepped/arrivals.h"
#include "stepped/operations.h"
#include "stepped/places.h"
#include "stepped/report.h"
#include "support/shared_state.h"
#include "support/single_steps.h"
#include "support/stepping.h"
#include "support/system_actions.h"

#if defined(__x86_64__) || defined(__i386__)

namespace {

#if defined(__x86_64__)
constexpr int instructionRegister = REG_RIP;
#else
constexpr int instructionRegister = REG_EIP;
#endif

// --- The handlers of SIGTRAP. A trap is told from the one before it by the processor's registers.

using Set = unsigned int;
Set setOf(const Called& called) {
    Set set = 0;
    for (const std::size_t handler : called) {
        set |= 1U << handler;
    }
    return set;
}

std::vector<Set> expected;
std::size_t latest;
gregset_t registers;
Set calledNow;

// 1 for a trap in the program.
unsigned long countOf(const gregset_t& at) {
    return inProgramQ(static_cast<std::uintptr_t>(at[instructionRegister])) ? 1 : 0;
}

// The state must be the same as before, or the next one.
void judgeTrap() {
    ++report().visited;
    report().instructions += countOf(registers);
    if (calledNow == expected[latest]) {
        return;
    }
    if (latest + 1 < expected.size() && calledNow == expected[latest + 1]) {
        ++latest;
        return;
    }
    noteIfWrong("the handlers called are not those of the state before, or after");
}

void note(std::size_t number, const void* context) {
    const gregset_t& now = static_cast<const ucontext_t*>(context)->uc_mcontext.gregs;
    if (std::memcmp(&now, &registers, sizeof(now)) != 0) {
        if (calledNow != 0) {
            judgeTrap();
        }
        std::memcpy(&registers, &now, sizeof(now));
        calledNow = 0;
    }
    if ((calledNow & (1U << number)) != 0) {
        noteIfWrong("a handler was called twice");
    }
    calledNow |= 1U << number;
}

constexpr std::size_t trapHandlerCount = 8;

template <std::size_t number>
void trapHandler(int, siginfo*, void* context) {
    note(number, context);
}

template <std::size_t... numbers>
constexpr std::array<ObservedHandler, sizeof...(numbers)> makeTrapHandlers(
    std::index_sequence<numbers...>) {
    return {&trapHandler<numbers>...};
}
constexpr auto trapHandlers = makeTrapHandlers(std::make_index_sequence<trapHandlerCount>());

// --- Stepping by the library

Manager* manager;

void registerForTraps(std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) {
        manager->setHandlerFromFunction(SIGTRAP, trapHandlers[i]);
    }
}

// A function of its own, because the last trap comes at its very end.
[[gnu::noinline]] void runStepped(void (*operate)()) {
    const SingleSteps steps;
    operate();
}

void countTrap(int, siginfo*, void* context) {
    report().instructions += countOf(static_cast<const ucontext_t*>(context)->uc_mcontext.gregs);
}

void stepByTheLibrary(const States& states, void (*prepare)(), void (*operate)()) {
    clearReport();
    runInChild([&] {
        for (const Called& called : states) {
            expected.push_back(setOf(called));
        }
        prepare();
        runStepped(operate);
        judgeTrap();
        report().statesFound = (2U << latest) - 1;
    });
    expectNothingWrong("traps");
    EXPECT_GT(report().visited, 50U);
    EXPECT_EQ(report().statesFound, (1U << states.size()) - 1) << "not each state was found";
}

// --- Operations for other signals, and for all

constexpr std::size_t trapHost = 7;

const Operation* operation;

// The operation's manager is the only one. What it was prepared with may have been torn down.
void prepareOther() {
    hostInstalls(SIGTRAP, trapHandlers[trapHost]);
    operation->prepare();
    Manager other(false);
    manager = &other;
    manager->handleSignal(SIGTRAP);
    registerForTraps(0, 2);
}

// How often the operation is trapped when the library does not have the signal. The instructions of
// the C library are not counted: how many there are depends on what it finds in memory.
unsigned long trapsOfTheOperation() {
    clearReport();
    runInChild([] {
        prepareOther();
        hostInstalls(SIGTRAP, countTrap);
        runStepped(operation->operate);
    });
    return report().instructions;
}

class LibraryStepsThrough : public testing::TestWithParam<Operation> {};

INSTANTIATE_TEST_SUITE_P(Each, LibraryStepsThrough, testing::ValuesIn(operations()),
                         [](const auto& one) { return std::string(one.param.name); });

TEST_P(LibraryStepsThrough, AnOperation) {
    SKIP_WITHOUT_STEPS();
    useSetting({false, SIGUSR1});
    operation = &GetParam();
    const std::string name = operation->name;
    const bool handsBack =
        name == "Stops" || name == "RestoresTheHosts" || name == "DestroysTheLastManager";
    const bool installs = handsBack || name == "Starts";
    const Called before = {0, 1, trapHost};
    const unsigned long traps = trapsOfTheOperation();
    stepByTheLibrary(handsBack ? States{before, {trapHost}} : States{before}, prepareOther,
                     operation->operate);
    EXPECT_TRUE(report().instructions == traps || installs)
        << "of " << traps << " traps, in some nothing was called";
}

// --- Operations for SIGTRAP itself

void prepareTraps(std::size_t count) {
    manager = new Manager(true);
    registerForTraps(0, count);
    manager->startHandlingSignals();
}

void registerThird() {
    registerForTraps(2, 3);
}

TEST(LibraryStepsThroughItsOwn, Registration) {
    SKIP_WITHOUT_STEPS();
    stepByTheLibrary(
        {{0, 1}, {0, 1, 2}}, [] { prepareTraps(2); }, registerThird);
}

TEST(LibraryStepsThroughItsOwn, RegistrationThatGrowsTheTable) {
    SKIP_WITHOUT_STEPS();
    stepByTheLibrary(
        {{0, 1, 2, 3, 4}, {0, 1, 2, 3, 4, 5}}, [] { prepareTraps(5); },
        [] { registerForTraps(5, 6); });
}

TEST(LibraryStepsThroughItsOwn, RegistrationThatCleansTheTableOfDeletedSlots) {
    SKIP_WITHOUT_STEPS();
    stepByTheLibrary(
        {{0}, {0, 6}},
        [] {
            prepareTraps(5);
            for (std::size_t i = 4; i > 0; --i) {
                manager->clearHandlerWithFunction(SIGTRAP, trapHandlers[i]);
            }
        },
        [] { registerForTraps(6, 7); });
}

TEST(LibraryStepsThroughItsOwn, Clearing) {
    SKIP_WITHOUT_STEPS();
    stepByTheLibrary(
        {{0, 1}, {0}}, [] { prepareTraps(2); },
        [] { manager->clearHandlerWithFunction(SIGTRAP, trapHandlers[1]); });
}

// The same function in another form: half of the one and half of the other is called with what it
// does not expect.
void replaceByInvalid() {
    struct sigaction action = {};
    action.sa_sigaction = trapHandlers[1];
    Record record(SIGTRAP, action, false, false, false);
    manager->setHandler(record);
}

TEST(LibraryStepsThroughItsOwn, ReplacementByAnInvalidRecord) {
    SKIP_WITHOUT_STEPS();
    stepByTheLibrary(
        {{0, 1}, {0}}, [] { prepareTraps(2); }, replaceByInvalid);
}

TEST(LibraryStepsThroughItsOwn, ReplacementOfAnInvalidRecord) {
    SKIP_WITHOUT_STEPS();
    stepByTheLibrary(
        {{0}, {0, 1}},
        [] {
            prepareTraps(2);
            replaceByInvalid();
        },
        [] { registerForTraps(1, 2); });
}

TEST(LibraryStepsThroughItsOwn, TakeOver) {
    SKIP_WITHOUT_STEPS();
    stepByTheLibrary(
        {{0, 1}}, [] { prepareTraps(2); }, [] { manager->handleSignal(SIGTRAP); });
}

TEST(LibraryStepsThroughItsOwn, Walk) {
    SKIP_WITHOUT_STEPS();
    stepByTheLibrary(
        {{0, 1}}, [] { prepareTraps(2); },
        [] { manager->hasPreexistingOrExternalHandlerQ(SIGTRAP); });
}

// The signal that steps is itself handed back: each trap comes to somebody, and the host has it
// then.
unsigned int trapsOfHost;

void countForTheHost(int) {
    ++trapsOfHost;
}

TEST(SteppedHandBackOfTheSignalThatSteps, LeavesItToTheHostAtAnyInstruction) {
    SKIP_WITHOUT_STEPS();
    hostInstalls(SIGTRAP, countForTheHost);
    Manager stepped(false);
    stepped.handleSignal(SIGTRAP);
    {
        const SingleSteps steps;
        stepped.stopHandlingSignal(SIGTRAP);
    }
    EXPECT_GT(trapsOfHost, 300U);
    EXPECT_EQ(systemHandler(SIGTRAP), reinterpret_cast<void*>(&countForTheHost));
    EXPECT_FALSE(Sorvane::SVOwnership::librarysQ(SIGTRAP));
    hostInstalls(SIGTRAP, SIG_DFL);
}

}  // namespace

#endif
