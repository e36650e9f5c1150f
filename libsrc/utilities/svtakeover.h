// Taking a signal over without losing one.
//
// The problem. Between the operating system's swap of the action and the moment when the handler
// that was there before is on record, an arriving signal would miss that handler.
//
// The mechanism. A signal that is being taken over is marked. A dispatch that meets the mark keeps
// what arrived and returns. Whoever takes over clears the mark when the record is published, and
// sends what was kept again, as it came and to the thread that it came to. The kernel does not let
// one thread send to another what says that the kernel or kill() sent it; such a signal travels
// with another code, which the dispatch that it arrives at changes back. Of several that came to
// another thread and would merge on the way, the last one is sent, and those before it are called
// by whoever sends it.
//
// Whoever keeps a signal looks at the mark again afterwards, and sends what is kept itself if the
// mark is gone; whoever clears the mark looks at what is kept afterwards. Both in sequentially
// consistent order, so that one of them sees the other and nothing stays behind.
//
// A fault of the code itself is not kept: it comes again by itself when the dispatch returns. A
// handler's own fault would then come again for ever, if the handler has interrupted its thread's
// own take-over of that signal; it is dispatched at once, by what is on record when the interrupted
// change has been completed. If that has not been begun, because the thread has only just come back
// from the operating system, nobody knows the handler that was there before.
#ifndef SORVANE_SVTAKEOVER_H
#define SORVANE_SVTAKEOVER_H

#include <atomic>
#include <csignal>

#include "../support/svsignalhandler.h"

namespace Sorvane {

/// Marks a signal as being taken over for the length of a scope, and sends what was kept at its
/// end, from where the exceptions of handlers come that are called then.
/// Threads: any. Signal context: any context.
class SVTakeOver {
public:
    explicit SVTakeOver(int signalNumber) noexcept;
    SVTakeOver(const SVTakeOver&) = delete;
    SVTakeOver& operator=(const SVTakeOver&) = delete;
    ~SVTakeOver() noexcept(false);

    /// Whether a signal is being taken over.
    static bool underWayQ(int signalNumber) noexcept;

    /// Keeps an arrived signal if it is being taken over, and makes one that was kept and sent
    /// again what it was. Result: whether the dispatch is to return. Signal context: handler only.
    static bool keptQ(int signalNumber, siginfo* information) {
        return attention.load() != 0 && kept(signalNumber, information);
    }

    /// Has a signal that has arrived arrive once more on this thread, as it came. A fault does so
    /// by itself. Signal context: handler only.
    static void sendAgain(int signalNumber, const siginfo& information);

private:
    static bool kept(int signalNumber, siginfo* information);
    static bool faultWaitsQ(int signalNumber) noexcept;
    static void send(int signalNumber, long thread, siginfo information);
    static void sendWhatWasKept(int signalNumber, bool heldBackHereQ);

    /// How many signals are being taken over, or are on their way with another code.
    static std::atomic<unsigned int> attention;

    const int m_signalNumber;
    const int m_exceptionsBefore;
};

}  // namespace Sorvane

#endif
