// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The gate: which signals it holds back, who waits for it, and what children find of it.

#include <../registry/svgate.h>
#include <gtest/gtest.h>
#include <linux/futex.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "support/child_process.h"
#include "support/emulation.h"
#include "support/gate.h"
#include "support/gate_waiter.h"
#include "support/joining_thread.h"
#include "support/manager_fixture.h"
#include "support/sanitizers.h"
#include "support/single_steps.h"
#include "support/stepping.h"
#include "support/system_call_filter.h"
#include "support/thread_state.h"

extern "C" pid_t _Fork();

namespace {

using Sorvane::SVGate;

// What the kernel holds back when it is asked to hold back all but those that are let in.
constexpr std::uint64_t allHeldBack =
    ~(heldBackBit(SIGTRAP) | heldBackBit(SIGSYS) | heldBackBit(SIGKILL) | heldBackBit(SIGSTOP));

class GateTest : public ManagerTest {
protected:
    // Some do not tell the system which signals they hold back.
    const bool m_knowsMasks = !builtWithThreadSanitizer && !emulated && !underValgrindQ();
};

#define SKIP_WITHOUT_MASKS()                                                           \
    do {                                                                               \
        if (!m_knowsMasks) {                                                           \
            GTEST_SKIP() << "the kernel is not told here which signals are held back"; \
        }                                                                              \
    } while (false)

// --- What is held back ---------------------------------------------------------------------------

TEST_F(GateTest, HoldsBackAllSignalsButThoseOfASandboxAndADebugger) {
    SKIP_WITHOUT_MASKS();
    const std::uint64_t before = ThreadState().heldBack();
    {
        const SVGate gate;
        EXPECT_EQ(ThreadState().heldBack(), allHeldBack);
    }
    EXPECT_EQ(ThreadState().heldBack(), before);
}

TEST_F(GateTest, HoldsBackThoseThatTheCLibraryKeepsForItsThreads) {
    SKIP_WITHOUT_MASKS();
    const SVGate gate;
    for (const int signalNumber : {32, 33}) {
        EXPECT_NE(ThreadState().heldBack() & heldBackBit(signalNumber), 0U) << signalNumber;
    }
}

TEST_F(GateTest, LeavesBehindWhatWasHeldBackBefore) {
    SKIP_WITHOUT_MASKS();
    const BlockedSignals others{SIGUSR1, SIGTRAP};
    const std::uint64_t before = ThreadState().heldBack();
    {
        const SVGate gate;
        EXPECT_EQ(ThreadState().heldBack(), allHeldBack | heldBackBit(SIGTRAP));
    }
    EXPECT_EQ(ThreadState().heldBack(), before);
}

TEST_F(GateTest, LetsASignalInAsSoonAsItIsOpen) {
    hostInstalls(SIGUSR1, hostHandler);
    hostInstalls(SIGSEGV, hostHandler);
    {
        const SVGate gate;
        raise(SIGUSR1);
        raise(SIGSEGV);
        EXPECT_EQ(callCount(), 0U);
    }
    EXPECT_EQ(callsOf(hostHandler), 2U);
}

TEST_F(GateTest, LetsASandboxAndADebuggerIn) {
    if (builtWithThreadSanitizer || treatedUnlikeByTheKernelQ(SIGSYS)) {
        GTEST_SKIP() << "the signal comes later here, or ends the process";
    }
    hostInstalls(SIGTRAP, hostHandler);
    hostInstalls(SIGSYS, otherHostHandler);
    const SVGate gate;
    raise(SIGTRAP);
    EXPECT_EQ(callsOf(hostHandler), 1U);
    raise(SIGSYS);
    EXPECT_EQ(callsOf(otherHostHandler), 1U);
}

// In a process of its own it is not the second one.
TEST(TheFirstGate, FindsNobodyElse) {
    EXPECT_EQ(gateWord(), 0U);
    EXPECT_TRUE(SVGate::openQ());
}

// --- One inside another --------------------------------------------------------------------------

bool openToOthersQ() {
    bool open = false;
    JoiningThread([&open] { open = SVGate::openQ(); }).join();
    return open;
}

TEST_F(GateTest, InsideAnotherChangesNothing) {
    EXPECT_FALSE(SVGate::closedByThisThreadQ());
    {
        const SVGate outer;
        EXPECT_TRUE(SVGate::closedByThisThreadQ());
        {
            const SVGate inner;
            EXPECT_TRUE(SVGate::closedByThisThreadQ());
        }
        EXPECT_TRUE(SVGate::closedByThisThreadQ());
        EXPECT_NE(gateWord(), 0U);
        if (m_knowsMasks) {
            EXPECT_EQ(ThreadState().heldBack(), allHeldBack);
        }
        EXPECT_FALSE(openToOthersQ());
    }
    EXPECT_FALSE(SVGate::closedByThisThreadQ());
    EXPECT_TRUE(openToOthersQ());
}

TEST_F(GateTest, IsOpenToTheThreadThatHasClosedIt) {
    const SVGate gate;
    EXPECT_TRUE(SVGate::openQ());
    SVGate::waitUntilOpen();
    EXPECT_NE(gateWord(), 0U);
    bool closedByOther = true;
    JoiningThread([&] { closedByOther = SVGate::closedByThisThreadQ(); }).join();
    EXPECT_FALSE(closedByOther);
}

#if defined(__x86_64__) || defined(__i386__)

// A debugger's handler is let in, and reads what is published.
unsigned int steps;
unsigned int stepsNotOpen;

void lookAtTheGate(int) {
    ++steps;
    stepsNotOpen += SVGate::openQ() ? 0U : 1U;
}

TEST_F(GateTest, IsOpenToItsOwnThreadAtAnyInstruction) {
    if (builtWithThreadSanitizer || underValgrindQ()) {
        GTEST_SKIP() << "there is no trap flag here, or the signal comes later";
    }
    JoiningThread([] { const SVGate gate; }).join();
    hostInstalls(SIGTRAP, lookAtTheGate);
    {
        const SingleSteps stepping;
        const SVGate outer;
        { const SVGate inner; }
        SVGate::waitUntilOpen();
    }
    EXPECT_GT(steps, 100U);
    EXPECT_EQ(stepsNotOpen, 0U);
}

#endif

TEST_F(GateTest, IsClosedOnlyWhileSignalsAreHeldBackAtAnyInstruction) {
    SKIP_WITHOUT_STEPS();
    const auto self = static_cast<unsigned int>(gettid());
    unsigned int closed = 0;
    unsigned int notHeldBack = 0;
    step([] { const SVGate gate; },
         [&](const Standing& standing) {
             if (gateWord() == self) {
                 ++closed;
                 notHeldBack += sigismember(&standing.heldBack, SIGUSR1) == 1 ? 0U : 1U;
             }
             return true;
         });
    EXPECT_GT(closed, 5U);
    EXPECT_EQ(notHeldBack, 0U);
}

TEST_F(GateTest, PutsTheHeapOutOfBounds) {
    using Sorvane::SVHandlerContext::insideQ;
    EXPECT_FALSE(insideQ());
    {
        const SVGate gate;
        EXPECT_TRUE(insideQ());
    }
    EXPECT_FALSE(insideQ());
}

// --- Other threads -------------------------------------------------------------------------------

// While one of these lives, another thread has closed the gate.
class ClosedByAnother {
public:
    ClosedByAnother() { m_closed.pass(); }
    ClosedByAnother(const ClosedByAnother&) = delete;
    ClosedByAnother& operator=(const ClosedByAnother&) = delete;
    ~ClosedByAnother() { m_over.open(); }

private:
    Gate m_closed;
    Gate m_over;
    JoiningThread m_thread{[this] {
        const SVGate gate;
        m_closed.open();
        m_over.pass();
    }};
};

void closeAndOpen() {
    const SVGate gate;
}

class WaitingAtTheGate : public GateTest, public testing::WithParamInterface<void (*)()> {};

INSTANTIATE_TEST_SUITE_P(To, WaitingAtTheGate,
                         testing::Values(&closeAndOpen, &SVGate::waitUntilOpen),
                         [](const testing::TestParamInfo<void (*)()>& tested) {
                             return tested.param == &closeAndOpen ? "CloseIt" : "FindItOpen";
                         });

TEST_P(WaitingAtTheGate, IsSleepingUntilItOpens) {
    std::optional<SVGate> gate(std::in_place);
    GateWaiter other(GetParam());
    other.waitUntilAsleep();
    EXPECT_FALSE(other.doneQ());
    gate.reset();
    other.join();
    EXPECT_TRUE(other.doneQ());
    EXPECT_EQ(gateWord(), 0U);
}

// That nobody has it is not to be read from an error of some time ago.
TEST_P(WaitingAtTheGate, IsDoneWhateverErrorWasTheLast) {
    std::optional<SVGate> gate(std::in_place);
    GateWaiter other([] {
        errno = ESRCH;
        GetParam()();
    });
    other.waitUntilAsleep();
    EXPECT_FALSE(other.doneQ());
    gate.reset();
}

// A handler that ran there might keep the next one from the gate.
TEST_P(WaitingAtTheGate, IsDoneWithSignalsHeldBack) {
    SKIP_WITHOUT_MASKS();
    std::optional<SVGate> gate(std::in_place);
    GateWaiter other(GetParam());
    other.waitUntilAsleep();
    EXPECT_EQ(other.state().heldBack(), allHeldBack);
    gate.reset();
    other.join();
}

TEST_P(WaitingAtTheGate, IsDoneByAsManyAsLike) {
    std::optional<SVGate> gate(std::in_place);
    std::vector<std::unique_ptr<GateWaiter>> others;
    for (int i = 0; i < 5; ++i) {
        others.push_back(std::make_unique<GateWaiter>(GetParam()));
    }
    for (const auto& other : others) {
        other->waitUntilAsleep();
    }
    gate.reset();
    for (const auto& other : others) {
        other->join();
        EXPECT_TRUE(other->doneQ());
    }
}

// The change is told by then, and the kernel will not know of the opening if nobody waits.
TEST_F(GateTest, IsHandedOnToOneWhoComesAtAnyInstructionOfItsOpening) {
    SKIP_WITHOUT_STEPS();
    const auto self = static_cast<unsigned int>(gettid());
    bool reached = true;
    unsigned int instruction = 0;
    for (; reached; ++instruction) {
        std::optional<SVGate> gate(std::in_place);
        std::optional<GateWaiter> other;
        unsigned int passed = 0;
        step([&gate] { gate.reset(); },
             [&](const Standing&) {
                 reached = !SVGate::closedByThisThreadQ() && gateWord() == self &&
                           passed++ == instruction;
                 if (reached) {
                     other.emplace(&closeAndOpen);
                     other->waitUntilAsleep();
                 }
                 return !reached && gateWord() == self;
             });
        if (other) {
            other->join();
            EXPECT_TRUE(other->doneQ());
        }
        ASSERT_EQ(gateWord(), 0U) << "at instruction " << instruction;
    }
    EXPECT_GT(instruction, 3U);
}

TEST_F(GateTest, LetsOneInAtATime) {
    constexpr unsigned int rounds = 20000;
    constexpr unsigned int threadCount = 4;
    unsigned int plain = 0;
    bool openToAll = true;
    {
        std::vector<JoiningThread> threads;
        for (unsigned int i = 0; i < threadCount; ++i) {
            threads.emplace_back([&] {
                for (unsigned int round = 0; round < rounds; ++round) {
                    const SVGate gate;
                    ++plain;
                    openToAll = openToAll && SVGate::openQ();
                }
            });
        }
    }
    EXPECT_EQ(plain, threadCount * rounds);
    EXPECT_TRUE(openToAll);
    EXPECT_EQ(gateWord(), 0U);
}

// The plain counts are of the thread's and its handlers' own, and of those of the others.
unsigned int changesInHandlers;

void changeInHandler(int) {
    const SVGate gate;
    ++changesInHandlers;
}

TEST_F(GateTest, LetsOneInAtATimeAlsoOfHandlers) {
    constexpr unsigned int signals = 5000;
    hostInstalls(SIGUSR1, changeInHandler);
    changesInHandlers = 0;
    std::atomic<unsigned int> running{3};
    std::vector<JoiningThread> threads;
    for (unsigned int i = running; i != 0; --i) {
        threads.emplace_back([&] {
            for (unsigned int sent = 0; sent < signals; ++sent) {
                raise(SIGUSR1);
                const SVGate gate;
                ++changesInHandlers;
            }
        });
    }
    const auto total = static_cast<unsigned int>(2 * signals * threads.size());
    threads.clear();
    EXPECT_EQ(changesInHandlers, total);
}

// Asleep for a moment at a time, then.
TEST_F(GateTest, LetsOneInAtATimeAlsoIfTheKernelKnowsNoFutexWithPriorityInheritance) {
    SKIP_WITHOUT_SYSTEM_CALL_FILTERS();
    std::optional<SVGate> gate(std::in_place);
    bool refused = false;
    std::atomic<pid_t> number{0};
    std::atomic<bool> inside{false};
    JoiningThread other([&] {
        refused = refuseSystemCall(SYS_futex, {{1, true, FUTEX_LOCK_PI_PRIVATE}}, ENOSYS);
        number = gettid();
        const SVGate own;
        inside = true;
    });
    while (number == 0 || !(inside || ThreadState(number).asleepQ())) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(inside);
    EXPECT_EQ(gateWord(), static_cast<unsigned int>(gettid())) << "the kernel knows who waits";
    gate.reset();
    other.join();
    EXPECT_TRUE(refused);
    EXPECT_TRUE(inside);
    EXPECT_EQ(gateWord(), 0U);
}

// --- What the kernel is asked --------------------------------------------------------------------

class FilteredGate : public GateTest {
protected:
    void SetUp() override {
        SKIP_WITHOUT_SYSTEM_CALL_FILTERS();
        if (builtWithThreadSanitizer) {
            GTEST_SKIP() << "what is asked here is not the library's alone";
        }
    }
};

TEST_F(FilteredGate, AsksForNoFutexIfNobodyElseWantsIt) {
    const ChildEnd end = inChild([] {
        ASSERT_TRUE(answerSystemCall(SYS_futex, {}, SECCOMP_RET_KILL_PROCESS));
        {
            const SVGate gate;
            closeAndOpen();
            SVGate::waitUntilOpen();
        }
        SVGate::waitUntilOpen();
        EXPECT_EQ(gateWord(), 0U);
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

// A sandbox may forbid the question whether the holder is of this process.
TEST_F(FilteredGate, IsWaitedForIfItIsNotToBeLearntWhoHasIt) {
    const ChildEnd end = inChild([] {
        std::optional<SVGate> gate(std::in_place);
        ASSERT_TRUE(refuseSystemCall(SYS_tgkill, {}, EPERM));
        GateWaiter other(&closeAndOpen);
        other.waitUntilAsleep();
        EXPECT_FALSE(other.doneQ());
        gate.reset();
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

// --- Priorities ----------------------------------------------------------------------------------

TEST_F(GateTest, LendsThePriorityOfWhoeverWaitsToTheOneWhoHasClosedIt) {
    if (emulated || underValgrindQ()) {
        GTEST_SKIP() << "there are no real-time priorities here";
    }
    const long before = ThreadState().priority();
    bool allowed = false;
    std::optional<SVGate> gate(std::in_place);
    GateWaiter urgent([&] {
        sched_param high = {};
        high.sched_priority = sched_get_priority_min(SCHED_FIFO);
        allowed = pthread_setschedparam(pthread_self(), SCHED_FIFO, &high) == 0;
        closeAndOpen();
    });
    urgent.waitUntilAsleep();
    const long meanwhile = ThreadState().priority();
    gate.reset();
    urgent.join();
    if (!allowed) {
        GTEST_SKIP() << "the user may not have real-time priorities";
    }
    EXPECT_GE(before, 0);
    EXPECT_LT(meanwhile, 0);
    EXPECT_EQ(ThreadState().priority(), before);
}

// --- Children ------------------------------------------------------------------------------------

// How a process is split off without the handlers that fork() runs.
pid_t byCLibrarysFork() {
    return _Fork();
}

pid_t bySystemCall() {
    return static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
}

enum Found : int { wentOn = 42, stillClosed = 43 };

// Nothing of GoogleTest's is used: such a child may have a lock of the C library's for good.
[[noreturn]] void goOn() {
    alarm(20);
    SVGate::waitUntilOpen();
    bool open = SVGate::openQ() && !SVGate::closedByThisThreadQ();
    for (int round = 0; round < 3; ++round) {
        const SVGate gate;
        open = open && SVGate::openQ() && SVGate::closedByThisThreadQ() &&
               gateWord() == static_cast<unsigned int>(gettid());
    }
    open = open && SVGate::openQ() && !SVGate::closedByThisThreadQ() && gateWord() == 0;
    _exit(open ? wentOn : stillClosed);
}

ChildEnd endOf(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return ChildEnd(status);
}

class ChildOf : public GateTest, public testing::WithParamInterface<pid_t (*)()> {
protected:
    void SetUp() override {
        if (builtWithThreadSanitizer || underValgrindQ() || emulated) {
            GTEST_SKIP() << "such children are not supported here";
        }
    }

    static ChildEnd endOfChild() {
        const pid_t child = GetParam()();
        if (child == 0) {
            goOn();
        }
        return endOf(child);
    }
};

INSTANTIATE_TEST_SUITE_P(Process, ChildOf, testing::Values(&byCLibrarysFork, &bySystemCall),
                         [](const testing::TestParamInfo<pid_t (*)()>& tested) {
                             return tested.param == &byCLibrarysFork ? "ByTheCLibrary"
                                                                     : "ByTheSystemCall";
                         });

TEST_P(ChildOf, GoesOnWhenTheGateIsOpen) {
    const ChildEnd end = endOfChild();
    EXPECT_TRUE(end.exitedWithQ(wentOn)) << end;
}

TEST_P(ChildOf, GoesOnWhenAnotherThreadHadClosedTheGate) {
    const ClosedByAnother closed;
    const ChildEnd end = endOfChild();
    EXPECT_TRUE(end.exitedWithQ(wentOn)) << end;
}

TEST_P(ChildOf, GoesOnWhenThreadsWaitedForTheGate) {
    std::optional<ClosedByAnother> closed(std::in_place);
    GateWaiter waiting(&closeAndOpen);
    waiting.waitUntilAsleep();
    const ChildEnd end = endOfChild();
    closed.reset();
    EXPECT_TRUE(end.exitedWithQ(wentOn)) << end;
}

TEST_P(ChildOf, HasTheGateOfItsOwnThread) {
    pid_t child = -1;
    {
        const SVGate gate;
        child = GetParam()();
    }
    if (child == 0) {
        goOn();
    }
    const ChildEnd end = endOf(child);
    EXPECT_TRUE(end.exitedWithQ(wentOn)) << end;
}

TEST_P(ChildOf, AChildGoesOnToo) {
    const ClosedByAnother closed;
    const pid_t child = GetParam()();
    if (child == 0) {
        const pid_t grandchild = GetParam()();
        if (grandchild == 0) {
            goOn();
        }
        _exit(endOf(grandchild).exitedWithQ(wentOn) ? wentOn : stillClosed);
    }
    const ChildEnd end = endOf(child);
    EXPECT_TRUE(end.exitedWithQ(wentOn)) << end;
}

// Closes the gate and opens it, and a handler for SIGTRAP waits for it at one instruction before it
// has become this thread's. Result: whether there are so many.
bool closeAndComeAt(unsigned int instruction) {
    const unsigned int found = gateWord();
    unsigned int passed = 0;
    bool came = false;
    const auto closeAndLook = [] {
        const SVGate gate;
        EXPECT_TRUE(SVGate::closedByThisThreadQ());
        EXPECT_EQ(gateWord(), static_cast<unsigned int>(gettid()));
    };
    step(closeAndLook, [&](const Standing& standing) {
        // They are held back from the constructor's beginning.
        came = gateWord() == found && sigismember(&standing.heldBack, SIGUSR1) == 1 &&
               passed++ == instruction;
        if (came) {
            SVGate::waitUntilOpen();
        }
        return gateWord() == found;
    });
    return came;
}

TEST_F(GateTest, IsTakenByOneOfTwoWhoFindItClosedInAChildAtTheSameInstant) {
    SKIP_WITHOUT_STEPS();
    const ClosedByAnother closed;
    const ChildEnd end = inChild([] {
        const unsigned int found = gateWord();
        unsigned int instruction = 0;
        while (closeAndComeAt(instruction) && !testing::Test::HasFailure()) {
            EXPECT_TRUE(SVGate::openQ());
            EXPECT_EQ(gateWord(), 0U);
            *memberOf(GateWord()) = found;
            ++instruction;
        }
        EXPECT_GT(instruction, 10U);
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

// What fork() runs in the child, for those who have asked for it.
TEST_F(GateTest, IsOpenedInAChildAtOnceIfAnotherThreadHadClosedIt) {
    const ClosedByAnother closed;
    const ChildEnd end = inChild([] {
        SVGate::goOnInChild();
        EXPECT_TRUE(SVGate::openQ());
        EXPECT_EQ(gateWord(), 0U);
        closeAndOpen();
        EXPECT_TRUE(SVGate::openQ());
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

#if defined(__x86_64__) || defined(__i386__)

// Whoever could take the word of a closed gate would go on waiting for somebody to open it.
void lookForAClosedGateOfNobody(int) {
    ++steps;
    stepsNotOpen += gateWord() == 0 && !SVGate::openQ() ? 1U : 0U;
}

TEST_F(GateTest, IsOpenedInAChildBeforeItsWordIsFree) {
    if (builtWithThreadSanitizer || underValgrindQ()) {
        GTEST_SKIP() << "there is no trap flag here, or the signal comes later";
    }
    const ClosedByAnother closed;
    const ChildEnd end = inChild([] {
        hostInstalls(SIGTRAP, lookForAClosedGateOfNobody);
        {
            const SingleSteps stepping;
            SVGate::goOnInChild();
        }
        EXPECT_GT(steps, 20U);
        EXPECT_EQ(stepsNotOpen, 0U);
        EXPECT_TRUE(SVGate::openQ());
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

#endif

TEST_F(GateTest, StaysClosedInAChildIfItsOwnThreadHadClosedIt) {
    const ChildEnd end = inChild([] {
        const SVGate gate;
        const ChildEnd inner = inChild([] {
            SVGate::goOnInChild();
            EXPECT_TRUE(SVGate::closedByThisThreadQ());
            EXPECT_EQ(gateWord(), static_cast<unsigned int>(gettid()));
            // Nobody waits for it: it ends with the process.
            const auto* const other = new GateWaiter(&closeAndOpen);
            other->waitUntilAsleep();
            EXPECT_FALSE(other->doneQ());
        });
        EXPECT_TRUE(inner.wentOnQ()) << inner;
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

}  // namespace
