// What another thread does, whole, while an operation stands between two of its instructions.
//
// Each instruction of the library that the operation runs gets two processes of its own, for the
// first time and for the last time that it is run. There a breakpoint stops the operation before
// it, until the other thread is done. Which instructions there are is found out by the processor's
// trap flag.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <optional>
#include <vector>

#include "support/child_process.h"
#include "support/emulation.h"
#include "support/gate.h"
#include "support/joining_thread.h"
#include "support/observed_handlers.h"
#include "support/sanitizers.h"
#include "support/shared_state.h"
#include "support/single_steps.h"
#include "support/system_actions.h"

#if defined(__x86_64__) || defined(__i386__)

namespace {

void noteAWait() noexcept;

using SystemCall = long (*)(long, ...);
const auto systemCall = reinterpret_cast<SystemCall>(dlsym(RTLD_NEXT, "syscall"));

}  // namespace

// By which the library waits, among other things.
extern "C" long syscall(long number, ...) noexcept {
    va_list list;
    va_start(list, number);
    long arguments[6];
    for (long& argument : arguments) {
        argument = va_arg(list, long);
    }
    va_end(list);
    if (number == SYS_nanosleep) {
        noteAWait();
    }
    return systemCall(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
                      arguments[5]);
}

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

bool ofLibraryQ(std::uintptr_t instruction) {
    return instruction >= libraryCode.begin && instruction < libraryCode.end;
}

#ifdef __x86_64__
constexpr int instructionRegister = REG_RIP;
#else
constexpr int instructionRegister = REG_EIP;
#endif

greg_t& registerOf(void* context, int number) {
    return static_cast<ucontext_t*>(context)->uc_mcontext.gregs[number];
}

// What the operation runs, one instruction after the other; shared with the children.
struct Course {
    static constexpr unsigned int most = 1U << 16U;
    unsigned int stops;  ///< of the children
    unsigned int length;
    std::uintptr_t instructions[most];
};
Course* course;

void recordInstruction(int, siginfo_t*, void* context) {
    const auto instruction = static_cast<std::uintptr_t>(registerOf(context, instructionRegister));
    if (ofLibraryQ(instruction) && course->length < Course::most) {
        course->instructions[course->length++] = instruction;
    }
}

// An instruction, and which time that it is run.
struct Place {
    std::uintptr_t instruction;
    unsigned int time;
};

// On i386 the two instructions of a thunk, which say where the code lies, belong to all functions,
// those that run at a stop among them.
bool everybodysQ([[maybe_unused]] std::uintptr_t instruction) {
#ifdef __x86_64__
    return false;
#else
    constexpr unsigned char load = 0x8b;
    constexpr unsigned char stackPointer = 0x24;
    constexpr unsigned char ret = 0xc3;
    const auto* const bytes = reinterpret_cast<const unsigned char*>(instruction);
    return (bytes[0] == load && bytes[2] == stackPointer && bytes[3] == ret) ||
           (bytes[0] == ret && bytes[-3] == load && bytes[-1] == stackPointer);
#endif
}

std::vector<Place> placesOfTheCourse() {
    std::map<std::uintptr_t, unsigned int> times;
    for (unsigned int i = 0; i < course->length; ++i) {
        if (!everybodysQ(course->instructions[i])) {
            ++times[course->instructions[i]];
        }
    }
    std::vector<Place> places;
    for (const auto& [instruction, last] : times) {
        places.push_back({instruction, 1});
        if (last > 1) {
            places.push_back({instruction, last});
        }
    }
    return places;
}

constexpr greg_t trapFlag = 0x100;
constexpr unsigned char breakpoint = 0xcc;

constinit thread_local bool operating = false;
Place stopBefore;
unsigned char instructionsByte;
std::optional<Gate> stopped;
std::optional<Gate> done;

void writeInstructionsByte(unsigned char byte) {
    *reinterpret_cast<volatile unsigned char*>(stopBefore.instruction) = byte;
}

// At the breakpoint the instruction is put back, and run alone if its time has not come; after it
// the breakpoint is. The other thread may come to it on its way to the gate, and tries again. Calls
// nothing as long as the breakpoint is there, which may be in that.
void stopThere(int, siginfo_t*, void* context) {
    greg_t& flags = registerOf(context, REG_EFL);
    if ((flags & trapFlag) != 0) {
        flags &= ~trapFlag;
        writeInstructionsByte(breakpoint);
        return;
    }
    registerOf(context, instructionRegister) = static_cast<greg_t>(stopBefore.instruction);
    if (!operating) {
        return;
    }
    writeInstructionsByte(instructionsByte);
    if (--stopBefore.time != 0) {
        flags |= trapFlag;
        return;
    }
    ++course->stops;
    stopped->open();
    done->pass();
}

void setBreakpoint(const Place& place) {
    operating = true;
    stopBefore = place;
    instructionsByte = *reinterpret_cast<const unsigned char*>(place.instruction);
    const auto pageSize = static_cast<std::uintptr_t>(getpagesize());
    void* const page = reinterpret_cast<void*>(place.instruction / pageSize * pageSize);
    if (mprotect(page, pageSize, PROT_READ | PROT_WRITE | PROT_EXEC) != 0) {
        std::abort();
    }
    hostInstalls(SIGTRAP, stopThere);
    writeInstructionsByte(breakpoint);
}

// --- Meetings ----------------------------------------------------------------------------

struct Meeting {
    std::function<void()> prepare;
    std::function<void()> operation;  ///< is stopped, on a thread of its own
    std::function<void()> meanwhile;  ///< what the first thread does then
    std::function<void()> expect;     ///< of the state after both
};

void recordCourse(const Meeting& meeting) {
    meeting.prepare();
    hostInstalls(SIGTRAP, recordInstruction);
    JoiningThread other([&meeting] {
        const SingleSteps steps;
        meeting.operation();
    });
    other.join();
    meeting.meanwhile();
    meeting.expect();
}

void meet(const Meeting& meeting, const Place& place) {
    meeting.prepare();
    stopped.emplace();
    done.emplace();
    JoiningThread other([&] {
        setBreakpoint(place);
        meeting.operation();
        writeInstructionsByte(instructionsByte);
        stopped->open();
    });
    stopped->pass();
    meeting.meanwhile();
    done->open();
    other.join();
    meeting.expect();
}

void meetAtEachInstruction(const Meeting& meeting) {
    if (builtWithAddressSanitizer || builtWithThreadSanitizer) {
        GTEST_SKIP() << "the sanitizer's run-time library can't be entered at each instruction";
    }
    if (underValgrindQ()) {
        GTEST_SKIP() << "valgrind has no trap flag";
    }
    course = static_cast<Course*>(
        mmap(nullptr, sizeof(Course), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    dl_iterate_phdr(findLibrary, nullptr);
    ASSERT_TRUE(inChild([&] { recordCourse(meeting); }).wentOnQ()) << "one after the other";
    ASSERT_GT(course->length, 50U);
    ASSERT_LT(course->length, Course::most);
    const std::vector<Place> places = placesOfTheCourse();
    for (const Place& place : places) {
        ASSERT_TRUE(inChild([&] { meet(meeting, place); }).wentOnQ())
            << "stopped at +0x" << std::hex << place.instruction - libraryCode.begin
            << " for the time " << std::dec << place.time;
    }
    // All but those around the operation, by which its course was recorded.
    EXPECT_GT(course->stops + 20, places.size());
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

void takeOverWithAnotherManager() {
    otherManager.emplace(false);
    otherManager->setHandlerFromFunction(SIGUSR1, otherUserHandler);
    otherManager->startHandlingSignals();
}

void expectBothAreCalledAndTheHostHasItsSignalAfterwards() {
    raise(SIGUSR1);
    EXPECT_EQ(callsOf(hostHandler), 1U);
    EXPECT_EQ(callsOf(otherUserHandler), 1U);
    otherManager.reset();
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
}

// As if the signal had just arrived: the kernel has chosen the library's handler already, and holds
// the signal back.
void dispatch(int signalNumber) {
    const BlockedSignals heldBack{signalNumber};
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
                                   takeOverWithAnotherManager();
                               },
                           .expect =
                               [] {
                                   EXPECT_EQ(callsOf(hostHandler), 1U);
                                   forgetCalls();
                                   expectBothAreCalledAndTheHostHasItsSignalAfterwards();
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

// --- Handlers are called, while others come

void registerInAHandler(int) {
    Manager(false).setHandlerFromFunction(SIGUSR1, otherUserHandler);
}

// The version of the tables that the handler's dispatch reads is replaced by the handler, and
// released by the next change.
TEST(CallMeanwhile, TablesAreReplaced) {
    meetAtEachInstruction({.prepare =
                               [] {
                                   forgetCalls();
                                   manager.emplace(false);
                                   manager->setHandlerFromFunction(SIGUSR1, userHandler);
                                   manager->setHandlerFromFunction(SIGUSR2, registerInAHandler);
                                   manager->handleSignal(SIGUSR2);
                               },
                           .operation = [] { manager->callHandlers(SIGUSR1, nullptr, nullptr); },
                           .meanwhile =
                               [] {
                                   raise(SIGUSR2);
                                   manager->setHandlerFromFunction(SIGUSR2, otherUserHandler);
                               },
                           .expect = [] { EXPECT_EQ(callsOf(userHandler), 1U); }});
}

// --- The last manager goes, while another thread goes on

TEST(LastManagerMeanwhile, AnotherOneTakesOver) {
    meetAtEachInstruction({.prepare = [] { handleSignalsOfAHost(SIGUSR1, false); },
                           .operation = [] { manager.reset(); },
                           .meanwhile = takeOverWithAnotherManager,
                           .expect = expectBothAreCalledAndTheHostHasItsSignalAfterwards});
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
                           .expect =
                               [] {
                                   EXPECT_FALSE(mayHandleQ(SIGINT));
                                   EXPECT_EQ(Manager::numberOfManagers, 2U);
                               }});
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
         .expect =
             [] {
                 EXPECT_FALSE(mayHandleQ(SIGINT));
                 EXPECT_EQ(Manager::numberOfManagers, 2U);
             }});
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

// A third thread makes a manager, as far as it gets: to its end, or to a wait for the lock to go.
std::optional<JoiningThread> third;
std::optional<Gate> thirdIsDoneOrWaits;

void noteAWait() noexcept {
    if (thirdIsDoneOrWaits) {
        thirdIsDoneOrWaits->open();
    }
}

void makeAManagerOnAThirdThread() {
    thirdIsDoneOrWaits.emplace();
    third.emplace([] {
        otherManager.emplace(true);
        thirdIsDoneOrWaits->open();
    });
    thirdIsDoneOrWaits->pass();
}

TEST(LockMeanwhile, GoesBeforeAnotherOneComesOrStays) {
    meetAtEachInstruction({.prepare = [] { manager.emplace(true); },
                           .operation = [] { manager.reset(); },
                           .meanwhile =
                               [] {
                                   if (Manager::handlerTableLock == nullptr || lockFreeQ()) {
                                       makeAManagerOnAThirdThread();
                                   }
                               },
                           .expect =
                               [] {
                                   third.reset();
                                   EXPECT_EQ(lockFreeQ(), otherManager.has_value());
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

// --- Switching, while another thread registers, and the other way round

void registerForInterrupt() {
    manager->setHandlerFromFunction(SIGINT, otherUserHandler);
}

void handleSignalsOfTwoHosts() {
    hostInstalls(SIGINT, otherHostHandler);
    handleSignalsOfAHost(SIGUSR1, false);
}

TEST(StartMeanwhile, AnotherThreadRegistersAndIsTakenOver) {
    meetAtEachInstruction({.prepare =
                               [] {
                                   handleSignalsOfTwoHosts();
                                   manager->stopHandlingSignals();
                               },
                           .operation = [] { manager->startHandlingSignals(); },
                           .meanwhile = registerForInterrupt,
                           .expect =
                               [] {
                                   EXPECT_TRUE(Manager::currentlyHandlingSignals);
                                   EXPECT_TRUE(takenOverQ(SIGINT));
                                   EXPECT_TRUE(takenOverQ(SIGUSR1));
                               }});
}

TEST(StartMeanwhile, AnotherThreadStartsAndStops) {
    meetAtEachInstruction({.prepare =
                               [] {
                                   handleSignalsOfTwoHosts();
                                   registerForInterrupt();
                                   manager->stopHandlingSignals();
                               },
                           .operation = [] { manager->startHandlingSignals(); },
                           .meanwhile =
                               [] {
                                   manager->startHandlingSignals();
                                   manager->stopHandlingSignals();
                               },
                           .expect =
                               [] {
                                   const bool handling = Manager::currentlyHandlingSignals;
                                   EXPECT_EQ(takenOverQ(SIGINT), handling);
                                   EXPECT_EQ(takenOverQ(SIGUSR1), handling);
                               }});
}

TEST(StopMeanwhile, AnotherThreadRegistersAndNothingStaysTakenOver) {
    meetAtEachInstruction({.prepare = handleSignalsOfTwoHosts,
                           .operation = [] { manager->stopHandlingSignals(); },
                           .meanwhile = registerForInterrupt,
                           .expect =
                               [] {
                                   EXPECT_FALSE(Manager::currentlyHandlingSignals);
                                   EXPECT_FALSE(takenOverQ(SIGINT));
                                   EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
                               }});
}

TEST(RegistrationMeanwhile, AnotherThreadStopsAndTheHostHasItsSignals) {
    meetAtEachInstruction(
        {.prepare = handleSignalsOfTwoHosts,
         .operation = [] { manager->setHandlerFromFunction(SIGUSR1, otherUserHandler); },
         .meanwhile = [] { manager->stopHandlingSignals(); },
         .expect = [] { EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler)); }});
}

TEST(RegistrationMeanwhile, AnotherThreadStarts) {
    meetAtEachInstruction({.prepare =
                               [] {
                                   handleSignalsOfTwoHosts();
                                   manager->stopHandlingSignals();
                               },
                           .operation = registerForInterrupt,
                           .meanwhile = [] { manager->startHandlingSignals(); },
                           .expect = [] { EXPECT_TRUE(takenOverQ(SIGINT)); }});
}

TEST(ClearingMeanwhile, AnotherThreadRegistersAndIsNotCutOff) {
    meetAtEachInstruction(
        {.prepare =
             [] {
                 hostInstalls(SIGUSR1, hostHandler);
                 manager.emplace(false);
                 manager->handleSignal(SIGUSR1);
                 manager->startHandlingSignals();
             },
         .operation =
             [] {
                 Record record = hostRecord(SIGUSR1, hostHandler);
                 manager->clearHandler(record);
             },
         .meanwhile = [] { manager->setHandlerFromFunction(SIGUSR1, userHandler); },
         .expect = [] { EXPECT_TRUE(takenOverQ(SIGUSR1)); }});
}

}  // namespace

#endif
