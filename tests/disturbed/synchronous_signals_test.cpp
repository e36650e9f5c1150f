// A signal that an instruction brings about, and that does not come again by itself, arrives while
// another thread takes its signal over: the host's handler answers it at once and on the spot, with
// the context of that very instruction.

#include <gtest/gtest.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sorvane/svsignalhandlermanager.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <functional>

#include "disturbed/limited_child.h"
#include "disturbed/stretched_sigaction.h"
#include "disturbed/waiting.h"
#include "support/joining_thread.h"
#include "support/system_actions.h"

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
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, trappedCall, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program = {};
    program.len = sizeof(filter) / sizeof(filter[0]);
    program.filter = filter;
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
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
    if (prctl(PR_GET_SECCOMP) < 0) {
        GTEST_SKIP() << "the kernel traps no system calls";
    }
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

}  // namespace

#endif
