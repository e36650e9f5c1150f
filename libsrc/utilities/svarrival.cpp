// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svarrival.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>

#include "svleftaction.h"
#include "svownaction.h"
#include "svsharedstate.h"
#include "svsystemactions.h"

namespace Sorvane {

// On i386 two pointers to them stand before them; elsewhere their distance has to do. What is
// looked at may be anything on the stack.
[[gnu::no_sanitize_address]] bool svkernelsQ(const void* information,
                                             const void* context) noexcept {
    if (information == nullptr || context == nullptr) {
        return false;
    }
    const auto distance = static_cast<std::intptr_t>(reinterpret_cast<std::uintptr_t>(context) -
                                                     reinterpret_cast<std::uintptr_t>(information));
#if defined(__x86_64__)
    constexpr std::intptr_t fromContext = 304;
    return distance == -fromContext;
#elif defined(__i386__)
    constexpr std::uintptr_t near = 1U << 16U;
    const auto* const pointers = static_cast<const void* const*>(information) - 2;
    const bool onStack = reinterpret_cast<std::uintptr_t>(pointers) -
                             reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0)) <
                         near;
    return onStack && distance == sizeof(siginfo) && pointers[0] == information &&
           pointers[1] == context;
#else
    constexpr std::intptr_t frame = 1024;
    return distance < frame && distance > -frame;
#endif
}

bool svbeingHandledQ(int signalNumber) noexcept {
    if ((SVOwnAction::of(signalNumber).sa_flags & SA_NODEFER) != 0) {
        return true;
    }
    sigset_t heldBack;
    pthread_sigmask(SIG_BLOCK, nullptr, &heldBack);
    return sigismember(&heldBack, signalNumber) == 1;
}

namespace {

// If the host replaces what was found just between, its new action counts.
SVFailure putBack(int signalNumber, const struct sigaction& hosts, const struct sigaction& found) {
    struct sigaction replaced = found;
    struct sigaction previous;
    const SVFailure failure = SVSystemActions::install(signalNumber, hosts, replaced);
    const bool newer = !svownActionQ(replaced) && !svsameActionQ(replaced, found);
    return newer ? SVSystemActions::install(signalNumber, replaced, previous) : failure;
}

// Whose an arrival is that found the signal handed back.
enum class Receiver {
    library,    // it has the signal again, or was called by hand
    host,       // to whom the arrival is sent on
    plainHost,  // the same, without what has come with it: whoever has put the library back by its
                // function alone has not asked for that, and there may be anything
    displaced,  // by whoever calls the library by hand: what the host had before
    nobody,
};

// Parameters: informed, whether anything has come with the arrival; heldBack, whether this thread
// holds the signal back outside the gate, as inside a handler of the signal; action, set to that by
// which the host may have to be called. Signal context: inside the gate.
[[gnu::noinline]] Receiver receiverOf(int signalNumber, bool informed, bool heldBack,
                                      struct sigaction& action) noexcept {
    action = SVOwnership::actionOfHost(signalNumber);
    struct sigaction current = action;
    static_cast<void>(SVSystemActions::ask(signalNumber, current));
    const bool installed = svownActionQ(current);
    const bool notHeldBack = installed && (current.sa_flags & SA_NODEFER) != 0;
    const bool delivered = informed && (notHeldBack || heldBack);
    const bool hosts = SVOwnership::handedBackQ(SVOwnership::count(signalNumber));
    const bool late = delivered && hosts;  // GCOVR_EXCL_BR_LINE: taken over just before
    const bool first = SVOwnership::sendsOnFirstQ(signalNumber);
    const SVSignalHandlerTable* const table = svregistry.tableOf(signalNumber);
    const bool leftForGood =
        SVOwnership::leftForGoodQ(signalNumber) && (table == nullptr || table->used == 0);
    const bool byHand = !SVOwnership::Unsettled::anyQ(signalNumber);
    const bool putBackByHost =
        installed && byHand && leftForGood && SVOwnership::displacedByHostQ(signalNumber);
    if (putBackByHost) {
        action = SVSystemActions::meantBy(signalNumber, current);
    }
    if (late && (installed ? !byHand || putBackByHost : first)) {
        if (installed) {
            SVOwnership::allowSendingOn(signalNumber);
            putBack(signalNumber, action, current);
        }
        return installed && (current.sa_flags & SA_SIGINFO) == 0 ? Receiver::plainHost
                                                                 : Receiver::host;
    }
    if (!installed && leftForGood) {
        action = SVOwnership::stoodFor(signalNumber);
        return action.sa_handler == current.sa_handler ? Receiver::nobody : Receiver::displaced;
    }
    SVOwnership::take(signalNumber);
    return Receiver::library;
}

// The call of this thread's for what the library has displaced. That may call the library by hand
// again, which ends there. It is told from the next delivery as a dispatch is that is called back:
// that has a frame of its own; without the kernel's frame nobody can tell, and it is taken for the
// same.
struct Displaced {
    const void* frame;
    const siginfo* information;
    int signalNumber;

    bool calledBackQ(const Displaced& inner, const void* context) const noexcept {
        return reinterpret_cast<std::uintptr_t>(frame) >
                   reinterpret_cast<std::uintptr_t>(inner.frame) &&
               signalNumber == inner.signalNumber &&
               (information == inner.information || !svkernelsQ(inner.information, context));
    }
};
constinit thread_local Displaced innermost
    __attribute__((tls_model("initial-exec"))) = {nullptr, nullptr, 0};

[[gnu::noinline]] void callHosts(int signalNumber, struct sigaction& action, siginfo* information,
                                 void* context) {
    SVSignalHandler(signalNumber, action, true, true, true)(information, context);
}

void callDisplaced(int signalNumber, struct sigaction& action, siginfo* information,
                   void* context) {
    const Displaced call = {__builtin_frame_address(0), information, signalNumber};
    if (!innermost.calledBackQ(call, context)) {
        const Displaced outer = innermost;
        innermost = call;
        callHosts(signalNumber, action, information, context);
        innermost = outer;
    }
}

}  // namespace

bool svsendAgain(int signalNumber, siginfo& information) noexcept {
    return syscall(SYS_rt_tgsigqueueinfo, getpid(), syscall(SYS_gettid), signalNumber,
                   &information) == 0;
}

// Where the system's queue is full the host's handler is called from here.
bool svsendOn(int signalNumber, siginfo* information, void* context) {
    struct sigaction action;
    Receiver receiver = Receiver::library;
    const bool heldBack = svbeingHandledQ(signalNumber);
    {
        const SVGate gate;
        receiver = receiverOf(signalNumber, information != nullptr, heldBack, action);
    }
    if (receiver == Receiver::plainHost) {
        syscall(SYS_tgkill, getpid(), syscall(SYS_gettid), signalNumber);
    } else if (receiver == Receiver::host && !svfaultQ(signalNumber, *information) &&
               !svsendAgain(signalNumber, *information)) {
        callHosts(signalNumber, action, information, context);
    } else if (receiver == Receiver::displaced) {
        callDisplaced(signalNumber, action, information, context);
    }
    return receiver != Receiver::library;
}

SVArrival::SVArrival(int signalNumber) noexcept
    : m_signalNumber(signalNumber),
      m_seen(SVOwnership::count(signalNumber)),
      m_putBack(SVOwnership::displacedByHostQ(signalNumber) &&
                SVLeftAction::putBackQ(signalNumber)) {}

// First installs, then looks: whoever hands the signal back after the look displaces the library.
void SVArrival::stayInstalled(siginfo* information, void* context, bool resetsItself) const {
    struct sigaction displaced;
    unsigned int changes = 0;
    do {
        changes = SVOwnAction::changes(m_signalNumber);
        const SVOwnership::Unsettled unsettled(m_signalNumber);
        const SVOwnership::Count before = SVOwnership::count(m_signalNumber);
        SVSystemActions::installOwn(m_signalNumber, displaced).throwIfAny();
        if (ownerChangedQ()) {
            settle(displaced, before);
            return;
        }
    } while (svownActionQ(displaced)
                 ? (resetsItself && leaveTheDefault(information, context)) ||
                       (SVOwnership::displacedByHostQ(m_signalNumber) &&
                        putBackByHandlerQ(displaced, changes) &&
                        leaveWhatItStoodFor(information, context))
                 : SVLeftAction::leave(m_signalNumber, displaced, false, information, context));
}

// Functions of their own, from here on, so that they take no stack from where there is nothing to
// do. What was put back before the dispatch began is told to whoever ends the library's time.
// Parameters: changes, how often the own action had changed before it was installed.
[[gnu::noinline]] bool SVArrival::putBackByHandlerQ(const struct sigaction& displaced,
                                                    unsigned int changes) const noexcept {
    if (svsameActionQ(displaced, SVOwnAction::of(m_signalNumber)) ||
        changes != SVOwnAction::changes(m_signalNumber)) {
        return false;
    }
    if (m_putBack) {
        const SVGate gate;
        if (SVOwnership::librarysQ(m_signalNumber)) {
            SVOwnership::rememberHosts(m_signalNumber,
                                       SVSystemActions::meantBy(m_signalNumber, displaced));
        }
    }
    return !m_putBack;
}

[[gnu::noinline]] bool SVArrival::leaveTheDefault(siginfo* information, void* context) const {
    const bool fault = information != nullptr && svfaultQ(m_signalNumber, *information);
    return (fault || svfatalQ(m_signalNumber)) &&
           SVLeftAction::leave(m_signalNumber, {}, false, information, context);
}

[[gnu::noinline]] bool SVArrival::leaveWhatItStoodFor(siginfo* information, void* context) const {
    return SVLeftAction::leave(m_signalNumber, SVLeftAction::meantByHand(m_signalNumber), true,
                               information, context);
}

[[gnu::noinline]] void SVArrival::settle(const struct sigaction& displaced,
                                         SVOwnership::Count before) const {
    svchange(nullptr, [&] { return settleInside(displaced, before); });
}

// The signal has changed hands, and the library was installed all the same. What is done:
// - This thread handed it back, in a handler: that is undone.
// - It was the library that was displaced: whoever displaced the host's action puts that back.
// - The library has it again: what was displaced is the host's, and was hidden from whoever took
//   the signal over, unless it is older than the last hand-back. So it is put on record.
// - It is the host's: what was displaced is put back, or what the signal was handed back to if that
//   is newer; but not over what the host has installed since.
SVFailure SVArrival::settleInside(const struct sigaction& displaced,
                                  SVOwnership::Count before) const {
    struct sigaction current;
    if (SVOwnership::handedBackByThisThreadQ(m_signalNumber)) {
        // Another dispatch may have put the host's action back.
        SVOwnership::take(m_signalNumber);
        return SVSystemActions::ask(m_signalNumber, current).then([&] {
            return svownActionQ(current) ? SVFailure()
                                         : SVSystemActions::installOwn(m_signalNumber, current);
        });
    }
    if (svownActionQ(displaced)) {
        return SVFailure();
    }
    const bool newer = SVOwnership::handedBackBeforeQ(m_signalNumber, before);
    if (SVOwnership::librarysQ(m_signalNumber)) {
        if (newer) {
            SVOwnership::rememberHosts(m_signalNumber, displaced);
        }
        return newer ? svkeepDisplaced(m_signalNumber, displaced) : SVFailure();
    }
    SVOwnership::allowSendingOn(m_signalNumber);
    const struct sigaction& handedBackTo = SVOwnership::actionOfHost(m_signalNumber);
    return SVSystemActions::ask(m_signalNumber, current).then([&] {
        return svownActionQ(current) || (newer && svsameActionQ(current, handedBackTo))
                   ? putBack(m_signalNumber, newer ? displaced : handedBackTo, current)
                   : SVFailure();
    });
}

}  // namespace Sorvane
