#include "svgate.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "../support/svwait.h"
#include "svjournal.h"

namespace Sorvane {

constinit std::atomic<unsigned int> SVGate::word{0};
constinit std::atomic<unsigned int> SVGate::changes{0};

namespace {

static_assert(std::atomic<unsigned int>::is_always_lock_free);
static_assert(std::atomic<const void*>::is_always_lock_free);

// The thread that has closed the gate, and how often it has done so.
constinit std::atomic<const void*> holder{nullptr};
constinit unsigned int nesting = 0;

unsigned int numberOfThisThread() noexcept {
    return static_cast<unsigned int>(syscall(SYS_gettid));
}

// Whether a thread that has the gate is none of this process: then this is a child of it.
bool ofAnotherProcessQ(unsigned int thread) noexcept {
    return syscall(SYS_tgkill, getpid(), static_cast<long>(thread & FUTEX_TID_MASK), 0) != 0 &&
           errno == ESRCH;
}

constexpr unsigned long bitOf(int signalNumber) noexcept {
    return 1UL << static_cast<unsigned int>(signalNumber - 1);
}

}  // namespace

// By the system call: the C library's function lets 32 and 33 in, and with them a cancellation.
SVGate::SignalsHeldBack::SignalsHeldBack() noexcept {
    SignalMask all;
    for (unsigned long& part : all) {
        part = ~0UL;
    }
    all[0] &= ~(bitOf(SIGTRAP) | bitOf(SIGSYS));
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, all, m_before, sizeof(SignalMask));
}

SVGate::SignalsHeldBack::~SignalsHeldBack() {
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, m_before, nullptr, sizeof(SignalMask));
}

bool SVGate::closedByThisThreadQ() noexcept {
    return holder.load(std::memory_order_relaxed) == SVHandlerContext::thisThread();
}

void SVGate::lock() noexcept {
    const unsigned int self = numberOfThisThread();
    for (;;) {
        unsigned int found = 0;
        if (word.compare_exchange_strong(found, self, std::memory_order_acquire)) {
            return;
        }
        if (ofAnotherProcessQ(found)) {
            if (word.compare_exchange_strong(found, self, std::memory_order_acquire)) {
                giveUpChange();
                return;
            }
        } else if (syscall(SYS_futex, &word, FUTEX_LOCK_PI_PRIVATE, 0, nullptr, nullptr, 0) == 0) {
            changes.load(std::memory_order_acquire);
            return;
        } else if (errno != EAGAIN && errno != EINTR) {
            waitALittle();
        }
    }
}

void SVGate::unlock() noexcept {
    unsigned int self = numberOfThisThread();
    if (!word.compare_exchange_strong(self, 0, std::memory_order_release)) {
        syscall(SYS_futex, &word, FUTEX_UNLOCK_PI_PRIVATE, 0, nullptr, nullptr, 0);
    }
}

// The change of a thread that this process does not have.
void SVGate::giveUpChange() noexcept {
    SVJournal::undo();
    nesting = 0;
    holder.store(nullptr, std::memory_order_relaxed);
    if ((changes.load(std::memory_order_relaxed) & 1U) != 0) {
        changes.fetch_add(1, std::memory_order_release);
    }
}

SVGate::SVGate() noexcept {
    if (!closedByThisThreadQ()) {
        lock();
        holder.store(SVHandlerContext::thisThread(), std::memory_order_relaxed);
        changes.fetch_add(1, std::memory_order_seq_cst);
    }
    ++nesting;
}

SVGate::~SVGate() {
    if (--nesting == 0) {
        changes.fetch_add(1, std::memory_order_release);
        holder.store(nullptr, std::memory_order_relaxed);
        unlock();
    }
}

// Signals are held back meanwhile: a handler must not keep others from the gate.
void SVGate::waitUntilOpen() noexcept {
    if (closedByThisThreadQ()) {
        return;
    }
    const SignalsHeldBack signalsHeldBack;
    lock();
    unlock();
}

void SVGate::goOnInChild() noexcept {
    if (closedByThisThreadQ()) {
        word.store(numberOfThisThread(), std::memory_order_relaxed);
        return;
    }
    word.store(0, std::memory_order_relaxed);
    giveUpChange();
}

}  // namespace Sorvane
