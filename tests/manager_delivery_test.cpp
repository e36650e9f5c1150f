// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Signals that really arrive: from every source, on any thread, and from faults.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>
#include <sys/time.h>
#include <ucontext.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "support/child_process.h"
#include "support/emulation.h"
#include "support/faults.h"
#include "support/gate.h"
#include "support/joining_thread.h"
#include "support/manager_fixture.h"
#include "support/sanitizers.h"
#include "support/single_steps.h"

namespace {

constexpr int sentValue = 4711;

sigval valueToSend() {
    sigval value = {};
    value.sival_int = sentValue;
    return value;
}

// --- Every source, every previous action -------------------------------------------------------

void raiseIt(int signalNumber) {
    raise(signalNumber);
}

void killOneself(int signalNumber) {
    kill(getpid(), signalNumber);
}

void killFromAnotherProcess(int signalNumber) {
    const pid_t receiver = getpid();
    EXPECT_TRUE(inChild([=] { EXPECT_EQ(kill(receiver, signalNumber), 0); }).wentOnQ());
}

void queueWithAValue(int signalNumber) {
    EXPECT_EQ(sigqueue(getpid(), signalNumber, valueToSend()), 0);
}

void startTimer(int signalNumber) {
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = signalNumber;
    event.sigev_value = valueToSend();
    timer_t timer = {};
    ASSERT_EQ(timer_create(CLOCK_MONOTONIC, &event, &timer), 0);
    itimerspec soon = {};
    soon.it_value.tv_nsec = 1;
    ASSERT_EQ(timer_settime(timer, 0, &soon, nullptr), 0);
}

struct Source {
    const char* name;
    void (*send)(int signalNumber);
    int code;  ///< what the operating system says of it in si_code
};

constexpr Source sources[] = {{"Raise", raiseIt, SI_TKILL},
                              {"Kill", killOneself, SI_USER},
                              {"KillFromAnotherProcess", killFromAnotherProcess, SI_USER},
                              {"Sigqueue", queueWithAValue, SI_QUEUE},
                              {"Timer", startTimer, SI_TIMER}};

struct Before {
    const char* name;
    void (*install)(int signalNumber);
    void* function;  ///< of the host's handler that is to be called; null for none
};

const Before befores[] = {
    {"Default", [](int signalNumber) { hostInstalls(signalNumber, SIG_DFL); }, nullptr},
    {"Ignored", [](int signalNumber) { hostInstalls(signalNumber, SIG_IGN); }, nullptr},
    {"HostHandler", [](int signalNumber) { hostInstalls(signalNumber, hostHandler); },
     addressOf(hostHandler)},
    {"HostInformationHandler",
     [](int signalNumber) { hostInstalls(signalNumber, hostInformationHandler); },
     addressOf(hostInformationHandler)}};

using MatrixCase = std::tuple<int, Before, Source>;

class DeliveryMatrix : public ManagerTest, public ::testing::WithParamInterface<MatrixCase> {};

INSTANTIATE_TEST_SUITE_P(
    Every, DeliveryMatrix,
    ::testing::Combine(::testing::Values(SIGINT, SIGILL, SIGPIPE, SIGTERM, 34, 60),
                       ::testing::ValuesIn(befores), ::testing::ValuesIn(sources)),
    [](const auto& tested) {
        return nameForTest(std::get<0>(tested.param)) + "After" + std::get<1>(tested.param).name +
               "By" + std::get<2>(tested.param).name;
    });

TEST_P(DeliveryMatrix, ReachesUserAndHostWithItsInformationAndStaysTakenOver) {
    const auto& [signalNumber, before, source] = GetParam();
    if (emulated && signalNumber == SIGILL) {
        GTEST_SKIP() << "the emulator itself may end when it is sent a SIGILL";
    }
    if (underValgrindQ() && signalNumber == SIGILL) {
        GTEST_SKIP() << "valgrind delivers a SIGILL also while it is blocked";
    }
    before.install(signalNumber);
    Manager manager(true);
    manager.setHandlerFromFunction(signalNumber, userInformationHandler);
    manager.startHandlingSignals();
    {
        const BlockedSignals blocked({signalNumber});
        source.send(signalNumber);
        blocked.waitForHandler();
    }
    EXPECT_EQ(callCount(), before.function == nullptr ? 1U : 2U);
    EXPECT_EQ(callsOf(userInformationHandler), 1U);
    EXPECT_EQ(callsOfAddress(before.function), before.function == nullptr ? 0U : 1U);
    for (std::size_t i = 0; i < callCount(); ++i) {
        const HandlerCall& call = callAt(i);
        EXPECT_EQ(call.signalNumber, signalNumber);
        if (call.function != addressOf(hostHandler)) {
            EXPECT_EQ(call.informationCopy.si_signo, signalNumber);
            EXPECT_EQ(call.informationCopy.si_code, source.code);
            EXPECT_NE(call.context, nullptr);
        }
    }
    EXPECT_TRUE(takenOverQ(signalNumber));
    EXPECT_EQ(Manager::numberOfManagers, 1U);
}

// --- Information and context -------------------------------------------------------------------

// An alternate stack for the handlers of the calling thread, for the length of a scope.
class AlternateStack {
public:
    AlternateStack() : m_memory(static_cast<std::size_t>(SIGSTKSZ) * 8) {
        stack_t wanted = {};
        wanted.ss_sp = m_memory.data();
        wanted.ss_size = m_memory.size();
        EXPECT_EQ(sigaltstack(&wanted, &m_former), 0);
    }
    AlternateStack(const AlternateStack&) = delete;
    AlternateStack& operator=(const AlternateStack&) = delete;
    ~AlternateStack() { sigaltstack(&m_former, nullptr); }

    bool containsQ(const void* place) const {
        const std::less<const void*> before;
        return !before(place, m_memory.data()) && before(place, m_memory.data() + m_memory.size());
    }

private:
    std::vector<char> m_memory;
    stack_t m_former = {};
};

class Delivery : public ManagerTest {};

TEST_F(Delivery, OfAKillTellsTheSender) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userInformationHandler);
    manager.startHandlingSignals();
    const BlockedSignals blocked({SIGUSR1});
    const pid_t receiver = getpid();
    ChildProcess sender([=] { EXPECT_EQ(kill(receiver, SIGUSR1), 0); });
    blocked.waitForHandler();
    EXPECT_TRUE(sender.wait().wentOnQ());
    ASSERT_EQ(callCount(), 1U);
    EXPECT_EQ(lastCall().informationCopy.si_pid, sender.pid());
    EXPECT_EQ(lastCall().informationCopy.si_uid, getuid());
}

TEST_F(Delivery, OfAQueuedSignalTellsTheValueAndTheSender) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userInformationHandler);
    manager.startHandlingSignals();
    const BlockedSignals blocked({SIGUSR1});
    const pid_t receiver = getpid();
    ChildProcess sender([=] { EXPECT_EQ(sigqueue(receiver, SIGUSR1, valueToSend()), 0); });
    blocked.waitForHandler();
    EXPECT_TRUE(sender.wait().wentOnQ());
    ASSERT_EQ(callCount(), 1U);
    EXPECT_EQ(lastCall().informationCopy.si_code, SI_QUEUE);
    EXPECT_EQ(lastCall().informationCopy.si_value.sival_int, sentValue);
    EXPECT_EQ(lastCall().informationCopy.si_pid, sender.pid());
}

TEST_F(Delivery, OfQueuedRealTimeSignalsKeepsTheirNumberOrderAndValues) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer keeps one of several equal signals";
    }
    constexpr int count = 20;
    Manager manager(true);
    manager.setHandlerFromFunction(SIGRTMIN + 1, userInformationHandler);
    manager.startHandlingSignals();
    {
        const BlockedSignals blocked({SIGRTMIN + 1});
        for (int i = 0; i < count; ++i) {
            sigval value = {};
            value.sival_int = i;
            ASSERT_EQ(sigqueue(getpid(), SIGRTMIN + 1, value), 0);
        }
        EXPECT_EQ(callCount(), 0U);
    }
    ASSERT_EQ(callCount(), static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ(callAt(static_cast<std::size_t>(i)).informationCopy.si_value.sival_int, i);
    }
}

TEST_F(Delivery, OfAnIntervalTimerComesRepeatedly) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGALRM, userHandler);
    manager.startHandlingSignals();
    const BlockedSignals blocked({SIGALRM});
    itimerval everyMillisecond = {};
    everyMillisecond.it_value.tv_usec = 1000;
    everyMillisecond.it_interval.tv_usec = 1000;
    ASSERT_EQ(setitimer(ITIMER_REAL, &everyMillisecond, nullptr), 0);
    while (callCount() < 5) {
        blocked.waitForHandler();
    }
    const itimerval off = {};
    ASSERT_EQ(setitimer(ITIMER_REAL, &off, nullptr), 0);
    EXPECT_EQ(lastCall().signalNumber, SIGALRM);
    EXPECT_EQ(Manager::numberOfManagers, 1U);
}

TEST_F(Delivery, OfAPosixTimerTellsItsValue) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR2, userInformationHandler);
    manager.startHandlingSignals();
    const BlockedSignals blocked({SIGUSR2});
    startTimer(SIGUSR2);
    blocked.waitForHandler();
    ASSERT_EQ(callCount(), 1U);
    EXPECT_EQ(lastCall().informationCopy.si_code, SI_TIMER);
    EXPECT_EQ(lastCall().informationCopy.si_value.sival_int, sentValue);
}

TEST_F(Delivery, OfAChildsEndTellsItsStatus) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGCHLD, userInformationHandler);
    manager.startHandlingSignals();
    const BlockedSignals blocked({SIGCHLD});
    ChildProcess child([] { _exit(7); });
    blocked.waitForHandler();
    EXPECT_TRUE(child.wait().exitedWithQ(7));
    ASSERT_EQ(callCount(), 1U);
    EXPECT_EQ(lastCall().informationCopy.si_code, CLD_EXITED);
    EXPECT_EQ(lastCall().informationCopy.si_pid, child.pid());
    EXPECT_EQ(lastCall().informationCopy.si_status, 7);
}

TEST_F(Delivery, OfAWriteThatNobodyReadsLeavesTheWriteToFail) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGPIPE, userHandler);
    manager.startHandlingSignals();
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    EXPECT_EQ(write(ends[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(callsOf(userHandler), 1U);
    close(ends[1]);
}

// The alternate stack shows whose information and context the handlers get: the kernel put them
// there, and a copy that the library made would lie elsewhere, or be another for each handler.
TEST_F(Delivery, HandsEveryHandlerTheKernelsOwnInformationAndContext) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer hands on copies of its own";
    }
    hostInstalls(SIGUSR1, hostInformationHandler);
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userInformationHandler);
    manager.startHandlingSignals();
    const AlternateStack alternate;
    raise(SIGUSR1);
    ASSERT_EQ(callCount(), 2U);
    EXPECT_EQ(callAt(0).information, callAt(1).information);
    EXPECT_EQ(callAt(0).context, callAt(1).context);
    EXPECT_TRUE(alternate.containsQ(lastCall().information));
    EXPECT_TRUE(alternate.containsQ(lastCall().context));
}

std::atomic<bool> contextHadUser2Blocked = false;
std::atomic<bool> contextHadTermBlocked = true;

void handlerThatReadsTheMask(int, siginfo*, void* context) {
    const sigset_t& mask = static_cast<const ucontext_t*>(context)->uc_sigmask;
    contextHadUser2Blocked = sigismember(&mask, SIGUSR2) == 1;
    contextHadTermBlocked = sigismember(&mask, SIGTERM) == 1;
}

TEST_F(Delivery, ContextTellsTheInterruptedMask) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, handlerThatReadsTheMask);
    manager.startHandlingSignals();
    const BlockedSignals blocked({SIGUSR2});
    raise(SIGUSR1);
    EXPECT_TRUE(contextHadUser2Blocked);
    EXPECT_FALSE(contextHadTermBlocked);
}

#if defined(__x86_64__) || defined(__i386__)

void handlerThatSkipsTheInstruction(int signalNumber, siginfo* information, void* context) {
    noteCall(addressOf(&handlerThatSkipsTheInstruction), signalNumber, information, context);
#if defined(__x86_64__)
    constexpr int instructionPointer = REG_RIP;
#else
    constexpr int instructionPointer = REG_EIP;
#endif
    constexpr int lengthOfInstruction = 2;
    static_cast<ucontext_t*>(context)->uc_mcontext.gregs[instructionPointer] += lengthOfInstruction;
}

// An illegal instruction is no reason to end the process, and the context is the real one: what a
// handler changes there is what the thread goes on with.
TEST_F(Delivery, HandlerOfAnIllegalInstructionMayMoveTheThreadOn) {
    if (underValgrindQ()) {
        GTEST_SKIP() << "valgrind's own signal tells another reason";
    }
    Manager manager(true);
    manager.setHandlerFromFunction(SIGILL, handlerThatSkipsTheInstruction);
    manager.startHandlingSignals();
    asm volatile("ud2");
    ASSERT_EQ(callCount(), 1U);
    EXPECT_EQ(lastCall().informationCopy.si_code, ILL_ILLOPN);
    EXPECT_TRUE(takenOverQ(SIGILL));
}

#endif

// --- Faults ------------------------------------------------------------------------------------

class Fault : public ManagerTest {};

void* volatile nowhere = nullptr;

TEST_F(Fault, NullWriteCallsTheRegisteredHandlersAndEndsTheProcessWithStatusZero) {
    const ChildEnd end = inChild([] {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGSEGV, userInformationHandler);
        manager.startHandlingSignals();
        writeTo(nowhere);
    });
    EXPECT_TRUE(end.exitedWithQ(0)) << end;
    ASSERT_EQ(callCount(), 1U);
    EXPECT_EQ(lastCall().informationCopy.si_code, SEGV_MAPERR);
    EXPECT_EQ(lastCall().informationCopy.si_addr, nullptr);
}

TEST_F(Fault, CutOffFileCallsTheRegisteredHandlersAndEndsTheProcessWithStatusZero) {
    const TruncatedFile file;
    const ChildEnd end = inChild([&file] {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGBUS, userInformationHandler);
        manager.startHandlingSignals();
        readFrom(file.address());
    });
    EXPECT_TRUE(end.exitedWithQ(0)) << end;
    ASSERT_EQ(callCount(), 1U);
    EXPECT_EQ(lastCall().informationCopy.si_code, BUS_ADRERR);
    EXPECT_EQ(lastCall().informationCopy.si_addr, file.address());
}

TEST_F(Fault, HangUpFromAnotherProcessCallsTheRegisteredHandlersAndEndsTheProcessWithStatusZero) {
    Gate ready;
    ChildProcess child([&ready] {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGHUP, userInformationHandler);
        manager.startHandlingSignals();
        const BlockedSignals blocked({SIGHUP});
        ready.open();
        blocked.waitForHandler();
    });
    ready.pass();
    ASSERT_EQ(kill(child.pid(), SIGHUP), 0);
    const ChildEnd end = child.wait();
    EXPECT_TRUE(end.exitedWithQ(0)) << end;
    ASSERT_EQ(callCount(), 1U);
    EXPECT_EQ(lastCall().informationCopy.si_pid, getpid());
}

const ClosedPage* closedPage = nullptr;

void handlerThatOpensThePage(int signalNumber, siginfo* information, void* context) {
    noteCall(addressOf(&handlerThatOpensThePage), signalNumber, information, context);
    closedPage->open();
}

TEST_F(Fault, HostHandlerThatRepairsTheMemoryLetsTheProcessGoOnEachTime) {
    const ClosedPage page;
    closedPage = &page;
    hostInstalls(SIGSEGV, handlerThatOpensThePage);
    Manager manager(true);
    manager.setHandlerFromFunction(SIGSEGV, userHandler);
    manager.startHandlingSignals();
    for (int i = 0; i < 3; ++i) {
        page.close();
        writeTo(page.address());
        EXPECT_EQ(readFrom(page.address()), 1);
    }
    EXPECT_EQ(callsOf(handlerThatOpensThePage), 3U);
    EXPECT_EQ(callsOf(userHandler), 0U);
    EXPECT_EQ(lastCall().informationCopy.si_code, SEGV_ACCERR);
    EXPECT_EQ(lastCall().informationCopy.si_addr, page.address());
    EXPECT_TRUE(takenOverQ(SIGSEGV));
    EXPECT_EQ(Manager::numberOfManagers, 1U);
}

const TruncatedFile* truncatedFile = nullptr;

void handlerThatLengthensTheFile(int signalNumber, siginfo* information, void* context) {
    noteCall(addressOf(&handlerThatLengthensTheFile), signalNumber, information, context);
    truncatedFile->lengthen();
}

TEST_F(Fault, HostHandlerThatRepairsTheFileLetsTheProcessGoOn) {
    const TruncatedFile file;
    truncatedFile = &file;
    hostInstalls(SIGBUS, handlerThatLengthensTheFile);
    Manager manager(true);
    manager.setHandlerFromFunction(SIGBUS, userHandler);
    manager.startHandlingSignals();
    EXPECT_EQ(readFrom(file.address()), 0);
    EXPECT_EQ(callsOf(handlerThatLengthensTheFile), 1U);
    EXPECT_EQ(callsOf(userHandler), 0U);
    EXPECT_TRUE(takenOverQ(SIGBUS));
}

// A thread without a stack left can only be served on another one.
TEST_F(Fault, StackOverflowIsHandledOnTheAlternateStack) {
    const ChildEnd end = inChild([] {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGSEGV, userHandler);
        manager.startHandlingSignals();
        std::thread([] {
            const AlternateStack alternate;
            overflowStack();
        }).join();
    });
    EXPECT_TRUE(end.exitedWithQ(0)) << end;
    EXPECT_EQ(callsOf(userHandler), 1U);
}

sigjmp_buf recovery;

void handlerThatRecovers(int signalNumber) {
    noteCall(addressOf(&handlerThatRecovers), signalNumber);
    siglongjmp(recovery, 1);
}

bool recoversFromNullWriteQ() {
    if (sigsetjmp(recovery, 1) != 0) {
        return true;
    }
    writeTo(nowhere);
    return false;
}

// In a child, because what the jumps leave behind stays for good.
TEST_F(Fault, HandlerThatLeavesByALongJumpSurvivesAFaultThatWouldBeFatal) {
    const ChildEnd end = inChild([] {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGSEGV, handlerThatRecovers);
        manager.startHandlingSignals();
        EXPECT_TRUE(recoversFromNullWriteQ());
        EXPECT_TRUE(recoversFromNullWriteQ());
        EXPECT_TRUE(takenOverQ(SIGSEGV));
        EXPECT_EQ(Manager::numberOfManagers, 3U) << "each skipped the end of a dispatch's manager";
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
    EXPECT_EQ(callsOf(handlerThatRecovers), 2U);
}

// --- Threads -----------------------------------------------------------------------------------

TEST_F(Delivery, RunsOnTheThreadThatTheSignalIsSentTo) {
    constexpr std::size_t threadCount = 4;
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    std::vector<pid_t> identities(threadCount);
    for (std::size_t i = 0; i < threadCount; ++i) {
        std::thread([&identities, i] {
            identities[i] = gettid();
            pthread_kill(pthread_self(), SIGUSR1);
        }).join();
    }
    ASSERT_EQ(callCount(), threadCount);
    for (std::size_t i = 0; i < threadCount; ++i) {
        EXPECT_EQ(callAt(i).thread, identities[i]);
    }
}

TEST_F(Delivery, OnManyThreadsAtOnceIsDispatchedOnEachAndLeavesNoManagerBehind) {
    constexpr int threadCount = 4;
    constexpr int signalsEach = 200;
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    {
        std::vector<JoiningThread> threads;
        for (int i = 0; i < threadCount; ++i) {
            threads.emplace_back([] {
                for (int sent = 0; sent < signalsEach; ++sent) {
                    raise(SIGUSR1);
                }
            });
        }
    }
    EXPECT_EQ(callCount(), static_cast<std::size_t>(threadCount) * signalsEach);
    EXPECT_EQ(Manager::numberOfManagers, 1U);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
}

TEST_F(Delivery, NeverWaitsForTheLockThatAnotherThreadHolds) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, userHandler);
    manager.startHandlingSignals();
    Gate held;
    Gate done;
    JoiningThread holder([&] {
        Manager::handlerTableLock->lock();
        held.open();
        done.pass();
        Manager::handlerTableLock->unlock();
    });
    held.pass();
    raise(SIGUSR1);
    EXPECT_EQ(callsOf(userHandler), 1U);
    done.open();
}

// --- At every instruction ----------------------------------------------------------------------

#if defined(__x86_64__) || defined(__i386__)

constexpr std::size_t countedHandlerCount = 24;
std::atomic<unsigned int> countedCalls[countedHandlerCount];

template <std::size_t number>
void countedHandler(int) {
    countedCalls[number].fetch_add(1);
}

template <std::size_t... numbers>
constexpr std::array<SimpleHandler, sizeof...(numbers)> makeCountedHandlers(
    std::index_sequence<numbers...>) {
    return {&countedHandler<numbers>...};
}

constexpr std::array<SimpleHandler, countedHandlerCount> countedHandlers =
    makeCountedHandlers(std::make_index_sequence<countedHandlerCount>());

class AtEveryInstruction : public OneManagerTest {
protected:
    void SetUp() override {
        if (builtWithThreadSanitizer) {
            GTEST_SKIP()
                << "ThreadSanitizer's own code, which is stepped through, is not re-entrant";
        }
        if (underValgrindQ()) {
            GTEST_SKIP() << "valgrind has no trap flag";
        }
        m_manager.startHandlingSignals();
        for (auto& calls : countedCalls) {
            calls = 0;
        }
    }
    ~AtEveryInstruction() noexcept override = default;
};

// Each arrival finds the registry before the change or after it, and never in between; also when
// the table grows, as it does with the sixth record and with the twenty-second.
TEST_F(AtEveryInstruction, OfARegistrationForTheVerySignalTheOtherHandlersAreCalledEachTime) {
    m_manager.setHandlerFromFunction(SIGTRAP, countedHandlers.at(0));
    m_manager.setHandlerFromFunction(SIGTRAP, countedHandlers.at(1));
    for (std::size_t i = 2; i < countedHandlerCount; ++i) {
        const unsigned int before = countedCalls[0];
        {
            const SingleSteps steps;
            m_manager.setHandlerFromFunction(SIGTRAP, countedHandlers.at(i));
        }
        EXPECT_GT(countedCalls[0], before + 100) << "hardly a signal arrived";
        EXPECT_EQ(countedCalls[1], countedCalls[0]);
        EXPECT_GT(countedCalls[i], 0U);
        EXPECT_LT(countedCalls[i], countedCalls[i - 1]);
        EXPECT_EQ(recordCount(SIGTRAP), i + 1);
    }
    EXPECT_GT(tableOf(SIGTRAP)->mask, 31U);
    EXPECT_EQ(Manager::numberOfManagers, 1U);
}

// With the sixth of them the outer table grows.
TEST_F(AtEveryInstruction, OfRegistrationsForOtherSignalsItsHandlersAreFound) {
    m_manager.setHandlerFromFunction(SIGTRAP, countedHandlers.at(0));
    m_manager.setHandlerFromFunction(SIGTRAP, countedHandlers.at(1));
    {
        const SingleSteps steps;
        for (const int signalNumber : {SIGINT, SIGQUIT, SIGUSR1, SIGUSR2, SIGALRM, SIGTERM}) {
            m_manager.setHandlerFromFunction(signalNumber, userHandler);
        }
    }
    EXPECT_GT(countedCalls[0], 1000U);
    EXPECT_EQ(countedCalls[1], countedCalls[0]);
    EXPECT_EQ(Manager::handlerTables->used, 7U);
    EXPECT_EQ(callCount(), 0U);
}

TEST_F(AtEveryInstruction, OfAClearingTheClearedHandlerIsCalledOrNotAndTheOthersAre) {
    m_manager.setHandlerFromFunction(SIGTRAP, countedHandlers.at(0));
    m_manager.setHandlerFromFunction(SIGTRAP, countedHandlers.at(1));
    {
        const SingleSteps steps;
        m_manager.clearHandlerWithFunction(SIGTRAP, countedHandlers.at(1));
    }
    EXPECT_GT(countedCalls[1], 0U);
    EXPECT_GT(countedCalls[0], countedCalls[1]);
}

// An invalid record, never called, that takes a slot of the table that was not used yet.
Record fillerForUnusedSlot() {
    const HandlerTable& table = *tableOf(SIGTRAP);
    std::uintptr_t address = 0x10000;
    const auto used = [&table](std::uintptr_t candidate) {
        void* const key = reinterpret_cast<void*>(candidate);
        return table.lookup(key, table.hashFunction(key))->state != Sorvane::svslotEmpty;
    };
    while (used(address)) {
        ++address;
    }
    return Record(SIGTRAP, reinterpret_cast<SimpleHandler>(address), false, false, false);
}

// Clears handlers in the reverse of the order in which a table that grew has them, so that none
// gets hidden behind another's slot.
void clearInReverse(Manager& manager, const std::vector<SimpleHandler>& handlers) {
    HandlerTable beforeItGrew;
    for (const SimpleHandler handler : handlers) {
        beforeItGrew.insert_helper(addressOf(handler), userRecord(SIGTRAP, handler));
    }
    for (unsigned int slot = beforeItGrew.mask + 1; slot-- > 0;) {
        Record record(beforeItGrew.table[slot].value);
        manager.clearHandler(record);
    }
}

// Inline slots may still hold what lay there when the table grew.
TEST_F(AtEveryInstruction, OfARegistrationThatShrinksTheTableNoHandlerThatWasClearedIsCalled) {
    const std::vector<SimpleHandler> cleared(countedHandlers.begin(), countedHandlers.begin() + 6);
    for (const SimpleHandler handler : cleared) {
        m_manager.setHandlerFromFunction(SIGTRAP, handler);
    }
    ASSERT_EQ(tableOf(SIGTRAP)->mask, 31U);
    clearInReverse(m_manager, cleared);
    ASSERT_EQ(recordCount(SIGTRAP), 0U);
    while (tableOf(SIGTRAP)->fill < 21) {
        Record filler = fillerForUnusedSlot();
        m_manager.setHandler(filler);
        m_manager.clearHandler(filler);
    }
    for (auto& calls : countedCalls) {
        calls = 0;
    }
    Record last = fillerForUnusedSlot();
    {
        const SingleSteps steps;
        m_manager.setHandler(last);
    }
    ASSERT_EQ(tableOf(SIGTRAP)->mask, 7U);
    for (const auto& calls : countedCalls) {
        EXPECT_EQ(calls, 0U);
    }
}

#endif

// --- What a delivery leaves as it was, and what not --------------------------------------------

void handlerThatReplacesTheAction(int signalNumber) {
    noteCall(addressOf(&handlerThatReplacesTheAction), signalNumber);
    std::signal(signalNumber, SIG_DFL);
}

TEST_F(Delivery, InstallsTheManagersHandlerAgainAfterAHandlerReplacedIt) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, handlerThatReplacesTheAction);
    manager.startHandlingSignals();
    raise(SIGUSR1);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    raise(SIGUSR1);
    EXPECT_EQ(callsOf(handlerThatReplacesTheAction), 2U);
    EXPECT_EQ(recordCount(SIGUSR1), 1U) << "the action that was replaced is kept nowhere";
}

TEST_F(Delivery, InstallsTheManagersHandlerAgainAfterAHostsReplacedItOfAFatalSignal) {
    for (const int signalNumber : {SIGSEGV, SIGBUS, SIGHUP}) {
        hostInstalls(signalNumber, handlerThatReplacesTheAction);
        Manager manager(true);
        manager.handleSignal(signalNumber);
        raise(signalNumber);
        EXPECT_TRUE(takenOverQ(signalNumber)) << signalNumber;
        manager.stopHandlingSignal(signalNumber);
    }
    EXPECT_EQ(callsOf(handlerThatReplacesTheAction), 3U);
}

void handlerThatInstallsTheHosts(int signalNumber) {
    std::signal(signalNumber, hostHandler);
}

TEST_F(Delivery, ForgetsTheActionThatAHandlerInstalled) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, handlerThatInstallsTheHosts);
    manager.startHandlingSignals();
    raise(SIGUSR1);
    raise(SIGUSR1);
    EXPECT_EQ(callsOf(hostHandler), 0U);
    EXPECT_EQ(recordOf(SIGUSR1, hostHandler), nullptr);
    manager.stopHandlingSignal(SIGUSR1);
    EXPECT_TRUE(ignoredInSystemQ(SIGUSR1));
}

void handlerThatChangesErrno(int) {
    errno = EDOM;
}

TEST_F(Delivery, LeavesErrnoAloneWhateverTheHandlersDo) {
    hostInstalls(SIGUSR1, handlerThatChangesErrno);
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, handlerThatChangesErrno);
    manager.setHandlerFromFunction(SIGUSR2, handlerThatChangesErrno);
    manager.startHandlingSignals();
    errno = ERANGE;
    raise(SIGUSR1);
    EXPECT_EQ(errno, ERANGE);
    errno = 0;
    actualSignalHandler(SIGUSR2, nullptr, nullptr);
    EXPECT_EQ(errno, 0);
}

TEST_F(Delivery, LeavesErrnoAloneWhenTheNewInstallationFails) {
    const Manager manager(true);
    errno = ERANGE;
    EXPECT_THROW(actualSignalHandler(SIGKILL, nullptr, nullptr), Sorvane::SVException);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(Manager::numberOfManagers, 1U);
}

struct Thrown {};

void handlerThatThrows(int signalNumber) {
    noteCall(addressOf(&handlerThatThrows), signalNumber);
    throw Thrown();
}

TEST_F(Delivery, ExceptionOfAHandlerLeavesTheCallWithNoManagerLeftAndNothingInstalled) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, handlerThatThrows);
    manager.startHandlingSignals();
    hostInstalls(SIGUSR1, hostHandler);
    errno = ERANGE;
    EXPECT_THROW(actualSignalHandler(SIGUSR1, nullptr, nullptr), Thrown);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(Manager::numberOfManagers, 1U);
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler)) << "the exception left before that";
}

// The C library declares raise() as not throwing, and a call of it as such has no way out for an
// exception. Through this pointer it is a call like any other.
int (*volatile raiseThatMayThrow)(int) = raise;

TEST_F(Delivery, ExceptionOfAHandlerLeavesARealDeliveryTowardsTheInterruptedCode) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer's own handler, which calls this one, is not unwound";
    }
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, handlerThatThrows);
    manager.startHandlingSignals();
    // The signal stays blocked, for its handler never returns.
    const BlockedSignals restoredAtTheEnd({});
    EXPECT_THROW(raiseThatMayThrow(SIGUSR1), Thrown);
    EXPECT_EQ(callsOf(handlerThatThrows), 1U);
    EXPECT_EQ(Manager::numberOfManagers, 1U);
    EXPECT_TRUE(takenOverQ(SIGUSR1));
}

std::atomic<int> handlersInside = 0;
std::atomic<bool> handlersOverlapped = false;

void handlerThatRaisesItsOwnSignalOnce(int signalNumber) {
    if (handlersInside.fetch_add(1) > 0) {
        handlersOverlapped = true;
    }
    noteCall(addressOf(&handlerThatRaisesItsOwnSignalOnce), signalNumber);
    if (callCount() == 1) {
        raise(signalNumber);
    }
    handlersInside.fetch_sub(1);
}

TEST_F(Delivery, OfASignalWhileItIsDispatchedWaitsForTheEndOfThatDispatch) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, handlerThatRaisesItsOwnSignalOnce);
    manager.startHandlingSignals();
    raise(SIGUSR1);
    EXPECT_EQ(callCount(), 2U);
    EXPECT_FALSE(handlersOverlapped);
    EXPECT_EQ(callAt(1).managers, 2U);
}

int bytesToRead[2];

void handlerThatWritesTheByte(int signalNumber) {
    noteCall(addressOf(&handlerThatWritesTheByte), signalNumber);
    if (write(bytesToRead[1], "x", 1) != 1) {
        std::abort();
    }
}

// The byte comes from the handler alone, so the signal arrives either before the read or, as the
// timer makes likely, within it. The read is to succeed both times.
TEST_F(Delivery, DoesNotTearUpTheHostsSystemCalls) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer lets no handler run before the system call is over";
    }
    ASSERT_EQ(pipe(bytesToRead), 0);
    Manager manager(true);
    manager.setHandlerFromFunction(SIGALRM, handlerThatWritesTheByte);
    manager.startHandlingSignals();
    itimerval soon = {};
    soon.it_value.tv_usec = 20000;
    ASSERT_EQ(setitimer(ITIMER_REAL, &soon, nullptr), 0);
    char byte = 0;
    EXPECT_EQ(read(bytesToRead[0], &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(callCount(), 1U);
    close(bytesToRead[0]);
    close(bytesToRead[1]);
}

TEST_F(Delivery, OfASignalWhoseRecordsWereAllClearedCallsNothingAndTheProcessGoesOn) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGTERM, userHandler);
    manager.startHandlingSignals();
    manager.clearHandlerWithFunction(SIGTERM, userHandler);
    raise(SIGTERM);
    EXPECT_EQ(callCount(), 0U);
    EXPECT_TRUE(takenOverQ(SIGTERM));
}

TEST_F(Delivery, ReachesAHandlerThatIsRegisteredWhileSignalsAreHandled) {
    Manager manager(true);
    manager.startHandlingSignals();
    manager.setHandlerFromFunction(SIGTERM, userHandler);
    raise(SIGTERM);
    EXPECT_EQ(callsOf(userHandler), 1U);
}

TEST_F(Delivery, GoesToTheHostAgainAfterAStop) {
    hostInstalls(SIGTERM, hostHandler);
    Manager manager(true);
    manager.setHandlerFromFunction(SIGTERM, userHandler);
    manager.startHandlingSignals();
    manager.stopHandlingSignals();
    raise(SIGTERM);
    EXPECT_EQ(callsOf(hostHandler), 1U);
    EXPECT_EQ(callsOf(userHandler), 0U);
}

TEST_F(Delivery, GoesToTheHostAgainAfterTheLastManager) {
    hostInstalls(SIGTERM, hostInformationHandler);
    {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGTERM, userHandler);
        manager.startHandlingSignals();
    }
    raise(SIGTERM);
    EXPECT_EQ(callsOf(hostInformationHandler), 1U);
    EXPECT_EQ(callsOf(userHandler), 0U);
}

}  // namespace
