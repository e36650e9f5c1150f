// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A signal that an instruction brings about, and that does not come again by itself, arrives while
// another thread takes its signal over: the host's handler answers it at once and on the spot, with
// the context of that very instruction. So it is inside the gate, on the thread that has closed it.

#include <gtest/gtest.h>
#include <linux/seccomp.h>
#include <sorvane/svsignalhandlermanager.h>
#include <sys/syscall.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <functional>

#include "disturbed/limited_child.h"
#include "disturbed/stretched_sigaction.h"
#include "disturbed/waiting.h"
#include "support/joining_thread.h"
#include "support/system_actions.h"
#include "support/system_call_filter.h"

#if defined(__x86_64__) || defined(__i386__)

namespace {

using Manager = Sorvane::SVSignalHandlerManager;
using Record = Sorvane::SVSignalHandler;
using When = StretchedSigaction::When;

// What the host's handler puts into the place of the instruction's result.
constexpr int answer = 4711;

#if defined(__x86_64__)
constexpr int resultRegister = REG_RAX;
#else
constexpr int resultRegister = REG_EAX;
#endif

std::atomic<unsigned int> answered;
std::atomic<unsigned int> withoutContext;

void answerInContext(int, siginfo_t*, void* context) {
    ++answered;
    if (context == nullptr) {
        ++withoutContext;
        return;
    }
    static_cast<ucontext_t*>(context)->uc_mcontext.gregs[resultRegister] = answer;
}

// --- The instructions --------------------------------------------------------------------------

// A system call that nothing else makes here.
constexpr long trappedCall = SYS_getsid;

bool trapSystemCall() {
    return answerSystemCall(trappedCall, {}, SECCOMP_RET_TRAP);
}

int makeTrappedCall() {
    return static_cast<int>(syscall(trappedCall, 0));
}

int stopAtBreakpoint() {
    int result = 0;
    asm volatile("int3" : "+a"(result) : : "memory");
    return result;
}

// --- The two threads ---------------------------------------------------------------------------

// The one that takes the signal over has installed the library, and has not recorded yet what the
// host had; then the other one meets its signal.
class Meeting {
public:
    void arrive() { m_installed = true; }
    void beMet() { m_met = true; }
    bool arrivedQ() const { return m_installed; }
    bool metQ() const { return m_met; }

    // Whoever takes over.
    void stretch() {
        arrive();
        waitUpTo(stretchedMoment, [this] { return metQ(); });
    }
    // The other one.
    void await() const {
        waitUpTo(childPatience, [this] { return arrivedQ(); });
    }

private:
    std::atomic<bool> m_installed{false};
    std::atomic<bool> m_met{false};
};

void takeOverSlowly(Manager& manager, int signalNumber, Meeting& meeting) {
    const StretchedSigaction stretched(signalNumber, When::after,
                                       [&meeting] { meeting.stretch(); });
    manager.handleSignal(signalNumber);
}

bool sleepsUndisturbed() {
    const timespec aMoment = {0, 1000000};
    return syscall(SYS_nanosleep, &aMoment, nullptr) == 0;
}

// What the other thread does after its signal is not that signal's business.
void expectAnswersOnTheSpot(
    int signalNumber, const std::function<int()>& instruction,
    const std::function<bool()>& prepare = [] { return true; }) {
    constexpr unsigned int rounds = 5;
    Manager manager(true);
    Record host(signalNumber, answerInContext, true, true, true);
    hostInstalls(signalNumber, answerInContext);
    for (unsigned int round = 0; round < rounds; ++round) {
        Meeting meeting;
        std::atomic<bool> takenOver{false};
        bool prepared = false;
        int result = 0;
        bool disturbed = false;
        JoiningThread other([&] {
            prepared = prepare();
            meeting.await();
            result = instruction();
            meeting.beMet();
            do {
                disturbed = disturbed || !sleepsUndisturbed();
            } while (!takenOver);
            disturbed = disturbed || !sleepsUndisturbed();
        });
        takeOverSlowly(manager, signalNumber, meeting);
        takenOver = true;
        other.join();
        ASSERT_TRUE(prepared);
        EXPECT_EQ(result, answer) << "round " << round;
        EXPECT_FALSE(disturbed) << "round " << round;
        manager.clearHandler(host);
    }
    EXPECT_EQ(answered, rounds);
    EXPECT_EQ(withoutContext, 0U);
}

// --- The tests ---------------------------------------------------------------------------------

TEST(SynchronousSignalDuringATakeOver, OfATrappedSystemCallIsAnsweredOnTheSpot) {
    SKIP_WITHOUT_SYSTEM_CALL_FILTERS();
    expectToGoOn([] { expectAnswersOnTheSpot(SIGSYS, makeTrappedCall, trapSystemCall); });
}

TEST(SynchronousSignalDuringATakeOver, OfABreakpointIsAnsweredOnTheSpot) {
    expectToGoOn([] { expectAnswersOnTheSpot(SIGTRAP, stopAtBreakpoint); });
}

// The handler that every orderly end goes through.
constexpr int orderlyEnd = 77;

void endOrderly(int) {
    _exit(orderlyEnd);
}

TEST(SynchronousSignalDuringATakeOver, OfAnAbortReachesTheHostsHandlerBeforeTheEnd) {
    const ChildEnd end = inLimitedChild([] {
        hostInstalls(SIGABRT, endOrderly);
        Meeting meeting;
        JoiningThread other([&meeting] {
            meeting.await();
            std::abort();
        });
        Manager manager(true);
        takeOverSlowly(manager, SIGABRT, meeting);
        other.join();
    });
    EXPECT_TRUE(end.exitedWithQ(orderlyEnd)) << end;
}

// --- Inside the gate ---------------------------------------------------------------------------

// There is no manager any more but the dispatch's own, and signals are still handled.
void expectTeardownToEndByItself(int signalNumber, const std::function<int()>& instruction) {
    hostInstalls(signalNumber, answerInContext);
    hostInstalls(SIGUSR1, SIG_DFL);
    auto* const manager = new Manager(true);
    Record record(signalNumber, answerInContext, false, false, true);
    manager->setHandler(record);
    Record host(
        SIGUSR1, [](int) {}, true, true, true);
    manager->setHandler(host);
    manager->startHandlingSignals();
    int result = 0;
    bool handlingAfterwards = false;
    {
        const StretchedSigaction stretched(SIGUSR1, When::before, [&] {
            result = instruction();
            handlingAfterwards = Manager::currentlyHandlingSignals;
        });
        delete manager;
    }
    EXPECT_EQ(answered, 1U);
    EXPECT_EQ(result, answer);
    EXPECT_TRUE(handlingAfterwards) << "the dispatch ended what it had interrupted";
    EXPECT_FALSE(Manager::currentlyHandlingSignals);
    EXPECT_EQ(Manager::handlerTables, nullptr);
    EXPECT_EQ(Manager::numberOfManagers, 0U);
    EXPECT_FALSE(takenOverQ(SIGUSR1));
}

TEST(SynchronousSignalDuringATeardown, OfATrappedSystemCallIsAnsweredAndTheTeardownGoesOn) {
    SKIP_WITHOUT_SYSTEM_CALL_FILTERS();
    expectToGoOn([] {
        ASSERT_TRUE(trapSystemCall());
        expectTeardownToEndByItself(SIGSYS, makeTrappedCall);
    });
}

TEST(SynchronousSignalDuringATeardown, OfABreakpointIsAnsweredAndTheTeardownGoesOn) {
    expectToGoOn([] { expectTeardownToEndByItself(SIGTRAP, stopAtBreakpoint); });
}

}  // namespace

#endif
