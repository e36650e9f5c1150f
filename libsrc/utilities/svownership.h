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
// - If the signal is the host's, what was displaced is put back.
// - If it was given back and taken over anew meanwhile, whoever has taken it over may have found
//   the library's own action in the place of what was displaced; so that is put on record for him.
// Both look again after they have installed something.
// A dispatch that finds no records for a signal that is the host's, or has changed hands meanwhile,
// has it arrive once more, where it belongs by now. Only once: who has installed the library by
// hand for a signal that was given back gets it here.
//
// stopHandlingSignal() and clearHandler() do not change the count: a dispatch takes back a signal
// that is handed back by these while it runs.
#ifndef SORVANE_SVOWNERSHIP_H
#define SORVANE_SVOWNERSHIP_H

#include <atomic>

#include "../support/svsignalnumber.h"
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

/// Makes the signal the host's if the count is still the one that was seen, or the signal is the
/// host's. Result: whether it is the host's.
bool giveToHost(int signalNumber, Count seen) noexcept;

/// Makes the signal the library's.
void takeFromHost(int signalNumber) noexcept;

/// Whether a signal that has arrived here, when its count was the one that was seen, belongs
/// elsewhere by now, because it is the host's or was meanwhile.
/// Parameters: recordsQ, whether records have been found for it.
bool changedHandsQ(int signalNumber, Count now, bool recordsQ) noexcept;
inline bool belongsElsewhereQ(int signalNumber, Count seen, bool recordsQ) noexcept {
    const Count now = count(signalNumber);
    return (now != seen || now % 2 == 1) && changedHandsQ(signalNumber, now, recordsQ);
}

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
