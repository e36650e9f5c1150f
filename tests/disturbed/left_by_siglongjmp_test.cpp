// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Handlers that leave, by siglongjmp, the operation that they interrupted: the thread goes on as if
// that had not begun, or had been done, and everything can be used again.

#include <gtest/gtest.h>
#include <setjmp.h>
#include <sorvane/svsignalhandlermanager.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdio>

#include "disturbed/limited_child.h"
#include "support/single_steps.h"
#include "support/stepping.h"
#include "support/system_actions.h"

namespace {

using Manager = Sorvane::SVSignalHandlerManager;

// --- Leaving -----------------------------------------------------------------------------------

sigjmp_buf goOn;
volatile sig_atomic_t leaving = 0;
volatile unsigned int left = 0;

void leave(int) {
    if (leaving != 0) {
        leaving = 0;
        left = left + 1;
        siglongjmp(goOn, 1);
    }
}

// Who calls it: the system, because the host has installed it, or the library.
enum class Caller { system, library };

void installLeaving(Caller caller, Manager& manager) {
    if (caller == Caller::system) {
        hostInstalls(SIGUSR1, leave);
    } else {
        manager.setHandlerFromFunction(SIGUSR1, leave);
        manager.handleSignal(SIGUSR1);
    }
}

// --- What is left, and what is done afterwards -------------------------------------------------

volatile unsigned int calls = 0;

template <int number>
void count(int) {
    calls = calls + 1;
}

using Handler = void (*)(int);

// As many as fit into a table that has not grown: cleared in the reverse order, each is found.
constexpr std::array<Handler, 5> handlers = {count<0>, count<1>, count<2>, count<3>, count<4>};

void registerAll(Manager& manager) {
    for (const Handler handler : handlers) {
        manager.setHandlerFromFunction(SIGUSR2, handler);
    }
}

void clearAll(Manager& manager) {
    for (std::size_t i = handlers.size(); i > 0; --i) {
        manager.clearHandlerWithFunction(SIGUSR2, handlers[i - 1]);
    }
}

void operate(Manager& manager) {
    registerAll(manager);
    manager.handleSignal(SIGUSR2);
    clearAll(manager);
    manager.stopHandlingSignal(SIGUSR2);
}

// Whatever was left half done would show here.
void expectEverythingUsable(Manager& manager) {
    manager.handleSignal(SIGUSR2);
    registerAll(manager);
    calls = 0;
    raise(SIGUSR2);
    EXPECT_EQ(calls, handlers.size());
    clearAll(manager);
    raise(SIGUSR2);
    EXPECT_EQ(calls, handlers.size());
    manager.stopHandlingSignal(SIGUSR2);
    EXPECT_TRUE(ignoredInSystemQ(SIGUSR2));
}

// --- At one instruction after the other --------------------------------------------------------

#if defined(__x86_64__) || defined(__i386__)

volatile unsigned int steps = 0;
volatile unsigned int leaveAt = 0;

// Where the signal is held back, it comes as soon as it is not any more.
void step(int) {
    steps = steps + 1;
    if (steps == leaveAt) {
        raise(SIGUSR1);
    }
}

[[gnu::noinline]] void leaveAtInstruction(unsigned int number, Manager& manager) {
    if (sigsetjmp(goOn, 1) != 0) {
        return;
    }
    steps = 0;
    leaveAt = number;
    leaving = 1;
    {
        const SingleSteps single;
        manager.setHandlerFromFunction(SIGUSR2, handlers[0]);
        manager.clearHandlerWithFunction(SIGUSR2, handlers[0]);
    }
    leaving = 0;
}

// Each in a process of its own: a dispatch that is left keeps its tables for good, which takes more
// and more steps to find out.
void leaveStepByStep(Caller caller) {
#ifdef SORVANE_TESTS_COUNTED
    constexpr unsigned int places = 3;
#else
    constexpr unsigned int places = 16;
#endif
    constexpr unsigned int nowhere = 0;
    Manager manager(false);
    installLeaving(caller, manager);
    hostInstalls(SIGTRAP, step);
    expectEverythingUsable(manager);
    leaveAtInstruction(nowhere, manager);
    const unsigned int all = steps;
    std::printf("left at %u of %u instructions\n", places, all);
    for (unsigned int place = 0; place < places; ++place) {
        const ChildEnd end = inChild([&] {
            endWithParent();
            leaveAtInstruction(1 + all * place / places, manager);
            EXPECT_EQ(left, 1U);
            expectEverythingUsable(manager);
        });
        ASSERT_TRUE(end.wentOnQ())
            << "left at instruction " << 1 + all * place / places << ": " << end;
    }
}

#else

void leaveStepByStep(Caller) {}

#endif

// --- At any moment -----------------------------------------------------------------------------

// A signal of this thread, so often that each operation takes long enough to meet one.
class Ticks {
public:
    Ticks() {
        sigevent event = {};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = SIGUSR1;
        event._sigev_un._tid = gettid();
        m_made = timer_create(CLOCK_MONOTONIC, &event, &m_timer) == 0;
        const itimerspec often = {{0, 50007}, {0, 50007}};
        m_made = m_made && timer_settime(m_timer, 0, &often, nullptr) == 0;
    }
    Ticks(const Ticks&) = delete;
    Ticks& operator=(const Ticks&) = delete;
    ~Ticks() { timer_delete(m_timer); }

    bool madeQ() const { return m_made; }

private:
    timer_t m_timer = {};
    bool m_made = false;
};

[[gnu::noinline]] void operateUntilLeft(Manager& manager) {
    if (sigsetjmp(goOn, 1) != 0) {
        return;
    }
    leaving = 1;
    while (leaving != 0) {
        operate(manager);
    }
}

void leaveAtAnyMoment(Caller caller) {
    constexpr auto duration = std::chrono::milliseconds(500);
    Manager manager(false);
    installLeaving(caller, manager);
    const Ticks ticks;
    ASSERT_TRUE(ticks.madeQ());
    const auto end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end && !::testing::Test::HasFailure()) {
        operateUntilLeft(manager);
        expectEverythingUsable(manager);
    }
    std::printf("left %u times\n", left);
    EXPECT_GT(left, 10U);
}

// --- The tests ---------------------------------------------------------------------------------

TEST(LeftBySiglongjmp, TheHostsHandlerSparesAnOperationStepByStep) {
    SKIP_WITHOUT_STEPS();
    expectToGoOn([] { leaveStepByStep(Caller::system); });
}

TEST(LeftBySiglongjmp, ADispatchSparesAnOperationStepByStep) {
    SKIP_WITHOUT_STEPS();
    expectToGoOn([] { leaveStepByStep(Caller::library); });
}

TEST(LeftBySiglongjmp, TheHostsHandlerSparesOperationsAtAnyMoment) {
    expectToGoOn([] { leaveAtAnyMoment(Caller::system); });
}

TEST(LeftBySiglongjmp, ADispatchSparesOperationsAtAnyMoment) {
    expectToGoOn([] { leaveAtAnyMoment(Caller::library); });
}

}  // namespace
