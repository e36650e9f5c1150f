#include "svgate.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <iterator>

#include "../support/svwait.h"
#include "svregistry.h"

namespace Sorvane {

constinit std::atomic<unsigned int> SVGate::word{0};
constinit std::atomic<unsigned int> SVGate::changes{0};
constinit std::atomic<const void*> SVGate::holder{nullptr};

namespace {

static_assert(std::atomic<unsigned int>::is_always_lock_free);
static_assert(std::atomic<const void*>::is_always_lock_free);

unsigned int numberOfThisThread() noexcept {
    return static_cast<unsigned int>(syscall(SYS_gettid));
}

// Whether a thread that has the gate is none of this process: then this is a child of it.
bool ofAnotherProcessQ(unsigned int thread) noexcept {
    return syscall(SYS_tgkill, getpid(), static_cast<long>(thread & FUTEX_TID_MASK), 0) != 0 &&
           errno == ESRCH;
}

}  // namespace

// By the system call: the C library's function lets 32 and 33 in, and with them a cancellation.
SVGate::SignalsHeldBack::SignalsHeldBack() noexcept {
    decltype(m_before) signals;
    std::fill(std::begin(signals), std::end(signals), ~0UL);
    signals[0] &= ~(1UL << (SIGTRAP - 1) | 1UL << (SIGSYS - 1));
    syscall(SYS_rt_sigprocmask, SIG_BLOCK, signals, m_before, sizeof(signals));
}

SVGate::SignalsHeldBack::~SignalsHeldBack() {
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, m_before, nullptr, sizeof(m_before));
}

// False if this thread has the word already.
bool SVGate::lock() noexcept {
    const unsigned int self = numberOfThisThread();
    for (;;) {
        unsigned int found = 0;
        if (word.compare_exchange_strong(found, self, std::memory_order_acquire)) {
            return true;
        }
        if ((found & FUTEX_TID_MASK) == self) {
            return false;
        }
        if (ofAnotherProcessQ(found)) {
            // False if two of a child find it at the same instant.
            if (word.compare_exchange_strong(found, self, std::memory_order_acquire)) {
                giveUpChange();
                return true;
            }
        } else if (syscall(SYS_futex, &word, FUTEX_LOCK_PI_PRIVATE, 0, nullptr, nullptr, 0) == 0) {
            changes.load(std::memory_order_acquire);
            return true;
        } else {
            waitALittle();
        }
    }
}

// Without anybody waiting the word is as it was locked.
void SVGate::unlock() noexcept {
    unsigned int found = word.load(std::memory_order_relaxed);
    if ((found & FUTEX_WAITERS) != 0 ||
        !word.compare_exchange_strong(found, 0, std::memory_order_release)) {
        syscall(SYS_futex, &word, FUTEX_UNLOCK_PI_PRIVATE, 0, nullptr, nullptr, 0);
    }
}

// The change of a thread that this process does not have.
void SVGate::giveUpChange() noexcept {
    SVRegistry::countAnew();
    unsigned int closed = changes.load(std::memory_order_relaxed) | 1U;
    changes.compare_exchange_strong(closed, closed + 1, std::memory_order_release);
}

// A handler for SIGTRAP or SIGSYS may find the word locked by its own thread, before or after that
// has made `changes` odd.
SVGate::Closed::Closed() noexcept : m_locked(lock()), m_closed(!closedByThisThreadQ()) {
    if (m_closed) {
        holder.store(SVHandlerContext::thisThread(), std::memory_order_relaxed);
        changes.fetch_add(1, std::memory_order_seq_cst);
    }
}

SVGate::Closed::~Closed() {
    if (m_closed) {
        changes.fetch_add(1, std::memory_order_release);
    }
    if (m_locked) {
        unlock();
    }
}

// Signals are held back meanwhile: a handler must not keep others from the gate.
void SVGate::waitUntilOpen() noexcept {
    const SignalsHeldBack signalsHeldBack;
    if (lock()) {
        unlock();
    }
}

// A handler may have called fork() inside its own thread's gate; that goes on having it.
void SVGate::goOnInChild() noexcept {
    if (closedByThisThreadQ()) {
        word.store(numberOfThisThread(), std::memory_order_relaxed);
    } else {
        giveUpChange();
        word.store(0, std::memory_order_relaxed);
    }
}

}  // namespace Sorvane
