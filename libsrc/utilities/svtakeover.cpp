#include "svtakeover.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "svsignalhandlermanager.h"

namespace Sorvane {

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

// Such a fault is that of the instruction that was interrupted, which runs again.
bool faultQ(int signalNumber, const siginfo& information) noexcept {
    const bool byTheCode = signalNumber == SIGSEGV || signalNumber == SIGBUS ||
                           signalNumber == SIGILL || signalNumber == SIGFPE;
    return byTheCode && information.si_code > 0;
}

// What can't be sent to its thread, because that has ended, goes to the process; what can't be
// sent at all, because the queue is full, is dispatched here.
void send(int signalNumber, KeptSignal& arrived) noexcept {
    const long process = getpid();
    if (syscall(SYS_rt_tgsigqueueinfo, process, arrived.thread, signalNumber,
                &arrived.information) == 0) {
        return;
    }
    if (errno == ESRCH &&
        syscall(SYS_rt_sigqueueinfo, process, signalNumber, &arrived.information) == 0) {
        return;
    }
    actualSignalHandler(signalNumber, &arrived.information, nullptr);
}

// The list has the latest first; they go out in the order in which they came.
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

// By signal number; constant-initialised, like the marks.
constinit std::atomic<KeptSignal*> keptSignals[65];

}  // namespace

constinit std::atomic<unsigned int> SVTakeOver::marks[highestSignal + 1];

void SVTakeOver::sendWhatWasKept(int signalNumber) noexcept {
    static_assert(sizeof(keptSignals) / sizeof(keptSignals[0]) == highestSignal + 1);
    const int errnoBefore = errno;
    KeptSignal* arrived = reversed(keptSignals[signalNumber].exchange(nullptr));
    while (arrived != nullptr) {
        KeptSignal* const next = arrived->next;
        send(signalNumber, *arrived);
        delete arrived;
        arrived = next;
    }
    errno = errnoBefore;
}

SVTakeOver::SVTakeOver(int signalNumber) noexcept : m_signalNumber(signalNumber) {
    if (existsQ(m_signalNumber)) {
        marks[m_signalNumber].fetch_add(1);
    }
}

SVTakeOver::~SVTakeOver() {
    if (existsQ(m_signalNumber) && marks[m_signalNumber].fetch_sub(1) == 1) {
        sendWhatWasKept(m_signalNumber);
    }
}

bool SVTakeOver::kept(int signalNumber, const siginfo* information) noexcept {
    if (information == nullptr) {
        return false;
    }
    if (faultQ(signalNumber, *information)) {
        return true;
    }
    KeptSignal* const arrived = new KeptSignal(*information, syscall(SYS_gettid));
    if (arrived == nullptr) {
        return false;
    }
    std::atomic<KeptSignal*>& latest = keptSignals[signalNumber];
    arrived->next = latest.load();
    while (!latest.compare_exchange_weak(arrived->next, arrived)) {
    }
    if (!underWayQ(signalNumber)) {
        sendWhatWasKept(signalNumber);
    }
    return true;
}

}  // namespace Sorvane
