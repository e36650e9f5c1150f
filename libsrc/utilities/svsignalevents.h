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
/// counted, and told by lost().
///
/// In a child made by fork() it is without function: nothing arrives, next() finds nothing and the
/// descriptor is still the parent's, so take it out of the child's loop and destroy it. A child
/// that wants events makes its own.
///
/// Threads: any at once, for next(), lost() and getFileDescriptor(); one at a time for the others.
/// What is taken while another thread is just taking is as late as that; a handler of the host's
/// that interrupts this one's and leaves by siglongjmp may leave a place that is not used again,
/// and everything behind it. Signal context: normal context only, but for lost() and activeQ():
/// any.
class SORVANE_API SVSignalEvents : public SVObject {
public:
    /// How many signals find a place if the user says nothing.
    static constexpr unsigned int defaultCapacity = 1024;

    /// Begins to take these signals in.
    /// Parameters: signalNumbers, each counts once; capacity, how many find a place that have not
    /// been taken yet, at least so many; ignored, what becomes of those that the host ignores.
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

    /// Whether all of its signals come; whether they do after those that don't have been begun once
    /// more. Both as for SVSignalSubscription, with renew()'s errors.
    bool activeQ() const noexcept;
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
