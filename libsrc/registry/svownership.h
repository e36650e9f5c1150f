// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Whose a signal is: the library's, or the host's again.
//
// The problem. One thread hands a signal back while another one dispatches it. The dispatch ends
// with installing the library again, and would take the signal back; and a signal for which the
// kernel has already chosen the library comes to a dispatch when it is the host's by then. Neither
// can be told from what the system has installed.
//
// The mechanism. Each signal has a count, even while it is the host's and odd while it is the
// library's, and beside it the action to which it was handed back last, and by which thread. They
// change inside the gate only. Handing back always changes the count, also when the signal is the
// host's already: before it installs the host's action, and once more after it.
//
// A dispatch reads the count before it pins the tables that it is going to read, and once more
// after it; if that is another one, it begins anew.
// - The count is even, and the signal was handed back: this arrival is late and belongs to whom the
//   signal belongs by now. It is sent on, as it came, to the same thread, once for each count.
//   Should it come here again all the same, somebody has called the library by hand, and has an
//   ordinary dispatch. If the library is what is installed, another dispatch may have done that and
//   not looked at the count yet; such dispatches are counted (see Unsettled). Then the host's
//   action is put back first. Without one the library was installed by hand, and the signal is its
//   own again.
// - Otherwise the records are called, the library is installed again, and the count is read once
//   more. If it has not changed, nobody has handed the signal back before that installation. If it
//   has, the rest is done inside the gate: what the installation displaced is put back, as it is
//   the host's, unless this thread itself handed the signal back, in a handler of this dispatch;
//   that is undone by the installation, as always. Of several dispatches that meet there, the one
//   that displaced the host's action puts it back. Only what was displaced after the last
//   hand-back's end is newer than what that installed; the count just before the installation
//   tells. What was sent on meanwhile may have met the library again, and is sent on once more:
//   that changes the count, too.
// If the host itself installs an action in the few instructions in which two of these overlap, that
// counts as done before the hand-back.
// A take-over that finds the library installed although the signal is the host's has come between a
// dispatch's installation and its last look; it takes the remembered action for what the host had.
//
// What the host had when a signal was taken over is remembered, too, the default action and being
// ignored included; what it installs over the library counts when the signal is taken over once
// more. It is what the host gets back when the signal is left for good: when nobody but
// the host is on record any more. The ignoring that the library leaves, where nobody had a handler,
// is not the host's; it does not replace what is remembered. A signal is also left for good by one
// of its handlers, so no dispatch takes it back, and a walk that is under way goes on to the host's
// handlers, whose records are gone.
//
// A host that installs something over the library may keep what it has found, to call it or to put
// it back. By that it means what the library stood for then, also when the signal has been taken
// over again, or left for good, since. So that is remembered as well.
#ifndef SORVANE_SVOWNERSHIP_H
#define SORVANE_SVOWNERSHIP_H

#include <atomic>
#include <csignal>

#include "../support/svhandlercontext.h"
#include "../support/svsignalnumber.h"

namespace Sorvane {

/// For all signal numbers; those that do not exist are nobody's. No exceptions.
namespace SVOwnership {

using Count = unsigned int;
extern std::atomic<Count> counts[highestSignal + 1];

/// The count of a signal. Threads: any. Signal context: any context.
inline Count count(int signalNumber) noexcept {
    return counts[signalExistsQ(signalNumber) ? signalNumber : 0].load(std::memory_order_seq_cst);
}
inline bool librarysQ(int signalNumber) noexcept {
    return count(signalNumber) % 2 == 1;
}
/// Whether the signal is the host's because it was handed back. One that never was taken over is
/// not, although the library may have been installed for it by hand.
constexpr bool handedBackQ(Count count) noexcept {
    return count % 2 == 0 && count != 0;
}

// --- Signal context of the rest: inside the gate.

/// The signal becomes the library's.
void take(int signalNumber) noexcept;

/// Whatever was sent on may be sent on once more.
void allowSendingOn(int signalNumber) noexcept;

/// The signal becomes the host's, with this action; the one said before that is installed, the
/// other after it.
void beginHandBack(int signalNumber, const struct sigaction& action) noexcept;
inline void endHandBack(int signalNumber) noexcept {
    allowSendingOn(signalNumber);
}

/// The action that a signal was handed back to last, and whether that had come to its end when the
/// count was read.
const struct sigaction& actionOfHost(int signalNumber) noexcept;
bool handedBackBeforeQ(int signalNumber, Count count) noexcept;

/// Whether this thread was the last one to hand the signal back.
bool handedBackByThisThreadQ(int signalNumber) noexcept;

/// What the host had when the signal was taken over last; the default action if it never was.
/// That changes when the signal is about to be taken, with what was displaced for it.
const struct sigaction& hostsAction(int signalNumber) noexcept;
void rememberHosts(int signalNumber, const struct sigaction& found) noexcept;

/// The same with what the host has installed over the library. What the library stood for until
/// then; what is remembered, if there was no such installation.
void rememberDisplacement(int signalNumber, const struct sigaction& installed) noexcept;
const struct sigaction& stoodFor(int signalNumber) noexcept;

/// Whether there was such an installation. Signal context: any.
extern std::atomic<bool> displaced[highestSignal + 1];
inline bool displacedByHostQ(int signalNumber) noexcept {
    return displaced[signalExistsQ(signalNumber) ? signalNumber : 0].load();
}

/// What the host has for a signal that is its own: what was found, or what is remembered if the
/// library has left that.
const struct sigaction& hostsActionIf(int signalNumber, const struct sigaction& found) noexcept;

/// The hand-back that has begun leaves the signal for good.
void leaveForGood(int signalNumber) noexcept;

/// Whether the signal is the host's because it was left for good.
bool leftForGoodQ(int signalNumber) noexcept;

/// How often a signal was left for good. Signal context: any.
extern std::atomic<unsigned int> leavings[highestSignal + 1];
inline unsigned int timesLeft(int signalNumber) noexcept {
    return leavings[signalExistsQ(signalNumber) ? signalNumber : 0].load();
}

/// Whether this thread sends the signal on for the first time since it was handed back.
bool sendsOnFirstQ(int signalNumber) noexcept;

/// Lasts while the library may be what is installed for a signal that is the host's: from before a
/// dispatch installs it again until it has looked whose the signal is, and has set right what it
/// found; and as long as the signal is being handed back. As far as others can tell, it lasts for
/// good if a handler that interrupts the dispatch leaves by siglongjmp, or if the thread is not in
/// a forked child. Signal context: any.
class Unsettled {
public:
    explicit Unsettled(int signalNumber) noexcept
        : m_signalNumber(signalNumber),
          m_cell(cells[SVHandlerContext::spread(SVHandlerContext::thisThread()) % cellCount]),
          m_inCell(m_cell.takeFor(signalNumber)) {
        if (!m_inCell) {
            ++timesOf(m_signalNumber);
        }
    }
    Unsettled(const Unsettled&) = delete;
    Unsettled& operator=(const Unsettled&) = delete;
    ~Unsettled() {
        if (m_inCell) {
            m_cell.signalNumber.store(0, std::memory_order_release);
        } else {
            --timesOf(m_signalNumber);
        }
    }

    /// Whether there is one for a signal, so that the library may hide what the host has.
    static bool anyQ(int signalNumber) noexcept;

private:
    // Most threads have one to themselves; where it is taken, a count takes its place.
    struct alignas(64) Cell {
        bool takeFor(int itsSignal) noexcept {
            int none = 0;
            return signalNumber.load(std::memory_order_relaxed) == 0 &&
                   signalNumber.compare_exchange_strong(none, itsSignal);
        }

        std::atomic<int> signalNumber;  ///< 0: free
    };
    static constexpr unsigned int cellCount = 32;
    static Cell cells[cellCount];

    static std::atomic<unsigned int>& timesOf(int signalNumber) noexcept {
        return times[signalExistsQ(signalNumber) ? signalNumber : 0];
    }
    static std::atomic<unsigned int> times[highestSignal + 1];

    const int m_signalNumber;
    Cell& m_cell;
    const bool m_inCell;
};

}  // namespace SVOwnership

/// Whether two actions do the same.
bool svsameActionQ(const struct sigaction& one, const struct sigaction& other) noexcept;

}  // namespace Sorvane

#endif
