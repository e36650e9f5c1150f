// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svgate.h"

#include <linux/futex.h>
#include <sys/mman.h>
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

// In a page that the kernel wipes in a child that gets a copy of the memory, however that is made:
// 0 until somebody in this process needs a number, and different from its parent's then. Null: not
// asked for yet. Without such a page every number is asked for anew.
using Process = std::atomic<unsigned int>;
constinit std::atomic<Process*> wipedPage{nullptr};
constinit Process withoutPage{0};
constinit std::atomic<unsigned int> processes{0};

Process* makePage() noexcept {
    const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* const page =
        // cppcheck-suppress invalidFunctionArg ; a mapping without a file has no descriptor
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    auto* made = static_cast<Process*>(page);
    if (page == MAP_FAILED || madvise(page, size, MADV_WIPEONFORK) != 0) {
        made = &withoutPage;
    }
    Process* found = nullptr;
    const bool first = wipedPage.compare_exchange_strong(found, made);
    if (!first || made == &withoutPage) {
        munmap(page, size);
    }
    return first ? made : found;
}

unsigned int numberOfThisProcess() noexcept {
    Process* page = wipedPage.load(std::memory_order_acquire);
    if (page == nullptr) {
        page = makePage();
    }
    unsigned int number = page->load(std::memory_order_relaxed);
    if (number == 0 && page != &withoutPage) {
        const unsigned int next = processes.fetch_add(1) + 1;
        number = page->compare_exchange_strong(number, next) ? next : number;
    }
    return number;
}

// What the kernel calls a thread, which costs a system call, and in which process it was asked.
struct ThreadNumber {
    unsigned int number;
    unsigned int process;
};
constinit thread_local ThreadNumber threadNumber
    __attribute__((tls_model("initial-exec"))) = {0, 0};

unsigned int numberOfThisThread() noexcept {
    const unsigned int process = numberOfThisProcess();
    if (process == 0 || process != threadNumber.process) {
        threadNumber = {static_cast<unsigned int>(syscall(SYS_gettid)), process};
    }
    return threadNumber.number;
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
