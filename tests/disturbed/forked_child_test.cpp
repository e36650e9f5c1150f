// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A child made by fork(), whatever the threads of its parent were doing: it can use everything at
// once, managers that lock included, and counts only what lives in it.

#include <gnu/libc-version.h>
#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "disturbed/limited_child.h"
#include "disturbed/stretched_sigaction.h"
#include "disturbed/waiting.h"
#include "support/gate.h"
#include "support/gate_waiter.h"
#include "support/joining_thread.h"
#include "support/sanitizers.h"
#include "support/stepping.h"
#include "support/system_actions.h"
#include "support/system_call_filter.h"

namespace {

using Manager = Sorvane::SVSignalHandlerManager;
using When = StretchedSigaction::When;

// --- What a child does -------------------------------------------------------------------------

volatile unsigned int calls = 0;

void countCall(int) {
    calls = calls + 1;
}

// The first thing that went wrong, as the child's exit status. It may be found in a handler, where
// a test can't report.
enum Outcome {
    allRight = 0,
    notCalled = 101,
    calledTwice,
    notHandedBack,
    notTornDown,
    copied,
    miscounted,
    hung
};

int useEverything() {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR2, countCall);
    manager.startHandlingSignals();
    calls = 0;
    raise(SIGUSR2);
    if (calls != 1) {
        return calls == 0 ? notCalled : calledTwice;
    }
    manager.stopHandlingSignals();
    if (takenOverQ(SIGUSR2)) {
        return notHandedBack;
    }
    manager.clearHandlerWithFunction(SIGUSR2, countCall);
    return allRight;
}

// From another thread, to which a lock that is still held by the first one would not open.
int useEverythingOnAnotherThread() {
    int outcome = hung;
    JoiningThread([&outcome] { outcome = useEverything(); }).join();
    return outcome;
}

// --- Its parent --------------------------------------------------------------------------------

int outcomeOf(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// In a signal handler, too. What does not end ends with its parent.
template <typename Body>
int outcomeInForkedChild(Body body) {
    const pid_t child = fork();
    if (child == 0) {
        endWithParent();
        _exit(body());
    }
    return outcomeOf(child);
}

// Other threads, each of which does something again and again while one of these lives.
class Others {
public:
    explicit Others(std::initializer_list<std::function<void()>> bodies) {
        for (const auto& body : bodies) {
            m_threads.emplace_back([this, body] {
                while (!m_over) {
                    body();
                }
            });
        }
    }
    Others(const Others&) = delete;
    Others& operator=(const Others&) = delete;
    ~Others() { m_over = true; }

private:
    std::atomic<bool> m_over{false};
    std::vector<JoiningThread> m_threads;
};

void registerAndClear() {
    Manager manager(true);
    for (int signalNumber = SIGRTMIN; signalNumber < SIGRTMIN + 8; ++signalNumber) {
        manager.setHandlerFromFunction(signalNumber, countCall);
    }
    for (int signalNumber = SIGRTMIN; signalNumber < SIGRTMIN + 8; ++signalNumber) {
        manager.clearHandlerWithFunction(signalNumber, countCall);
    }
}

void startAndStop() {
    Manager manager(true);
    manager.startHandlingSignals();
    manager.stopHandlingSignals();
}

TEST(ForkedChild, WhileOtherThreadsRegisterStartAndStopCanUseEverything) {
    expectToGoOn([] {
        constexpr unsigned int children = 300;
        const Others others{registerAndClear, startAndStop};
        for (unsigned int i = 0; i < children; ++i) {
            ASSERT_EQ(outcomeInForkedChild(useEverything), allRight) << "of child " << i;
        }
    });
}

// Its parent's other thread is in the middle of a take-over.
int outcomeDuringATakeOver() {
    std::atomic<bool> installed{false};
    std::atomic<bool> over{false};
    JoiningThread takingOver([&] {
        const StretchedSigaction stretched(SIGUSR2, When::after, [&] {
            installed = true;
            waitUpTo(stretchedMoment, [&over] { return over.load(); });
        });
        Manager manager(true);
        manager.handleSignal(SIGUSR2);
    });
    waitUpTo(childPatience, [&installed] { return installed.load(); });
    const int outcome = outcomeInForkedChild(useEverything);
    over = true;
    return outcome;
}

TEST(ForkedChild, DuringATakeOverCanUseEverything) {
    expectToGoOn([] {
        constexpr unsigned int children = 20;
        for (unsigned int i = 0; i < children; ++i) {
            ASSERT_EQ(outcomeDuringATakeOver(), allRight) << "of child " << i;
        }
    });
}

TEST(ForkedChild, DuringATakeOverCanUseEverythingAlsoWhereNoThreadMayBeAskedFor) {
    SKIP_WITHOUT_SYSTEM_CALL_FILTERS();
    expectToGoOn([] {
        ASSERT_TRUE(refuseSystemCall(SYS_tgkill, {{2, true, 0}}, EPERM));
        ASSERT_EQ(outcomeDuringATakeOver(), allRight);
    });
}

// --- From inside a handler ---------------------------------------------------------------------

volatile int outcomeInHandler = allRight;
volatile unsigned int forks = 0;

constexpr unsigned int forksInHandlers = 100;

void forkInHandler(int) {
    if (outcomeInHandler == allRight) {
        outcomeInHandler = outcomeInForkedChild(useEverything);
        forks = forks + 1;
    }
}

bool allForkedQ() {
    return forks == forksInHandlers || outcomeInHandler != allRight;
}

void expectAllRightInHandlers() {
    EXPECT_EQ(outcomeInHandler, allRight);
    EXPECT_EQ(forks, forksInHandlers);
}

// One SIGALRM, another while from now each time.
void alarmSoon(unsigned int number) {
    itimerval soon = {};
    soon.it_value.tv_usec = static_cast<suseconds_t>(50 + number * 37 % 200);
    setitimer(ITIMER_REAL, &soon, nullptr);
}

// The handler interrupts whatever its thread does, with the lock held or not.
TEST(ForkedChild, OfAHandlerThatInterruptsAnOperationCanUseEverything) {
    expectToGoOn([] {
        Manager manager(true);
        hostInstalls(SIGALRM, forkInHandler, SA_RESTART);
        while (!allForkedQ()) {
            const unsigned int before = forks;
            alarmSoon(before);
            while (forks == before) {
                manager.setHandlerFromFunction(SIGWINCH, countCall);
                manager.startHandlingSignals();
                manager.clearHandlerWithFunction(SIGWINCH, countCall);
                manager.stopHandlingSignals();
            }
        }
        expectAllRightInHandlers();
    });
}

TEST(ForkedChild, OfADispatchedHandlerCanUseEverythingWhileAnotherThreadRegisters) {
    expectToGoOn([] {
        const Others others{registerAndClear};
        Manager manager(true);
        manager.setHandlerFromFunction(SIGUSR1, forkInHandler);
        manager.handleSignal(SIGUSR1);
        while (!allForkedQ()) {
            raise(SIGUSR1);
        }
        expectAllRightInHandlers();
    });
}

// The child goes on with what its thread was doing, and ends it.
pid_t forkedChild = -1;
int outcomeInside = -1;

void forkAndGoOn(int) {
    forkedChild = fork();
    if (forkedChild == 0) {
        endWithParent();
        outcomeInside = useEverything();
    }
}

// Result: as in the child; not that of the parent, which it is compared with.
int outcomeOfForkIn(const std::function<void()>& callTheHandler) {
    callTheHandler();
    if (forkedChild == 0) {
        _exit(outcomeInside != allRight ? outcomeInside : useEverythingOnAnotherThread());
    }
    return outcomeOf(forkedChild);
}

TEST(ForkedChild, OfAHandlerThatALockingManagerCallsCanUseEverythingThereAndAfterwards) {
    expectToGoOn([] {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGUSR1, forkAndGoOn);
        for (int i = 0; i < 20; ++i) {
            ASSERT_EQ(outcomeOfForkIn([&] { manager.callHandlers(SIGUSR1, nullptr, nullptr); }),
                      allRight);
        }
        EXPECT_EQ(useEverythingOnAnotherThread(), allRight);
    });
}

// A sanitizer's heap, which a new thread needs, can't be used if another thread was just using it.
TEST(ForkedChild, OfADispatchedHandlerCanUseEverythingThereAndAfterwards) {
    expectToGoOn([] {
        std::optional<Others> others;
        if (!builtWithAddressSanitizer) {
            others.emplace(std::initializer_list<std::function<void()>>{registerAndClear});
        }
        Manager manager(true);
        manager.setHandlerFromFunction(SIGUSR1, forkAndGoOn);
        manager.handleSignal(SIGUSR1);
        for (int i = 0; i < 20; ++i) {
            ASSERT_EQ(outcomeOfForkIn([] { raise(SIGUSR1); }), allRight);
        }
    });
}

// --- What is counted ---------------------------------------------------------------------------

Gate* entered = nullptr;
Gate* leave = nullptr;

void stayInHandler(int) {
    entered->open();
    leave->pass();
}

// The dispatch of a thread that is not there. Its manager would never go, and this one never be the
// last.
int lookAtCounts(Manager* manager) {
    if (Manager::numberOfManagers != 1) {
        return static_cast<int>(Manager::numberOfManagers);
    }
    manager->startHandlingSignals();
    delete manager;
    return Manager::numberOfManagers == 0 && Manager::handlerTables == nullptr ? allRight
                                                                               : notTornDown;
}

// Another thread is in a handler of SIGUSR1 while one of these lives.
class OtherInHandler {
public:
    explicit OtherInHandler(Manager& manager) {
        entered = &m_entered;
        leave = &m_leave;
        manager.setHandlerFromFunction(SIGUSR1, stayInHandler);
        manager.handleSignal(SIGUSR1);
        m_thread.emplace([] { raise(SIGUSR1); });
        m_entered.pass();
    }
    OtherInHandler(const OtherInHandler&) = delete;
    OtherInHandler& operator=(const OtherInHandler&) = delete;
    ~OtherInHandler() { m_leave.open(); }

private:
    Gate m_entered;
    Gate m_leave;
    std::optional<JoiningThread> m_thread;
};

TEST(ForkedChild, CountsNoDispatchOfAnotherThread) {
    expectToGoOn([] {
        auto* const manager = new Manager(true);
        {
            const OtherInHandler other(*manager);
            EXPECT_EQ(Manager::numberOfManagers, 2U);
            EXPECT_EQ(outcomeInForkedChild([manager] { return lookAtCounts(manager); }), allRight);
        }
        EXPECT_EQ(Manager::numberOfManagers, 1U);
        delete manager;
    });
}

// Nobody reads them in the child, so they need not be left as they are.
TEST(ForkedChild, ChangesTheTablesInPlaceThatAnotherThreadWasReading) {
    expectToGoOn([] {
        Manager manager(true);
        const OtherInHandler other(manager);
        EXPECT_EQ(outcomeInForkedChild([&manager] {
                      const auto* const before = Manager::handlerTables;
                      manager.setHandlerFromFunction(SIGUSR2, countCall);
                      return Manager::handlerTables == before ? allRight : copied;
                  }),
                  allRight);
    });
}

// A handler forks when it is let in again, among others.
TEST(ForkedChild, CountsTheManagersThatLiveWhicheverInstructionOfTheEndOfOneItComesAt) {
    SKIP_WITHOUT_STEPS();
    expectToGoOn([] {
        const Manager staying(true);
        std::optional<Manager> going(std::in_place, true);
        unsigned int forksDone = 0;
        unsigned int wrong = 0;
        step([&going] { going.reset(); },
             [&](const Standing& standing) {
                 if (sigismember(&standing.heldBack, SIGUSR1) == 0) {
                     const unsigned int managers = Manager::numberOfManagers;
                     ++forksDone;
                     wrong +=
                         outcomeInForkedChild([managers] {
                             return Manager::numberOfManagers == managers ? allRight : miscounted;
                         }) == allRight
                             ? 0U
                             : 1U;
                 }
                 return true;
             });
        EXPECT_GT(forksDone, 50U);
        EXPECT_EQ(wrong, 0U);
    });
}

// What is stored between the look at the managers and their count would be lost.
TEST(ForkedChild, CountsWithSignalsHeldBack) {
    SKIP_WITHOUT_STEPS();
    if (strverscmp(gnu_get_libc_version(), "2.41") >= 0) {
        GTEST_SKIP() << "the C library holds back the signal of a step while it forks";
    }
    expectToGoOn([] {
        Manager manager(true);
        const OtherInHandler other(manager);
        Gate closed;
        Gate over;
        JoiningThread holder([&] {
            const Sorvane::SVGate gate;
            closed.open();
            over.pass();
        });
        closed.pass();
        const pid_t parent = getpid();
        unsigned int looked = 0;
        unsigned int letIn = 0;
        pid_t child = -1;
        step([&child] { child = fork(); },
             [&](const Standing& standing) {
                 // The gate has been opened there, and what is not there is counted.
                 if (getpid() != parent && gateWord() == 0 && Manager::numberOfManagers == 2) {
                     ++looked;
                     letIn += sigismember(&standing.heldBack, SIGUSR1) == 1 ? 0U : 1U;
                 }
                 return true;
             });
        if (child == 0) {
            _exit(looked > 5 && letIn == 0 && Manager::numberOfManagers == 1 ? allRight
                                                                             : miscounted);
        }
        over.open();
        EXPECT_EQ(outcomeOf(child), allRight);
    });
}

void forkAndCount(int) {
    outcomeInHandler =
        outcomeInForkedChild([] { return static_cast<int>(Manager::numberOfManagers); });
}

TEST(ForkedChild, CountsItsOwnDispatchAndNoOther) {
    expectToGoOn([] {
        Manager manager(true);
        manager.setHandlerFromFunction(SIGUSR2, forkAndCount);
        manager.handleSignal(SIGUSR2);
        const OtherInHandler other(manager);
        EXPECT_EQ(Manager::numberOfManagers, 2U);
        raise(SIGUSR2);
        EXPECT_EQ(outcomeInHandler, 2);
    });
}

}  // namespace
