// Whose a signal is: the library's, or the host's again.
//
// The problem. The last manager's teardown gives a signal back to the host's handler. A dispatch of
// that signal on another thread, which the teardown knows nothing of, may come to the tables when
// they are gone, and ends with installing the library again; and a teardown that was interrupted
// just before it gives a signal back, while it was completed and the signal taken over anew, gives
// it back once more. Neither can know beforehand, and neither may keep the other waiting.
//
// The mechanism. Each signal has a count, odd while the signal is the host's. A teardown makes it
// odd, before it gives the signal back; whoever takes a signal over makes it even, before the
// operating system's swap. Whoever is about to install something that may come too late reads the
// count before, and afterwards looks at the count and at what was displaced:
// - If the signal was given back, what was displaced is put back.
// - If it was given back and taken over anew meanwhile, whoever has taken it over may have found
//   the library's own action in the place of what was displaced; so that is put on record for him.
// Both look again after they have installed something, and both do it under the mark of a
// take-over, so that what arrives meanwhile is kept until it is right. A dispatch has to do so only
// while a teardown goes on; otherwise none begins before its manager ends. A dispatch that finds no
// records for a signal that is the host's, or has changed hands meanwhile, has it arrive once more,
// where it belongs by now; so does one that finds records of the state after the teardown. Whoever
// calls the library by hand for a signal that was given back gets an ordinary dispatch, and the
// signal is the library's again.
//
// stopHandlingSignal() and clearHandler() do not change the count: a dispatch takes back a signal
// that is handed back by these while it runs.
#ifndef SORVANE_SVOWNERSHIP_H
#define SORVANE_SVOWNERSHIP_H

#include <atomic>

#include "../support/svsignalnumber.h"
#include "svlifecycle.h"
#include "svsignalhandlermanager.h"

namespace Sorvane {

/// Threads: any. Signal context: any context.
namespace SVOwnership {

/// The count of a signal.
using Count = unsigned int;
extern std::atomic<Count> counts[highestSignal + 1];
inline Count count(int signalNumber) noexcept {
    return counts[signalExistsQ(signalNumber) ? signalNumber : 0].load();
}
inline bool hostsQ(Count count) noexcept {
    return count % 2 == 1;
}

/// The count that a dispatch compares with later ones: the one from before the signal was given
/// back, if the teardown that did so goes on.
inline Count countAtArrival(int signalNumber) noexcept {
    const Count now = count(signalNumber);
    return hostsQ(now) && SVLifecycle::currentTeardown() != 0 ? now - 1 : now;
}

/// Makes the signal the host's if the count is still the one that was seen, or the signal is the
/// host's. Result: whether it is the host's.
bool giveToHost(int signalNumber, Count seen) noexcept;

/// Makes the signal the library's.
void takeFromHost(int signalNumber) noexcept;

/// For each signal, how often a registration has been about to install the library. Whoever hands
/// signals back compares the numbers of before with those of after.
class Registrations {
public:
    Registrations() noexcept;
    bool changedQ(int signalNumber) const noexcept;
    static void add(int signalNumber) noexcept;

private:
    unsigned int m_before[highestSignal + 1];
};

/// Whether a signal that has arrived here, when its count was the one that was seen, belongs
/// elsewhere by now, because it is the host's or was meanwhile. Then it is to be sent on: the
/// answer is yes once for each count. sendsOnQ() is its rarely needed half. Parameters: recordsQ,
/// whether records have been found for it.
bool sendsOnQ(int signalNumber, Count now, bool recordsQ) noexcept;
inline bool belongsElsewhereQ(int signalNumber, Count seen, bool recordsQ) noexcept {
    const Count now = count(signalNumber);
    return (now != seen || hostsQ(now)) && sendsOnQ(signalNumber, now, recordsQ);
}

/// Whether a signal is the library's, as it was when its count was seen, and stays so as long as
/// the caller's manager lives: no teardown begins before that ends.
inline bool staysOursQ(int signalNumber, Count seen) noexcept {
    return !hostsQ(seen) && SVLifecycle::currentTeardown() == 0 && count(signalNumber) == seen;
}

/// Installs the library after a dispatch for a signal for which that can't be said.
/// Errors: those of installHandlerInSystem() and of SVRegistry::storeRecord().
void installAfterDispatch(SVSignalHandlerManager& manager, int signalNumber, Count seen);

/// Set right what the system has for a signal, after the library was installed for it, which
/// displaced what is given; or after the host's handler was, for a teardown that somebody else has
/// ended meanwhile. The count that was seen is the one before.
/// Errors: those of installHandlerInSystem() and of SVRegistry::storeRecord().
void settle(SVSignalHandlerManager& manager, SVSignalHandler displaced, Count seen);
void settleLateHandBack(SVSignalHandlerManager& manager, const SVSignalHandler& displaced,
                        Count seen);

}  // namespace SVOwnership

/// Whether a record's handler is the library's own.
inline bool ownHandlerQ(const SVSignalHandler& record) noexcept {
    return record.getHandlerFunction() == reinterpret_cast<void*>(&actualSignalHandler);
}

/// Whether it is none that the host has to get back: the library's own, the default action, or the
/// ignoring one.
bool nobodysHandlerQ(const SVSignalHandler& record) noexcept;

}  // namespace Sorvane

#endif
