// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The gate: how the shared state changes while signals arrive.
//
// The problem. A signal may arrive at any instruction, on any thread, and what it runs reads the
// shared state and may change it, without a lock. It must never meet a change that is half done,
// and it can't wait for the code that it has interrupted.
//
// The mechanism. Whoever changes the shared state holds all signals back from its own thread,
// closes the gate, makes the change, opens the gate, and lets the signals in again. So no handler
// comes in between on the same thread, and for every other thread a change is not begun or done:
// - A reader (a dispatch, a walk over the records) pins the tables that it finds published and then
//   looks at the gate. If that is open, whoever closes it later finds the pin, and leaves what is
//   pinned as it is (see svpin.h and svregistry.h). If it is closed, the reader lets go and sleeps
//   until it is open.
// - Another one who changes something waits until he can close the gate himself.
// Nobody waits for longer than a few microseconds: whoever has closed the gate can't be interrupted
// by any handler, waits for nobody, and runs no code but the library's own.
//
// Inside the gate, therefore: no ordinary heap, because a thread that sleeps at the gate may have
// interrupted it; no lock; no user's code; no exception, because the C++ runtime allocates for it.
// What fails is told, and thrown when the gate is open and the signals are let in.
// Storage comes from the library's own store, and arguments have been copied before.
//
// Two signals are not held back: SIGSYS, which a sandbox needs to carry out a trapped system call,
// and SIGTRAP, by which a debugger steps. Their handlers, and only theirs, can run on the thread
// that has closed the gate. It is open to that thread: what is published is whole at every
// instruction, with the change made or not (see svregistry.h). Such a handler must not change
// anything itself, nor leave by siglongjmp, when it has come inside the gate. Faults are held back
// like everything else: one inside the gate, as from a stack that overflows there, ends the
// process.
//
// The words. `word` is a futex with priority inheritance: 0, or the number of the thread that has
// the gate, which tells its process, too. A thread with a real-time priority that waits for it
// lends that to the holder. `changes` is odd while the gate is closed, and is what readers look at.
// - Closing increments `changes`, then looks for pins; a reader pins, then looks at `changes`. The
//   four are sequentially consistent: at least one sees the other, and no weaker order says that.
// - Opening increments it with release, and looking at it acquires: who finds the gate open sees
//   all changes whole. So do those who close it next, also when the kernel has handed them the
//   futex.
//
// fork. The child has no other threads; if one of them had closed the gate, its change is lost, and
// what is published is the state before or after. fork() runs what is registered with
// pthread_atfork, and goOnInChild() opens the gate there. A parent can't hold the gate meanwhile:
// fork() takes the heap's locks, and a thread that has them may be asleep at the gate. A child of
// _Fork() or of a bare clone() finds out by the number in the word, when it first needs the gate.
//
// What is assumed: 32-bit words are lock-free, and a thread does not end inside the gate.
#ifndef SORVANE_SVGATE_H
#define SORVANE_SVGATE_H

#include <atomic>

#include "../support/svhandlercontext.h"

namespace Sorvane {

/// Holds this thread's signals back and the gate closed for the length of a scope. One inside
/// another on the same thread changes nothing.
/// Threads: any. Signal context: any context. May change errno.
class SVGate {
public:
    static bool closedByThisThreadQ() noexcept {
        return (changes.load(std::memory_order_seq_cst) & 1U) != 0 &&
               holder.load(std::memory_order_relaxed) == SVHandlerContext::thisThread();
    }

    /// Whether this thread need not wait.
    static bool openQ() noexcept {
        return (changes.load(std::memory_order_seq_cst) & 1U) == 0 || closedByThisThreadQ();
    }

    /// How often it has been closed and opened; and how often that came to its end: not the same
    /// while it is closed. Signal context: any.
    static unsigned int changesSoFar() noexcept { return changes.load(std::memory_order_acquire); }
    static unsigned int changesWhole() noexcept { return changesSoFar() & ~1U; }

    /// Sleeps until the gate is open, unless this thread has closed it.
    static void waitUntilOpen() noexcept;

    /// For the only thread of a child after fork(). Signal context: with all signals held back.
    static void goOnInChild() noexcept;

    /// The two halves of it: holds signals back for the length of a scope; keeps the gate closed
    /// inside such a scope.
    class SignalsHeldBack {
    public:
        SignalsHeldBack() noexcept;
        SignalsHeldBack(const SignalsHeldBack&) = delete;
        SignalsHeldBack& operator=(const SignalsHeldBack&) = delete;
        ~SignalsHeldBack();

    private:
        /// As the kernel has it: with a bit for each signal.
        unsigned long m_before[64 / (8 * sizeof(unsigned long))];
    };
    class Closed {
    public:
        Closed() noexcept;
        ~Closed();

    private:
        const SVHandlerContext::Scope m_heapOutOfBounds;
        const bool m_locked;
        const bool m_closed;
    };

private:
    static bool lock() noexcept;
    static void unlock() noexcept;
    static void giveUpChange() noexcept;

    static std::atomic<unsigned int> word;
    static std::atomic<unsigned int> changes;
    static std::atomic<const void*> holder;  ///< the thread that has made `changes` odd

    const SignalsHeldBack m_signalsHeldBack;
    const Closed m_closed;
};

}  // namespace Sorvane

#endif
