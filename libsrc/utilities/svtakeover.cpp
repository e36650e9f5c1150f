#include "svtakeover.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <exception>

#include "../support/svsignalnumber.h"
#include "../support/svwait.h"
#include "svregistry.h"

namespace Sorvane {

constinit std::atomic<unsigned int> SVTakeOver::attention{0};

namespace {

// An arrived signal that waits for its handler to be on record.
class KeptSignal final : public SVObject {
public:
    KeptSignal(const siginfo& arrived, long receiver) noexcept
        : information(arrived), thread(receiver) {}
    KeptSignal(const KeptSignal&) = delete;
    KeptSignal& operator=(const KeptSignal&) = delete;
    ~KeptSignal() noexcept override {}

    siginfo information;
    long thread;
    KeptSignal* next = nullptr;
};

static_assert(std::atomic<KeptSignal*>::is_always_lock_free);

// By signal number, the latest first; and how many are taking each signal over. The list is only
// ever pushed onto and taken as a whole.
constinit std::atomic<KeptSignal*> keptSignals[highestSignal + 1];
constinit std::atomic<unsigned int> marks[highestSignal + 1];

// How many of the marks are this thread's.
constinit thread_local volatile unsigned char ownMarks[highestSignal + 1]
    __attribute__((tls_model("initial-exec")));

long thisThread() noexcept {
    return syscall(SYS_gettid);
}

// Such a fault is that of the instruction that was interrupted, which runs again.
bool faultQ(int signalNumber, const siginfo& information) noexcept {
    const bool byTheCode = signalNumber == SIGSEGV || signalNumber == SIGBUS ||
                           signalNumber == SIGILL || signalNumber == SIGFPE;
    // A defect of memory that nobody has touched does not come again.
    const bool onlyReported = signalNumber == SIGBUS && information.si_code == BUS_MCEERR_AO;
    return byTheCode && information.si_code > 0 && !onlyReported;
}

// --- Codes that the kernel keeps for itself. They travel as negative ones that nobody uses, and
// only those of which some are on their way are changed back.

constexpr int travelling = -0x10000;
constexpr int furthestCode = 0x1000;

constinit std::atomic<unsigned int> codesOnTheirWay{0};

bool kernelsOwnQ(int code) noexcept {
    return code >= 0 || code == SI_TKILL;
}

bool changeBack(siginfo& information) noexcept {
    const int code = information.si_code - travelling;
    unsigned int onTheirWay = codesOnTheirWay.load();
    if (!kernelsOwnQ(code) || code > furthestCode) {
        return false;
    }
    while (onTheirWay != 0) {
        if (codesOnTheirWay.compare_exchange_weak(onTheirWay, onTheirWay - 1)) {
            information.si_code = code;
            return true;
        }
    }
    return false;
}

// --- Sending what was kept

// The C library declares it as throwing nothing, but a handler that is called on this very thread
// may throw. Through a pointer the compiler does not take the declaration at its word.
long (*volatile const systemCall)(long number, ...) = &syscall;

bool sendToThread(int signalNumber, long thread, siginfo& information) {
    return systemCall(SYS_rt_tgsigqueueinfo, static_cast<long>(getpid()), thread,
                      static_cast<long>(signalNumber), &information) == 0;
}

bool sendToProcess(int signalNumber, siginfo& information) {
    return systemCall(SYS_rt_sigqueueinfo, static_cast<long>(getpid()),
                      static_cast<long>(signalNumber), &information) == 0;
}

// What can't be sent to its thread, because that has ended, goes to the process.
bool sendElsewhere(int signalNumber, long thread, siginfo& information) {
    return sendToThread(signalNumber, thread, information) ||
           (errno == ESRCH && sendToProcess(signalNumber, information));
}

// They go out in the order in which they came.
KeptSignal* reversed(KeptSignal* list) noexcept {
    KeptSignal* result = nullptr;
    while (list != nullptr) {
        KeptSignal* const next = list->next;
        list->next = result;
        result = list;
        list = next;
    }
    return result;
}

// Of the signals below the real-time ones, one at a time is pending for a thread.
bool mergesQ(int signalNumber) noexcept {
    constexpr int firstRealTimeSignal = 32;
    return signalNumber < firstRealTimeSignal;
}

bool anyOfThreadQ(const KeptSignal* list, long thread) noexcept {
    while (list != nullptr && list->thread != thread) {
        list = list->next;
    }
    return list != nullptr;
}

// False without memory.
bool keep(int signalNumber, const siginfo& information) noexcept {
    KeptSignal* const arrived = new KeptSignal(information, thisThread());
    if (arrived == nullptr) {
        return false;
    }
    std::atomic<KeptSignal*>& latest = keptSignals[signalNumber];
    arrived->next = latest.load();
    while (!latest.compare_exchange_weak(arrived->next, arrived)) {
    }
    return true;
}

}  // namespace

// What can't be sent at all, because the system's queue is full, is dispatched here, without a
// context.
void SVTakeOver::send(int signalNumber, long thread, siginfo information) {
    if (thread == thisThread()) {
        if (sendToThread(signalNumber, thread, information)) {
            return;
        }
    } else if (!kernelsOwnQ(information.si_code) || information.si_code > furthestCode) {
        if (sendElsewhere(signalNumber, thread, information)) {
            return;
        }
    } else {
        attention.fetch_add(1);
        codesOnTheirWay.fetch_add(1);
        information.si_code += travelling;
        if (sendElsewhere(signalNumber, thread, information)) {
            return;
        }
    }
    actualSignalHandler(signalNumber, &information, nullptr);
}

// All are sent, also if a handler that is called meanwhile throws; the first exception goes on.
// What would merge with a later one, because it would not arrive before that is sent, is dispatched
// here.
void SVTakeOver::sendWhatWasKept(int signalNumber, bool heldBackHereQ) {
    const int errnoBefore = errno;
    const long here = heldBackHereQ ? 0 : thisThread();
    std::exception_ptr thrown;
    KeptSignal* arrived = reversed(keptSignals[signalNumber].exchange(nullptr));
    while (arrived != nullptr) {
        KeptSignal* const next = arrived->next;
        siginfo information = arrived->information;
        const long thread = arrived->thread;
        const bool merges = mergesQ(signalNumber) && thread != here && anyOfThreadQ(next, thread);
        delete arrived;
        try {
            if (merges) {
                actualSignalHandler(signalNumber, &information, nullptr);
            } else {
                send(signalNumber, thread, information);
            }
        } catch (...) {
            if (thrown == nullptr) {
                thrown = std::current_exception();
            }
        }
        arrived = next;
    }
    errno = errnoBefore;
    if (thrown != nullptr) {
        std::rethrow_exception(thrown);
    }
}

void SVTakeOver::sendAgain(int signalNumber, const siginfo& information) {
    if (!faultQ(signalNumber, information)) {
        send(signalNumber, thisThread(), information);
    }
}

SVTakeOver::SVTakeOver(int signalNumber) noexcept
    : m_signalNumber(signalNumber), m_exceptionsBefore(std::uncaught_exceptions()) {
    if (signalExistsQ(signalNumber)) {
        attention.fetch_add(1);
        ownMarks[signalNumber] = static_cast<unsigned char>(ownMarks[signalNumber] + 1);
        marks[signalNumber].fetch_add(1);
    }
}

// An exception that the take-over itself ends with goes on, and not that of a handler.
SVTakeOver::~SVTakeOver() noexcept(false) {
    if (!signalExistsQ(m_signalNumber)) {
        return;
    }
    const bool last = marks[m_signalNumber].fetch_sub(1) == 1;
    ownMarks[m_signalNumber] = static_cast<unsigned char>(ownMarks[m_signalNumber] - 1);
    attention.fetch_sub(1);
    if (!last) {
        return;
    }
    try {
        sendWhatWasKept(m_signalNumber, false);
    } catch (...) {
        if (std::uncaught_exceptions() == m_exceptionsBefore) {
            // cppcheck-suppress exceptThrowInDestructor ; declared noexcept(false)
            throw;
        }
    }
}

bool SVTakeOver::underWayQ(int signalNumber) noexcept {
    return signalExistsQ(signalNumber) && marks[signalNumber].load() != 0;
}

// Whether the fault's own thread can go on to the end of the take-over when it returns.
bool SVTakeOver::faultWaitsQ(int signalNumber) noexcept {
    if (ownMarks[signalNumber] == 0) {
        waitALittle();
        return true;
    }
    SVRegistry::completeInterrupted();
    return false;
}

bool SVTakeOver::kept(int signalNumber, siginfo* information) {
    if (information == nullptr) {
        return false;
    }
    if (changeBack(*information)) {
        attention.fetch_sub(1);
    }
    if (!underWayQ(signalNumber)) {
        return false;
    }
    if (faultQ(signalNumber, *information)) {
        return faultWaitsQ(signalNumber);
    }
    if (!keep(signalNumber, *information)) {
        return false;
    }
    if (!underWayQ(signalNumber)) {
        sendWhatWasKept(signalNumber, true);
    }
    return true;
}

}  // namespace Sorvane
