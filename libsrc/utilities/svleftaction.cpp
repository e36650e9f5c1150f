#include "svleftaction.h"

#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <iterator>

#include "svsharedstate.h"
#include "svsystemactions.h"

namespace Sorvane {

namespace {

// As the kernel has them: with a bit for each signal.
using Signals = std::uint64_t;

bool pendingQ(Signals signals) noexcept {
    Signals pending = 0;
    syscall(SYS_rt_sigpending, &pending, sizeof(pending));
    return (pending & signals) != 0;
}

void letIn(Signals signals) noexcept {
    Signals heldBack = 0;
    syscall(SYS_rt_sigprocmask, SIG_UNBLOCK, &signals, &heldBack, sizeof(signals));
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &heldBack, nullptr, sizeof(heldBack));
}

std::uintptr_t interruptedInstruction(const void* context) noexcept {
    if (context == nullptr) {
        return 0;
    }
    const auto& registers = static_cast<const ucontext_t*>(context)->uc_mcontext;
#if defined(__x86_64__)
    return static_cast<std::uintptr_t>(registers.gregs[REG_RIP]);
#elif defined(__i386__)
    return static_cast<std::uintptr_t>(registers.gregs[REG_EIP]);
#elif defined(__aarch64__)
    return registers.pc;
#else
    static_cast<void>(registers);
    return 0;
#endif
}

// The fault of this thread whose handler has left an action last.
struct LeftToFault {
    int signalNumber;
    int flags;
    std::uintptr_t instruction;
    const void* address;
    void (*handler)(int, siginfo*, void*);

    bool sameQ(int itsSignal, const siginfo& information, const void* context) const noexcept {
        return signalNumber == itsSignal && address == information.si_addr &&
               instruction == interruptedInstruction(context) && svfaultQ(itsSignal, information);
    }
    struct sigaction action() const noexcept {
        struct sigaction left = {};
        left.sa_sigaction = handler;
        left.sa_flags = flags;
        return left;
    }
};
constinit thread_local LeftToFault leftToFault
    __attribute__((tls_model("initial-exec"))) = {0, 0, 0, nullptr, nullptr};

bool onRecordQ(int signalNumber, const struct sigaction& action) noexcept {
    const SVTablesPin pin;
    const auto sameQ = [&action](const SVSignalHandler& record) {
        return record.getHandlerFunction() == reinterpret_cast<void*>(action.sa_sigaction);
    };
    return svfirstRecord(pin.tableOf(signalNumber), sameQ) != nullptr;
}

}  // namespace

bool svfaultQ(int signalNumber, const siginfo& information) noexcept {
    constexpr int faults[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE};
    const bool byTheCode = std::count(std::begin(faults), std::end(faults), signalNumber) != 0;
    // A defect of memory that nobody has touched does not come again.
    const bool onlyReported = signalNumber == SIGBUS && information.si_code == BUS_MCEERR_AO;
    return byTheCode && information.si_code > 0 && !onlyReported;
}

bool SVLeftAction::leave(int signalNumber, const struct sigaction& action,
                         const siginfo* information, void* context) noexcept {
    const Signals signals = Signals{1} << static_cast<unsigned int>(signalNumber - 1);
    struct sigaction previous;
    if (pendingQ(signals)) {
        const bool installed = !SVSystemActions::install(signalNumber, action, previous);
        if (installed) {
            letIn(signals);
        }
        return installed;
    }
    if (information != nullptr && svfaultQ(signalNumber, *information) &&
        !onRecordQ(signalNumber, action)) {
        leftToFault = {signalNumber, action.sa_flags, interruptedInstruction(context),
                       information->si_addr, action.sa_sigaction};
    }
    return false;
}

bool SVLeftAction::takes(int signalNumber, siginfo* information, void* context) {
    if (leftToFault.signalNumber != signalNumber || information == nullptr ||
        !leftToFault.sameQ(signalNumber, *information, context)) {
        return false;
    }
    struct sigaction left = leftToFault.action();
    struct sigaction previous;
    if (left.sa_handler == SIG_DFL || left.sa_handler == SIG_IGN) {
        leftToFault.signalNumber = 0;
        return !SVSystemActions::install(signalNumber, left, previous);
    }
    SVSignalHandler(signalNumber, left, false, false, true)(information, context);
    return true;
}

}  // namespace Sorvane
