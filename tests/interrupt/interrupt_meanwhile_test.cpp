// What another thread does, whole, while an operation stands between two of its instructions.
//
// Each instruction of the library that the operation runs gets a process of its own. There the
// processor's trap flag stops the operation after that instruction, until the other thread is done.

#include <gtest/gtest.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <functional>
#include <new>
#include <optional>

#include "support/child_process.h"
#include "support/gate.h"
#include "support/joining_thread.h"
#include "support/observed_handlers.h"
#include "support/sanitizers.h"
#include "support/shared_state.h"
#include "support/single_steps.h"
#include "support/system_actions.h"

#if defined(__x86_64__) || defined(__i386__)

namespace {

// --- Stopping ----------------------------------------------------------------------------

// Where the library's own code lies. In the C library an operation is not stopped: it may hold a
// lock there that the other thread then waits for.
struct Code {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
};
Code libraryCode;

int findLibrary(dl_phdr_info* module, std::size_t, void*) {
    const auto known = reinterpret_cast<std::uintptr_t>(&actualSignalHandler);
    for (unsigned int i = 0; i < module->dlpi_phnum; ++i) {
        const auto& segment = module->dlpi_phdr[i];
        const std::uintptr_t begin = module->dlpi_addr + segment.p_vaddr;
        const std::uintptr_t end = begin + segment.p_memsz;
        if (segment.p_type == PT_LOAD && begin <= known && known < end) {
            libraryCode = {begin, end};
            return 1;
        }
    }
    return 0;
}

constexpr greg_t trapFlag = 0x100;

unsigned int stopAt;
std::atomic<unsigned int>* instructions;  // shared with the children
std::optional<Gate> stopped;
std::optional<Gate> done;

std::uintptr_t instructionAt(const void* context) {
    const auto& registers = static_cast<const ucontext_t*>(context)->uc_mcontext.gregs;
#ifdef __x86_64__
    return static_cast<std::uintptr_t>(registers[REG_RIP]);
#else
    return static_cast<std::uintptr_t>(registers[REG_EIP]);
#endif
}

void stopThere(int, siginfo_t*, void* context) {
    const std::uintptr_t instruction = instructionAt(context);
    if (instruction < libraryCode.begin || instruction >= libraryCode.end) {
        return;
    }
    if (++*instructions == stopAt) {
        static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] &= ~trapFlag;
        stopped->open();
        done->pass();
    }
}

// --- Meetings ----------------------------------------------------------------------------

struct Meeting {
    std::function<void()> prepare;
    std::function<void()> operation;  ///< is stopped, on a thread of its own
    std::function<void()> meanwhile;  ///< what the first thread does then
    std::function<void()> expect;     ///< of the state after both
};

void meet(const Meeting& meeting, unsigned int instruction) {
    meeting.prepare();
    stopAt = instruction;
    *instructions = 0;
    stopped.emplace();
    done.emplace();
    dl_iterate_phdr(findLibrary, nullptr);
    hostInstalls(SIGTRAP, stopThere);
    JoiningThread other([&meeting] {
        {
            const SingleSteps steps;
            meeting.operation();
        }
        stopped->open();
    });
    stopped->pass();
    meeting.meanwhile();
    done->open();
    other.join();
    meeting.expect();
}

// The operation may take longer when something has come in between, so the last children stop at
// no instruction at all.
void meetAtEachInstruction(const Meeting& meeting) {
    if (builtWithAddressSanitizer || builtWithThreadSanitizer) {
        GTEST_SKIP() << "the sanitizer's run-time library can't be entered at each instruction";
    }
    constexpr unsigned int mostSteps = 300000;
    void* const shared = mmap(nullptr, sizeof(*instructions), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    instructions = new (shared) std::atomic<unsigned int>(0);
    ASSERT_TRUE(inChild([&] { meet(meeting, 0); }).wentOnQ()) << "one after the other";
    const unsigned int all = *instructions;
    ASSERT_GT(all, 50U);
    const unsigned int step = all * all / mostSteps + 1;
    for (unsigned int instruction = 1; instruction <= all; instruction += step) {
        ASSERT_TRUE(inChild([&] { meet(meeting, instruction); }).wentOnQ())
            << "stopped after instruction " << instruction << " of " << all;
    }
}

// The managers lie in no heap, which both threads would use.
std::optional<Manager> manager;
std::optional<Manager> otherManager;

void handleSignalsOfAHost(int signalNumber, bool locking) {
    forgetCalls();
    hostInstalls(signalNumber, hostHandler);
    manager.emplace(locking);
    manager->setHandlerFromFunction(signalNumber, userHandler);
    manager->startHandlingSignals();
}

// As if the signal had just arrived: the kernel has chosen the library's handler already.
void dispatch(int signalNumber) {
    siginfo information = {};
    information.si_signo = signalNumber;
    information.si_code = SI_TKILL;
    information.si_pid = getpid();
    information.si_uid = getuid();
    actualSignalHandler(signalNumber, &information, nullptr);
}

// --- A dispatch, while the last manager goes

void dispatchWhileTheLastManagerGoes(int signalNumber) {
    meetAtEachInstruction({.prepare = [=] { handleSignalsOfAHost(signalNumber, false); },
                           .operation = [=] { dispatch(signalNumber); },
                           .meanwhile = [] { manager.reset(); },
                           .expect =
                               [=] {
                                   EXPECT_EQ(callsOf(hostHandler), 1U);
                                   EXPECT_LE(callsOf(userHandler), 1U);
                                   EXPECT_EQ(systemHandler(signalNumber), addressOf(hostHandler));
                                   EXPECT_EQ(Manager::numberOfManagers, 0U);
                                   EXPECT_FALSE(Manager::currentlyHandlingSignals);
                               }});
}

TEST(DispatchMeanwhile, LastManagerGoesAndTheHostHasItsSignal) {
    dispatchWhileTheLastManagerGoes(SIGUSR1);
}

TEST(DispatchMeanwhile, LastManagerGoesAndTheHostHasItsFatalSignal) {
    dispatchWhileTheLastManagerGoes(SIGHUP);
}

TEST(DispatchMeanwhile, LastManagerGoesAndAnotherOneTakesOver) {
    meetAtEachInstruction({.prepare = [] { handleSignalsOfAHost(SIGUSR1, false); },
                           .operation = [] { dispatch(SIGUSR1); },
                           .meanwhile =
                               [] {
                                   manager.reset();
                                   otherManager.emplace(false);
                                   otherManager->setHandlerFromFunction(SIGUSR1, otherUserHandler);
                                   otherManager->startHandlingSignals();
                               },
                           .expect =
                               [] {
                                   EXPECT_EQ(callsOf(hostHandler), 1U);
                                   forgetCalls();
                                   raise(SIGUSR1);
                                   EXPECT_EQ(callsOf(hostHandler), 1U);
                                   EXPECT_EQ(callsOf(otherUserHandler), 1U);
                                   otherManager.reset();
                                   EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
                               }});
}

// Unless the dispatch's own manager has kept the state alive.
TEST(DispatchMeanwhile, LastManagerGoesAndAnotherOneRegistersWithoutAStart) {
    meetAtEachInstruction({.prepare = [] { handleSignalsOfAHost(SIGUSR1, false); },
                           .operation = [] { dispatch(SIGUSR1); },
                           .meanwhile =
                               [] {
                                   manager.reset();
                                   otherManager.emplace(false);
                                   otherManager->setHandlerFromFunction(SIGUSR1, otherUserHandler);
                               },
                           .expect =
                               [] {
                                   EXPECT_EQ(callsOf(hostHandler), 1U);
                                   if (!Manager::currentlyHandlingSignals) {
                                       EXPECT_EQ(callsOf(otherUserHandler), 0U);
                                       EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
                                   }
                               }});
}

// --- The last manager goes, while another thread goes on

TEST(LastManagerMeanwhile, AnotherOneTakesOver) {
    meetAtEachInstruction({.prepare = [] { handleSignalsOfAHost(SIGUSR1, false); },
                           .operation = [] { manager.reset(); },
                           .meanwhile =
                               [] {
                                   otherManager.emplace(false);
                                   otherManager->setHandlerFromFunction(SIGUSR1, otherUserHandler);
                                   otherManager->startHandlingSignals();
                               },
                           .expect =
                               [] {
                                   raise(SIGUSR1);
                                   EXPECT_EQ(callsOf(hostHandler), 1U);
                                   EXPECT_EQ(callsOf(otherUserHandler), 1U);
                                   otherManager.reset();
                                   EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
                               }});
}

TEST(LastManagerMeanwhile, AnotherOneComesAndGoesAndTheHostInstallsAnother) {
    meetAtEachInstruction({.prepare = [] { handleSignalsOfAHost(SIGUSR1, false); },
                           .operation = [] { manager.reset(); },
                           .meanwhile =
                               [] {
                                   otherManager.emplace(false);
                                   otherManager->startHandlingSignals();
                                   otherManager.reset();
                                   if (systemHandler(SIGUSR1) == addressOf(hostHandler)) {
                                       hostInstalls(SIGUSR1, otherHostHandler);
                                   }
                               },
                           .expect =
                               [] {
                                   EXPECT_FALSE(takenOverQ(SIGUSR1));
                                   raise(SIGUSR1);
                                   EXPECT_EQ(callCount(), 1U);
                               }});
}

// The very answer that the manager that goes had given, too.
TEST(LastManagerMeanwhile, AnotherOneGivesAnAnswer) {
    meetAtEachInstruction({.prepare =
                               [] {
                                   handleSignalsOfAHost(SIGUSR1, false);
                                   manager->setSignalDisposition(SIGINT, false);
                                   manager->setSignalDisposition(SIGQUIT, false);
                               },
                           .operation = [] { manager.reset(); },
                           .meanwhile =
                               [] {
                                   otherManager.emplace(false);
                                   otherManager->setSignalDisposition(SIGINT, false);
                               },
                           .expect = [] { EXPECT_FALSE(mayHandleQ(SIGINT)); }});
}

TEST(LastManagerMeanwhile, AnotherOneGivesAllAnswers) {
    meetAtEachInstruction({.prepare = [] { handleSignalsOfAHost(SIGUSR1, false); },
                           .operation = [] { manager.reset(); },
                           .meanwhile =
                               [] {
                                   otherManager.emplace(false);
                                   Sorvane::SVSignalHandlerDispositionSet answers;
                                   answers.doNotHandleSignal(SIGINT);
                                   otherManager->setSignalDispositions(answers);
                               },
                           .expect = [] { EXPECT_FALSE(mayHandleQ(SIGINT)); }});
}

// The answer is that before the teardown only if there is no teardown any more.
TEST(LastManagerMeanwhile, AnotherOneAsksForAnAnswer) {
    static bool answer;
    meetAtEachInstruction({.prepare =
                               [] {
                                   handleSignalsOfAHost(SIGUSR1, false);
                                   manager->setSignalDisposition(SIGINT, false);
                               },
                           .operation = [] { manager.reset(); },
                           .meanwhile =
                               [] {
                                   otherManager.emplace(false);
                                   answer = otherManager->getSignalDisposition(SIGINT);
                               },
                           .expect = [] { EXPECT_EQ(answer, mayHandleQ(SIGINT)); }});
}

TEST(LastManagerMeanwhile, AnotherOneComesAndGoesAndAThirdGivesAnAnswer) {
    meetAtEachInstruction({.prepare = [] { handleSignalsOfAHost(SIGUSR1, false); },
                           .operation = [] { manager.reset(); },
                           .meanwhile =
                               [] {
                                   otherManager.emplace(false);
                                   otherManager->startHandlingSignals();
                                   otherManager.reset();
                                   otherManager.emplace(false);
                                   otherManager->setSignalDisposition(SIGINT, false);
                               },
                           .expect = [] { EXPECT_FALSE(mayHandleQ(SIGINT)); }});
}

TEST(FirstManagerMeanwhile, AnotherOneGivesAnAnswer) {
    meetAtEachInstruction({.prepare = [] {},
                           .operation = [] { manager.emplace(false); },
                           .meanwhile =
                               [] {
                                   otherManager.emplace(false);
                                   otherManager->setSignalDisposition(SIGINT, false);
                               },
                           .expect = [] { EXPECT_FALSE(mayHandleQ(SIGINT)); }});
}

TEST(FirstManagerMeanwhile, AnotherOneGivesTheAnswerThatThereWasBefore) {
    meetAtEachInstruction(
        {.prepare = [] { Manager::signalDispositionSet.doNotHandleSignal(SIGINT); },
         .operation = [] { manager.emplace(false); },
         .meanwhile =
             [] {
                 otherManager.emplace(false);
                 otherManager->setSignalDisposition(SIGINT, false);
             },
         .expect = [] { EXPECT_FALSE(mayHandleQ(SIGINT)); }});
}

// --- The lock

bool lockFreeQ() {
    Sorvane::SVMutexHandle* const handle = Manager::handlerTableLock;
    const bool free = handle != nullptr && handle->tryLock();
    if (free) {
        handle->unlock();
    }
    return free;
}

// While the one that is stopped holds the lock, the other one would wait for ever.
TEST(LockMeanwhile, GoesWithTheLastOfTwoThatGoAtOnce) {
    meetAtEachInstruction({.prepare =
                               [] {
                                   manager.emplace(true);
                                   otherManager.emplace(true);
                               },
                           .operation = [] { manager.reset(); },
                           .meanwhile =
                               [] {
                                   if (lockFreeQ()) {
                                       otherManager.reset();
                                   }
                               },
                           .expect =
                               [] {
                                   otherManager.reset();
                                   EXPECT_EQ(Manager::handlerTableLock, nullptr);
                               }});
}

// --- Handing back

// Either the signal is handed back before it is taken over, and then it is the library's; or after
// that, and then the host's.
TEST(StopMeanwhile, AnotherThreadTakesOver) {
    meetAtEachInstruction({.prepare =
                               [] {
                                   forgetCalls();
                                   hostInstalls(SIGUSR1, hostHandler);
                                   manager.emplace(false);
                                   manager->setHandlerFromFunction(SIGUSR1, userHandler);
                               },
                           .operation = [] { manager->stopHandlingSignal(SIGUSR1); },
                           .meanwhile = [] { manager->handleSignal(SIGUSR1); },
                           .expect =
                               [] {
                                   const bool kept = recordOf(SIGUSR1, hostHandler) != nullptr;
                                   EXPECT_TRUE(
                                       takenOverQ(SIGUSR1) ||
                                       (kept && systemHandler(SIGUSR1) == addressOf(hostHandler)));
                               }});
}

}  // namespace

#endif
