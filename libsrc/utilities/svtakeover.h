// Taking a signal over without losing one.
//
// The problem. Between the operating system's swap of the action and the moment when the handler
// that was there before is on record, an arriving signal would miss that handler.
//
// The mechanism. A signal that is being taken over is marked. A dispatch that meets the mark keeps
// what arrived and returns. Whoever takes over clears the mark when the record is published, and
// sends what was kept again, as it came and to the thread that it came to. A fault of the code
// itself is not kept: it comes again by itself when the dispatch returns.
//
// Whoever keeps a signal looks at the mark again afterwards, and sends what is kept itself if the
// mark is gone; whoever clears the mark looks at what is kept afterwards. Both in sequentially
// consistent order, so that one of them sees the other and nothing stays behind.
#ifndef SORVANE_SVTAKEOVER_H
#define SORVANE_SVTAKEOVER_H

#include <atomic>
#include <csignal>

#include "../support/svsignalhandler.h"

namespace Sorvane {

/// Marks a signal as being taken over for the length of a scope, and sends what was kept at its
/// end. Threads: any. Signal context: any context.
class SVTakeOver {
public:
    explicit SVTakeOver(int signalNumber) noexcept;
    SVTakeOver(const SVTakeOver&) = delete;
    SVTakeOver& operator=(const SVTakeOver&) = delete;
    ~SVTakeOver();

    /// Whether a signal is being taken over.
    static bool underWayQ(int signalNumber) noexcept {
        return existsQ(signalNumber) && marks[signalNumber].load() != 0;
    }

    /// Keeps an arrived signal if it is being taken over. Result: whether the dispatch is to
    /// return. Signal context: handler only.
    static bool keptQ(int signalNumber, const siginfo* information) noexcept {
        return underWayQ(signalNumber) && kept(signalNumber, information);
    }

private:
    /// The kernel's own highest number; the C library's SIGRTMAX is a call, and no constant.
    static constexpr int highestSignal = 64;

    static bool existsQ(int signalNumber) noexcept {
        return signalNumber >= 1 && signalNumber <= highestSignal;
    }
    static bool kept(int signalNumber, const siginfo* information) noexcept;
    static void sendWhatWasKept(int signalNumber) noexcept;

    static std::atomic<unsigned int> marks[highestSignal + 1];

    const int m_signalNumber;
};

}  // namespace Sorvane

#endif
