// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svleftaction.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstdint>
#include <iterator>

#include "../registry/svownership.h"
#include "../support/svhandlercontext.h"
#include "svarrival.h"
#include "svownaction.h"
#include "svsharedstate.h"
#include "svsubscriptionentries.h"
#include "svsystemactions.h"

namespace Sorvane {

namespace {

// As the kernel has them: with a bit for each signal.
using Signals = std::uint64_t;

Signals bitOf(int signalNumber) noexcept {
    return Signals{1} << static_cast<unsigned int>(signalNumber - 1);
}

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

// What a handler of this thread's has left last, and for which arrival: any that comes next, or the
// same fault.
struct Left {
    void (*handler)(int, siginfo*, void*);
    int flags;
    SVOwnership::Count count;
    bool anyArrival;
    std::uintptr_t instruction;
    const void* address;

    bool sameQ(int itsSignal, const siginfo* information, const void* context) const noexcept {
        return SVLeftAction::anyQ(itsSignal) && count == SVOwnership::count(itsSignal) &&
               (anyArrival || sameFaultQ(itsSignal, information, context));
    }

private:
    bool sameFaultQ(int itsSignal, const siginfo* information, const void* context) const noexcept {
        return information != nullptr && svfaultQ(itsSignal, *information) &&
               address == information->si_addr && instruction == interruptedInstruction(context);
    }
};
constinit thread_local Left leftLast
    __attribute__((tls_model("initial-exec"))) = {nullptr, 0, 0, false, 0, nullptr};

void rememberForNext(int signalNumber, const struct sigaction& action) noexcept {
    leftLast = {
        action.sa_sigaction, action.sa_flags, SVOwnership::count(signalNumber), true, 0, nullptr};
    SVLeftAction::signalOfLast = signalNumber;
}

void rememberForFault(int signalNumber, const struct sigaction& action, const siginfo& information,
                      const void* context) noexcept {
    rememberForNext(signalNumber, action);
    leftLast.anyArrival = false;
    leftLast.instruction = interruptedInstruction(context);
    leftLast.address = information.si_addr;
}

void forget(int signalNumber) noexcept {
    if (SVLeftAction::anyQ(signalNumber)) {
        SVLeftAction::signalOfLast = 0;
    }
}

// A caller who has the signal held back, and calls the library by hand, wants it to stay so.
bool letInQ(int signalNumber, const siginfo* information, const void* context) noexcept {
    return svkernelsQ(information, context) &&
           sigismember(&static_cast<const ucontext_t*>(context)->uc_sigmask, signalNumber) == 0;
}

// For one signal. Another thread for which the process is about to end waits until they are said.
struct LastWords {
    static constexpr unsigned int beingSaid = 1;
    static constexpr unsigned int said = 2;

    std::atomic<unsigned int> state{0};
    std::atomic<const void*> speaker{nullptr};
};
constinit LastWords lastWords[highestSignal + 1];

void sayLastWords(int signalNumber, siginfo* information, void* context) {
    if (!svfatalQ(signalNumber)) {
        return;
    }
    LastWords& words = lastWords[signalNumber];
    const void* const self = SVHandlerContext::thisThread();
    unsigned int state = 0;
    if (words.state.compare_exchange_strong(state, LastWords::beingSaid)) {
        words.speaker.store(self);
        SVSubscriptionEntries::callAll(signalNumber, information, context);
        words.state.store(LastWords::said);
        syscall(SYS_futex, &words.state, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
        return;
    }
    while (words.state.load() == LastWords::beingSaid && words.speaker.load() != self) {
        syscall(SYS_futex, &words.state, FUTEX_WAIT_PRIVATE, LastWords::beingSaid, nullptr, nullptr,
                0);
    }
}

bool onRecordQ(int signalNumber, const struct sigaction& action) noexcept {
    const SVTablesPin pin;
    return svrecordOf(pin.tableOf(signalNumber), reinterpret_cast<void*>(action.sa_sigaction)) !=
           nullptr;
}

// Of a signal that ends the process the library has to hear when the handler gives up that gets it.
bool giveToPending(int signalNumber, const struct sigaction& action, siginfo* information,
                   void* context) {
    if (svfatalQ(signalNumber) && !svnobodysActionQ(action)) {
        rememberForNext(signalNumber, action);
        return false;
    }
    if (action.sa_handler == SIG_DFL) {
        sayLastWords(signalNumber, information, context);
    }
    struct sigaction previous;
    const bool installed = !SVSystemActions::install(signalNumber, action, previous);
    if (installed) {
        letIn(bitOf(signalNumber));
    }
    return installed;
}

}  // namespace

constinit thread_local int SVLeftAction::signalOfLast __attribute__((tls_model("initial-exec"))) =
    0;

bool svfaultQ(int signalNumber, const siginfo& information) noexcept {
    constexpr int faults[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE};
    const bool byTheCode = std::count(std::begin(faults), std::end(faults), signalNumber) != 0;
    // A defect of memory that nobody has touched does not come again.
    const bool onlyReported = signalNumber == SIGBUS && information.si_code == BUS_MCEERR_AO;
    return byTheCode && information.si_code > 0 && !onlyReported;
}

bool SVLeftAction::leave(int signalNumber, const struct sigaction& action, bool putBack,
                         siginfo* information, void* context) {
    forget(signalNumber);
    if (!putBack && !svnobodysActionQ(action) && onRecordQ(signalNumber, action)) {
        return false;
    }
    if (pendingQ(bitOf(signalNumber)) && letInQ(signalNumber, information, context)) {
        return giveToPending(signalNumber, action, information, context);
    }
    if (information != nullptr && svfaultQ(signalNumber, *information)) {
        rememberForFault(signalNumber, action, *information, context);
    }
    return false;
}

bool SVLeftAction::putBackQ(int signalNumber) noexcept {
    struct sigaction current;
    return !SVSystemActions::ask(signalNumber, current) && svownActionQ(current) &&
           !svsameActionQ(current, SVOwnAction::of(signalNumber));
}

struct sigaction SVLeftAction::meantByHand(int signalNumber) noexcept {
    const SVGate gate;
    return SVOwnership::stoodFor(signalNumber);
}

SVLeftAction::Taker SVLeftAction::take(int signalNumber, siginfo* information, void* context,
                                       bool putBack, struct sigaction& left) {
    left = {};
    if (leftLast.sameQ(signalNumber, information, context)) {
        left.sa_sigaction = leftLast.handler;
        left.sa_flags = leftLast.flags;
        if (leftLast.anyArrival) {
            forget(signalNumber);
        }
    } else if (forget(signalNumber); putBack) {
        left = meantByHand(signalNumber);
    } else {
        return Taker::everybody;
    }
    if (!svnobodysActionQ(left)) {
        return Taker::leftHandler;
    }
    if (left.sa_handler == SIG_DFL ||
        (information != nullptr && svfaultQ(signalNumber, *information))) {
        sayLastWords(signalNumber, information, context);
    }
    struct sigaction previous;
    if (SVSystemActions::install(signalNumber, left, previous)) {
        return Taker::everybody;
    }
    if (information != nullptr && !svfaultQ(signalNumber, *information)) {
        svsendAgain(signalNumber, *information);
    }
    return Taker::system;
}

}  // namespace Sorvane
