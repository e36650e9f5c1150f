// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Signals as events, for who has an event loop or a thread of his own.
#ifndef SORVANE_SVSIGNALEVENTS_H
#define SORVANE_SVSIGNALEVENTS_H

#include <atomic>
#include <initializer_list>

#include "../support/svexport.h"
#include "../support/svobject.h"
#include "svsignalsubscription.h"

namespace Sorvane {

class SVSignalQueue;

/// Gives signals to an event loop: a file descriptor becomes readable when one has arrived, and
/// next() takes those that have, in their order, whole, without waiting.
///
/// It subscribes to each of its signals (see SVSignalSubscription, whose rules hold for it), so no
/// thread has to hold a signal back, and the host's handlers go on being called. Its handler copies
/// what arrived to a place that was allocated before, and never waits. What finds no place is
/// counted, and told by lost(). SIGSEGV, SIGBUS and SIGHUP are no use here: without a handler of
/// the host's the process ends with status 0 before anybody takes the event.
///
/// In a child made by fork() it is without function: nothing arrives, next() finds nothing and the
/// descriptor is still the parent's, so take it out of the child's loop and destroy it. A child
/// that wants events makes its own.
///
/// Threads: any at once, for next(), lost() and getFileDescriptor(); one at a time for the others.
/// While another thread is inside next(), a signal may become available only when that returns. If
/// a handler of the host's interrupts this object's and leaves by siglongjmp, the place that was
/// just being filled is lost, and those behind it. Signal context: normal context only; lost() and
/// activeQ(): any.
class SORVANE_API SVSignalEvents : public SVObject {
public:
    /// How many signals find a place if the user says nothing.
    static constexpr unsigned int defaultCapacity = 1024;

    /// Begins to take these signals in.
    /// Parameters: signalNumbers, each counts once; capacity, there is room for at least so many
    /// signals that have not been taken yet; ignored, what becomes of those that the host ignores.
    /// Errors: those of SVSignalSubscription's constructor, with nothing subscribed to then;
    /// SVException "Unable to allocate space for signal events.", allocation failed, 0;
    /// "Unable to make a file descriptor for signal events.", operating system call failed, errno.
    explicit SVSignalEvents(std::initializer_list<int> signalNumbers,
                            unsigned int capacity = defaultCapacity,
                            SVIgnoredSignal ignored = SVIgnoredSignal::leaveAlone);
    /// The same for signal numbers from first up to, but not including, last.
    SVSignalEvents(const int* first, const int* last, unsigned int capacity = defaultCapacity,
                   SVIgnoredSignal ignored = SVIgnoredSignal::leaveAlone);
    SVSignalEvents(const SVSignalEvents&) = delete;
    SVSignalEvents& operator=(const SVSignalEvents&) = delete;

    /// Ends the subscriptions and closes the descriptor. What has not been taken is gone.
    ~SVSignalEvents() noexcept override;

    /// Readable, for poll(), epoll and the like, while a signal can be taken. Don't read from it or
    /// write to it, and don't close it.
    int getFileDescriptor() const noexcept { return m_descriptor; }

    /// Takes the signal that has arrived first. Result: false if there is none; then the descriptor
    /// is not readable until the next one arrives.
    bool next(siginfo& information) noexcept;

    /// Whether all of its signals come, as for SVSignalSubscription.
    bool activeQ() const noexcept;
    /// Begins those that don't come once more. Result: whether all come now. Errors: those of
    /// SVSignalSubscription::renew().
    bool renew();

    /// How many have found no place since the beginning.
    unsigned long lost() const noexcept { return m_lost.load(); }

private:
    class Subscriptions;

    static void arrive(int signalNumber, siginfo* information, void* context, void* events);

    bool inForkedChildQ() const noexcept;
    void tell() const noexcept;
    void release() noexcept;

    SVSignalQueue* m_queue = nullptr;
    Subscriptions* m_subscriptions = nullptr;
    int m_descriptor = -1;
    unsigned int m_forks;
    std::atomic<unsigned long> m_lost{0};
};

}  // namespace Sorvane

#endif
