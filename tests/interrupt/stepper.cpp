#include "interrupt/stepper.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "interrupt/counted_handlers.h"
#include "support/emulation.h"
#include "support/sanitizers.h"

namespace {

// --- The processor --------------------------------------------------------------------------

#if defined(__x86_64__)
constexpr bool processorStepsQ = true;
constexpr int programCounter = REG_RIP;
constexpr int processorFlags = REG_EFL;
inline void stepOn() {
    asm volatile("pushfq; orq $0x100,(%%rsp); popfq" ::: "memory", "cc");
}
inline void stepOff() {
    asm volatile("pushfq; andq $~0x100,(%%rsp); popfq" ::: "memory", "cc");
}
#elif defined(__i386__)
constexpr bool processorStepsQ = true;
constexpr int programCounter = REG_EIP;
constexpr int processorFlags = REG_EFL;
inline void stepOn() {
    asm volatile("pushfl; orl $0x100,(%%esp); popfl" ::: "memory", "cc");
}
inline void stepOff() {
    asm volatile("pushfl; andl $~0x100,(%%esp); popfl" ::: "memory", "cc");
}
#else
constexpr bool processorStepsQ = false;
inline void stepOn() {}
inline void stepOff() {}
#endif

const char* reasonForNotStepping() {
    if (!processorStepsQ) {
        return "this processor is not stepped here";
    }
    if (builtWithAddressSanitizer || builtWithThreadSanitizer) {
        return "the sanitizer's run-time library can't be entered at each of its instructions";
    }
    return underValgrindQ() ? "valgrind has no trap flag" : nullptr;
}

// --- What the processes of a test share -----------------------------------------------------

constexpr std::size_t pictureCapacity = 1 << 16;
constexpr std::size_t reasonCapacity = 240;

struct Report {
    unsigned long instructions;
    unsigned long visited;
    unsigned long wrong;
    std::uintptr_t firstWrongPlace;
    char firstReason[reasonCapacity];
    char picture[pictureCapacity];
};

Report& report() {
    static Report* const shared = [] {
        void* const storage = mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE,
                                   MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        return storage == MAP_FAILED ? nullptr : new (storage) Report{};
    }();
    if (shared == nullptr) {
        std::abort();
    }
    return *shared;
}

// Only the first reason is kept: later ones are mostly its consequences.
void noteReason(const char* reason) {
    if (report().firstReason[0] == '\0') {
        std::snprintf(report().firstReason, reasonCapacity, "%s", reason);
    }
}

// --- One run --------------------------------------------------------------------------------

enum class Form { counting, onePerRun, everyInstruction };

constexpr int exitRight = 42;
constexpr int exitWrong = 43;
constexpr unsigned int secondsForAll = 600;
constexpr int sentinel = 4242;

struct Run {
    const Scenario* scenario = nullptr;
    Form form = Form::counting;
    unsigned long stride = 1;
    unsigned long mostVisits = 0;
    unsigned int delivered = 0;
    unsigned int thrown = 0;
    bool fork = false;
    bool right = true;
};

Run run;

void judge(bool right, const char* reason) {
    if (!right) {
        run.right = false;
        noteReason(reason);
    }
}

void unblock(int signalNumber) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, signalNumber);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

// The C library declares it as never throwing, which a delivery may well do. Through a pointer that
// the compiler can't see through, it does not take the declaration at its word.
long (*volatile systemCall)(long number, ...) = &syscall;

// What an exception leaves behind is the mask of the handler, which has not returned.
void sendToSelf(const siginfo_t& information) {
    const long process = syscall(SYS_getpid);
    const long thread = syscall(SYS_gettid);
    try {
        systemCall(SYS_rt_tgsigqueueinfo, process, thread, run.scenario->signalNumber,
                   &information);
    } catch (int) {
        ++run.thrown;
        unblock(run.scenario->signalNumber);
    }
}

void judgeCallsSoFar() {
    for (const std::size_t number : run.scenario->everyTime) {
        judge(calls[number] == run.delivered, "a record was not called exactly once");
    }
}

void deliver() {
    siginfo_t information = {};
    information.si_signo = run.scenario->signalNumber;
    information.si_code = SI_QUEUE;
    information.si_pid = getpid();
    information.si_uid = getuid();
    information.si_value.sival_int = static_cast<int>(++run.delivered);

    errno = sentinel;
    sendToSelf(information);
    judge(run.scenario->throws || errno == sentinel, "errno was changed");
    if (!run.scenario->mayBeSentAgain) {
        judgeCallsSoFar();
    }
}

void judgeCallsAtTheEnd() {
    const Scenario& scenario = *run.scenario;
    judgeCallsSoFar();
    for (const std::size_t number : scenario.atMostOnce) {
        judge(calls[number] <= run.delivered, "a record was called more than once");
    }
    for (const std::size_t number : scenario.never) {
        judge(calls[number] == 0, "a record was called that is none");
    }
    for (const std::size_t number : scenario.alike) {
        judge(calls[number] == calls[scenario.alike.front()],
              "of records that belong together only some were called");
    }
    const unsigned long values =
        static_cast<unsigned long>(run.delivered) * (run.delivered + 1) / 2;
    judge(calls[informationNumber] != run.delivered || sumOfValues == values,
          "a value did not come with its signal");
    judge(informationWhole, "what came with a signal was not whole");
    judge(!scenario.throws || run.thrown == run.delivered, "an exception went missing");
}

void judgeEnd() {
    judgeCallsAtTheEnd();
    const Scenario& scenario = *run.scenario;
    if (scenario.endsAs != EndsAs::alsoSaysTheWholeTruth) {
        const std::string picture = pictureOfState(scenario.detail);
        judge(picture == report().picture, "the operation ended in another state");
        if (picture != report().picture && std::getenv("SORVANE_SHOW_STATES") != nullptr) {
            std::fprintf(stderr, "--- instead of\n%s--- there is\n%s", report().picture,
                         picture.c_str());
        }
    }
    judge(!scenario.also || scenario.also(), "the operation did not end as it must");
}

[[noreturn]] void endJudged() {
    judgeEnd();
    if (!run.right && run.form == Form::onePerRun) {
        std::fflush(nullptr);
    }
    _exit(run.right ? exitRight : exitWrong);
}

bool rightEndQ(int status) {
    return WIFEXITED(status) && (WEXITSTATUS(status) == exitRight ||
                                 (run.scenario->mayEndFatally && WEXITSTATUS(status) == 0));
}

#if defined(__x86_64__) || defined(__i386__)

constexpr unsigned int secondsForTheRest = 30;

void noteWrong(const ucontext_t& context) {
    if (report().wrong++ == 0) {
        report().firstWrongPlace =
            static_cast<std::uintptr_t>(context.uc_mcontext.gregs[programCounter]);
    }
}

void noteHowItEnded(int status) {
    char reason[reasonCapacity];
    if (WIFSIGNALED(status)) {
        std::snprintf(reason, reasonCapacity, "signal %d ended the process", WTERMSIG(status));
    } else {
        std::snprintf(reason, reasonCapacity, "the process ended with status %d",
                      WEXITSTATUS(status));
    }
    noteReason(reason);
}

// The child returns from the trap, and goes on without any further one.
void deliverInChild(ucontext_t& context) {
    const long child = syscall(SYS_fork);
    if (child == 0) {
        run.fork = true;
        context.uc_mcontext.gregs[processorFlags] &= ~0x100;
        alarm(secondsForTheRest);
        deliver();
        return;
    }
    int status = 0;
    while (waitpid(static_cast<pid_t>(child), &status, 0) < 0) {
    }
    if (!rightEndQ(status)) {
        noteHowItEnded(status);
        noteWrong(context);
    }
}

void deliverInThisRun(const ucontext_t& context) {
    const bool before = run.right;
    run.right = true;
    deliver();
    if (!run.right) {
        noteWrong(context);
    }
    run.right = run.right && before;
}

void onTrap(int, siginfo_t*, void* context) {
    const int errnoBefore = errno;
    auto& interrupted = *static_cast<ucontext_t*>(context);
    if (++report().instructions % run.stride == 0 && run.form != Form::counting) {
        ++report().visited;
        if (run.form == Form::onePerRun) {
            deliverInChild(interrupted);
        } else {
            deliverInThisRun(interrupted);
        }
    }
    if (run.mostVisits != 0 && report().visited >= run.mostVisits) {
        interrupted.uc_mcontext.gregs[processorFlags] &= ~0x100;
    }
    errno = errnoBefore;
}

#else

void onTrap(int, siginfo_t*, void*) {}

#endif

void setTrap() {
    struct sigaction action = {};
    action.sa_sigaction = onTrap;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGTRAP, &action, nullptr);
}

void operateStepped() {
    setTrap();
    stepOn();
    run.scenario->operate();
    stepOff();
}

void keepPicture() {
    if (run.scenario->endsAs == EndsAs::deliveredAfterwards) {
        deliver();
    }
    const std::string picture = pictureOfState(run.scenario->detail);
    if (picture.size() >= pictureCapacity) {
        std::abort();
    }
    std::memcpy(report().picture, picture.c_str(), picture.size() + 1);
}

[[noreturn]] void runToTheEnd() {
    run.scenario->prepare();
    forgetCounts();
    operateStepped();
    if (run.form == Form::counting) {
        keepPicture();
        _exit(exitRight);
    }
    if (run.form == Form::onePerRun && !run.fork) {
        _exit(exitRight);
    }
    endJudged();
}

// --- A test ---------------------------------------------------------------------------------

// False when the process did not come to its end by itself, or its end was wrong.
bool runInChild(const Scenario& scenario, Form form, unsigned long stride,
                unsigned long mostVisits) {
    report().instructions = 0;
    report().visited = 0;
    report().wrong = 0;
    report().firstReason[0] = '\0';
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        run = Run{};
        run.scenario = &scenario;
        run.form = form;
        run.stride = stride;
        run.mostVisits = mostVisits;
        alarm(secondsForAll);
        runToTheEnd();
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
    }
    run.scenario = &scenario;
#if defined(__x86_64__) || defined(__i386__)
    if (!rightEndQ(status)) {
        noteHowItEnded(status);
    }
#endif
    return rightEndQ(status);
}

bool everyInstructionQ() {
    return std::getenv("SORVANE_EVERY_INSTRUCTION") != nullptr;
}

// An operation of a few thousand instructions is visited at each of them. A longer one is not, and
// neither is one of the unoptimised library, which has several times as many.
#ifdef SORVANE_TESTS_UNOPTIMISED
constexpr unsigned long mostWithoutStride = 30;
constexpr unsigned long mostRuns = 30;
constexpr unsigned long mostInOneRun = 600;
#else
constexpr unsigned long mostWithoutStride = 2500;
constexpr unsigned long mostRuns = 300;
constexpr unsigned long mostInOneRun = 20000;
#endif

unsigned long strideFor(unsigned long instructions, unsigned long most) {
    return everyInstructionQ() || instructions <= mostWithoutStride
               ? 1
               : (instructions + most - 1) / most;
}

// An operation that is disturbed all the time takes longer: what is sent again, for example, is
// sent signal by signal. That may not go on for as long as it likes.
unsigned long mostVisitsFor(unsigned long instructions, Form form) {
    return everyInstructionQ() || form == Form::onePerRun
               ? 0
               : std::min(2 * instructions + 1000, mostInOneRun);
}

void show(const char* form, unsigned long stride) {
    const Report& result = report();
    std::printf("%-26s %8lu instructions, every %lu. visited: %7lu, %lu wrong\n", form,
                result.instructions, stride, result.visited, result.wrong);
    ::testing::Test::RecordProperty(std::string(form) + ": visited",
                                    std::to_string(result.visited));
    ::testing::Test::RecordProperty(std::string(form) + ": wrong", std::to_string(result.wrong));
}

std::string whereFirstWrong() {
    Dl_info place = {};
    const auto address = reinterpret_cast<void*>(report().firstWrongPlace);
    if (report().wrong == 0 || dladdr(address, &place) == 0 || place.dli_sname == nullptr) {
        return "";
    }
    return std::string(", first in ") + place.dli_sname;
}

void stepInForm(const Scenario& scenario, Form form, const char* name, unsigned long instructions,
                unsigned long most) {
    const unsigned long stride = strideFor(instructions, most);
    const bool ended = runInChild(scenario, form, stride, mostVisitsFor(instructions, form));
    show(name, stride);
    EXPECT_TRUE(ended) << name << ": " << report().firstReason;
    EXPECT_EQ(report().wrong, 0U) << name << ": " << report().firstReason << whereFirstWrong();
    EXPECT_GT(report().visited, 0U);
}

}  // namespace

unsigned int deliveries() {
    return run.delivered;
}

void stepThrough(const Scenario& scenario) {
    if (const char* const reason = reasonForNotStepping()) {
        GTEST_SKIP() << reason;
    }
    ASSERT_TRUE(runInChild(scenario, Form::counting, 1, 0))
        << "undisturbed: " << report().firstReason;
    const unsigned long instructions = report().instructions;
    stepInForm(scenario, Form::onePerRun, "one delivery per run", instructions, mostRuns);
    stepInForm(scenario, Form::everyInstruction, "deliveries in one run", instructions,
               mostInOneRun);
}
