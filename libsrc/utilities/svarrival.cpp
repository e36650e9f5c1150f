#include "svarrival.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>

#include "svsharedstate.h"
#include "svsystemactions.h"

namespace Sorvane {

namespace {

// Whether the signal is being delivered to this thread, and its handler is not just called: the
// kernel holds it back meanwhile.
bool heldBackQ(int signalNumber) noexcept {
    sigset_t heldBack;
    pthread_sigmask(SIG_BLOCK, nullptr, &heldBack);
    return sigismember(&heldBack, signalNumber) == 1;
}

// Such a fault is that of the instruction that was interrupted, which runs again.
bool comesAgainQ(int signalNumber, const siginfo& information) noexcept {
    const bool byTheCode = signalNumber == SIGSEGV || signalNumber == SIGBUS ||
                           signalNumber == SIGILL || signalNumber == SIGFPE;
    // A defect of memory that nobody has touched does not come again.
    const bool onlyReported = signalNumber == SIGBUS && information.si_code == BUS_MCEERR_AO;
    return byTheCode && information.si_code > 0 && !onlyReported;
}

bool sendToThisThread(int signalNumber, siginfo& information) noexcept {
    return syscall(SYS_rt_tgsigqueueinfo, getpid(), syscall(SYS_gettid), signalNumber,
                   &information) == 0;
}

}  // namespace

bool svsendOn(int signalNumber, siginfo* information, void* context) {
    const bool delivered = information != nullptr && heldBackQ(signalNumber);
    struct sigaction host;
    {
        const SVGate gate;
        if (!SVOwnership::handedBackQ(SVOwnership::count(signalNumber))) {
            return false;
        }
        host = SVOwnership::actionOfHost(signalNumber);
        struct sigaction current;
        const bool installed =
            !SVSystemActions::ask(signalNumber, current) && svownActionQ(current);
        const bool first = SVOwnership::sendsOnFirstQ(signalNumber);
        if (!delivered || (installed ? !svothersDispatchQ() : !first)) {
            SVOwnership::take(signalNumber);
            return false;
        }
        if (installed) {
            SVOwnership::putBack(signalNumber, host);
            SVSystemActions::install(signalNumber, host, current);
        }
    }
    // Where the system's queue is full the host's handler is called from here.
    if (!comesAgainQ(signalNumber, *information) && !sendToThisThread(signalNumber, *information)) {
        SVSignalHandler(signalNumber, host, true, true, true)(information, context);
    }
    return true;
}

void SVArrival::settle(const struct sigaction& displaced) const {
    SVGate::pass([&] {
        const int signalNumber = m_signalNumber;
        struct sigaction current;
        bool kept = false;
        if (SVOwnership::handedBackByThisThreadQ(signalNumber)) {
            SVOwnership::take(signalNumber);
            return SVFailure();
        }
        // Taken over again, when the host's action was hidden by the library's.
        if (SVOwnership::librarysQ(signalNumber)) {
            return svkeepOnRecord(signalNumber, displaced, kept);
        }
        // Whoever has displaced the host's action puts it back.
        if (svownActionQ(displaced)) {
            return SVFailure();
        }
        return SVSystemActions::ask(signalNumber, current).then([&] {
            if (!svownActionQ(current) &&
                !svsameActionQ(current, SVOwnership::actionOfHost(signalNumber))) {
                return SVFailure();
            }
            SVOwnership::putBack(signalNumber, displaced);
            return SVSystemActions::install(signalNumber, displaced, current);
        });
    });
}

}  // namespace Sorvane
