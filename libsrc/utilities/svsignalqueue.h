// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A queue of arrived signals: handlers put them in, on any thread, and whoever has the time takes
// them out, in the same order.
//
// The problem. A handler may neither wait nor allocate, may interrupt another one that is just
// putting a signal in, on the same thread or on another one, and may come in the middle of a
// taking-out.
//
// The mechanism. A ring of places, as many as the queue's user has asked for. Each place has a
// turn: the position that it can be filled for, or that position plus one when it has been filled
// for it. A handler claims the next position by one compare-and-swap, which succeeds only if the
// place has that turn; writes the signal; and says last that the place is filled. Taking out is the
// same the other way round, and gives the place the turn of the next round. Nobody waits for
// anybody: a place that is claimed and not yet filled looks like the end of the queue, and whoever
// fills it tells that there is something after that.
#ifndef SORVANE_SVSIGNALQUEUE_H
#define SORVANE_SVSIGNALQUEUE_H

#include <atomic>
#include <csignal>

#include "../support/svobject.h"
#include "../support/svsignalhandler.h"

namespace Sorvane {

/// Threads: any at once, for everything but the construction and the destruction.
/// Signal context: any, but for these. No exceptions.
class SVSignalQueue final : public SVObject {
public:
    /// A queue with room for at least so many signals; null without memory for it.
    static SVSignalQueue* make(unsigned int capacity) noexcept;
    SVSignalQueue(const SVSignalQueue&) = delete;
    SVSignalQueue& operator=(const SVSignalQueue&) = delete;
    ~SVSignalQueue() noexcept override;

    /// Result: false if there is no room.
    bool put(const siginfo& information) noexcept;

    /// Result: false if there is nothing.
    bool take(siginfo& information) noexcept;

private:
    struct Place : public SVObject {
        ~Place() noexcept override {}

        std::atomic<unsigned int> turn{0};
        siginfo information;
    };

    SVSignalQueue(Place* places, unsigned int count) noexcept;

    static constexpr unsigned int turnOfTaking = 1;

    Place& placeOf(unsigned int position) noexcept { return m_places[position & (m_count - 1)]; }

    Place* const m_places;
    const unsigned int m_count;  ///< a power of two
    std::atomic<unsigned int> m_nextToFill{0};
    std::atomic<unsigned int> m_nextToTake{0};
};

}  // namespace Sorvane

#endif
