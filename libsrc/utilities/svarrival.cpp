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

// Whether there is another dispatch than this one, which may have installed the library just now.
bool othersDispatchQ() noexcept {
    return svshared(SVSignalHandlerManager::numberOfManagers).load() -
               svmanagersOutsideDispatch.load() >
           1;
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

bool SVArrival::sendOn(siginfo* information, void* context) {
    const bool delivered = information != nullptr && heldBackQ(m_signalNumber);
    struct sigaction host;
    {
        const SVGate gate;
        m_seen = SVOwnership::count(m_signalNumber);
        if (!lateQ()) {
            return false;
        }
        host = SVOwnership::actionOfHost(m_signalNumber);
        struct sigaction current;
        const bool installed =
            !SVSystemActions::ask(m_signalNumber, current) && svownActionQ(current);
        const bool first = SVOwnership::sendsOnFirstQ(m_signalNumber);
        const bool byHand = installed ? !othersDispatchQ() : !first;
        if (!delivered || byHand ||
            (installed && SVSystemActions::install(m_signalNumber, host, current))) {
            SVOwnership::take(m_signalNumber);
            m_seen = SVOwnership::count(m_signalNumber);
            return false;
        }
    }
    // Where the system's queue is full the host's handler is called from here.
    if (!comesAgainQ(m_signalNumber, *information) &&
        !sendToThisThread(m_signalNumber, *information)) {
        SVSignalHandler(m_signalNumber, host, true, true, true)(information, context);
    }
    return true;
}

void SVArrival::settle(const struct sigaction& displaced) {
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
        struct sigaction& remembered = SVOwnership::actionOfHost(signalNumber);
        return SVSystemActions::ask(signalNumber, current).then([&] {
            if (!svownActionQ(current) && !svsameActionQ(current, remembered)) {
                return SVFailure();
            }
            remembered = displaced;
            return SVSystemActions::install(signalNumber, displaced, current);
        });
    });
}

}  // namespace Sorvane
