// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The signal handler manager: a cheap handle onto the process's one signal-handling state.
#ifndef SORVANE_SVSIGNALHANDLERMANAGER_H
#define SORVANE_SVSIGNALHANDLERMANAGER_H

#include <csignal>
#include <iosfwd>

#include "../registry/svsignaltables.h"
#include "../support/svexception.h"
#include "../support/svexport.h"
#include "../support/svfailure.h"
#include "../support/svmutex.h"
#include "../support/svobject.h"
#include "../support/svsignalhandler.h"
#include "../support/svsignalhandlerdispositionset.h"
#include "../support/svstdallocator.h"

/// The one function that the manager installs with the operating system, for every signal that it
/// takes over. Calls the signal's records by the rules below, and installs itself again.
///
/// For SIGSEGV, SIGBUS and SIGHUP: if the signal has a valid pre-existing or external record, only
/// such records are called, and the process goes on; otherwise every valid record is called and
/// the process ends at once with status 0. For every other signal every valid record is called.
/// Subscriptions have records like others, and the last word when the host's handler gives up (see
/// SVSignalSubscription).
///
/// What a handler throws leaves it, and so does the SVException of an installation that the system
/// refuses, as a seccomp filter can. errno is left as it was.
/// Signal context: handler only. Threads: any, without a lock.
extern "C" SORVANE_PLAIN_API void actualSignalHandler(int signalNumber, siginfo* information,
                                                      void* context);

namespace Sorvane {

using ::actualSignalHandler;

/// A handle onto the process's signal-handling state, which all managers share. The first manager
/// makes the shared tables; the last one tears them down if signals are being handled then.
///
/// What holds for every operation unless it says otherwise:
///
/// Threads. Any number may use one manager at once. A manager made with its locking flag true takes
/// the process-wide lock around its work. One with the flag false never does. Either way an
/// operation is whole: no handler of this thread comes in between, and a dispatch or another
/// operation on another thread comes before or after it. For that an operation that changes
/// something holds this thread's signals back for the few microseconds that it takes; it waits for
/// no handler. What walks over several signals or records (start, stop, the lists) is whole for
/// each of them.
///
/// Signal context. Any, in every handler of every thread, for a manager with the locking flag
/// false; normal context only for one that locks. An operation that fails throws, and throwing
/// allocates.
///
/// Ownership. Everything that is passed is copied, and left unchanged.
///
/// Requests. Those that can't apply (a forbidden signal, a missing table, a missing entry) are
/// silently ignored. Nothing reports success.
///
/// Errors. SVException with the file "libsrc/utilities/svsignalhandlermanager", or a table's:
/// - "Unable to allocate new table", kind 5, code 0: no memory for a table, or for the copy of one
///   that is being read. Nothing has changed but that a new, empty table may be there.
/// - "installHandlerInSystem caught an error from sigaction.", kind 4, code errno: the operating
///   system refuses, as it does for SIGKILL. What was done before stays done.
/// - those of the tables' insert(), for a table that can't grow.
class SORVANE_API SVSignalHandlerManager : public SVObject {
public:
    // --- Lifetime ------------------------------------------------------------------------------

    /// The first manager makes the tables and resets the dispositions. Throws nothing: without
    /// memory for the tables, operations that must store fail later, and those that look find
    /// nothing. Parameters: locking, whether this manager's operations take the process-wide lock.
    explicit SVSignalHandlerManager(bool locking);

    SVSignalHandlerManager(const SVSignalHandlerManager&) = delete;
    SVSignalHandlerManager& operator=(const SVSignalHandlerManager&) = delete;

    /// The last manager, while signals are being handled, puts every valid pre-existing handler
    /// back, forgets all records and resets the dispositions. While signals are not being handled,
    /// all records stay for the next manager. Errors: a handler can't be put back. The lock then
    /// stays held, and the tables stay.
    ~SVSignalHandlerManager() noexcept(false) override;

    // --- Taking over and handing back signals --------------------------------------------------

    /// Takes over every signal from 1 to 60 that has records, as handleSignal() does. Does nothing
    /// when signals are being handled already, also for those that were handed back one by one.
    /// Errors: those of handleSignal(); the signals before are then taken over, and signals do not
    /// count as being handled.
    void startHandlingSignals();

    /// Hands one signal back: to its first pre-existing record, valid or not, or, when it has none,
    /// to SIG_IGN, for everybody. The records stay. Does nothing for a signal without a table; one
    /// that has a table is left ignored again each time, also if its records have been cleared.
    /// Signals still count as being handled: handleSignal() takes this one over again.
    void stopHandlingSignal(int signalNumber);

    /// Hands every signal from 1 to 60 back, one by one, and with it everybody's; but those whose
    /// disposition forbids it stay as they are. Does nothing when signals are not being handled.
    /// After an error signals still count as being handled.
    void stopHandlingSignals();

    /// Say whether the library may handle a signal; this takes effect at the next operation that
    /// asks, a stop included, which leaves alone what it may not handle. Numbers outside 1 to 60
    /// change nothing. These four take no lock, may be called in any context by any manager, and
    /// throw nothing.
    void setSignalDisposition(int signalNumber, bool handle);
    /// The same for all of them at once.
    void setSignalDispositions(SVSignalHandlerDispositionSet dispositions);

    /// Whether the library may handle a signal. The two are the same.
    bool getSignalDisposition(int signalNumber);
    /// The same.
    bool canHandleSignalFromDisposition(int signalNumber);

    // --- Dispatch ------------------------------------------------------------------------------

    /// Takes over one signal: makes sure that it has a table and, if its disposition allows,
    /// installs actualSignalHandler and keeps the handler that was there before as a pre-existing
    /// record, unless it was SIG_DFL, SIG_IGN, actualSignalHandler or a function already recorded.
    void handleSignal(int signalNumber);

    /// Call the signal's valid records, in slot order: all of them, or only the pre-existing and
    /// external ones. Signals are not held back meanwhile. What a handler throws leaves them.
    /// Parameters: information and context are handed on unchanged.
    void callHandlers(int signalNumber, void* information, void* context);
    /// The same for the pre-existing and external ones.
    void callOnlyPreexistingOrExternalHandlers(int signalNumber, void* information, void* context);

    /// Whether the signal has a valid record that is pre-existing or external. Throws nothing.
    bool hasPreexistingOrExternalHandlerQ(int signalNumber);

    /// Make a record: the manager's own, which has the mask and the flags of the handler that the
    /// host had when the signal was taken over last; one that ignores the signal; one with its
    /// default action. Signal context: any. Throw nothing.
    SVSignalHandler theSVHandler(int signalNumber);
    /// The one that ignores the signal.
    SVSignalHandler ignoreHandler(int signalNumber);
    /// The one with its default action.
    SVSignalHandler defaultHandler(int signalNumber);

    /// Ignores a signal with the operating system, and nowhere else.
    /// Result: the record of what was installed before. Signal context: any, without the lock.
    SVSignalHandler ignoreSignal(int signalNumber);

    // --- Registration --------------------------------------------------------------------------

    /// Register a handler for a signal: a record, or a function or a record of the operating system
    /// from which a valid record is made that is neither pre-existing nor external. A signal has
    /// one record for each function address; a later one replaces an earlier one. While signals are
    /// being handled, actualSignalHandler is installed for the signal at once; if that fails, the
    /// record stays. A list is registered front to back, each record by itself, up to the first
    /// error.
    void setHandler(SVSignalHandler& handler);
    /// The same with a record of this three-argument function.
    void setHandlerFromFunction(int signalNumber, void (*handler)(int, siginfo*, void*));
    /// The same with a record of this one-argument function.
    void setHandlerFromFunction(int signalNumber, void (*handler)(int));
    /// The same with a record of this action, mask and flags included.
    void setHandlerFromOSStruct(int signalNumber, struct sigaction& osRecord);
    /// The same with each record of a list.
    void setHandlers(SVSignalHandlerList& handlers);

    /// Take a record out again: the one of the same signal and function address. If the record
    /// given is marked pre-existing and it is the signal's last one, it is installed with the
    /// operating system first; if that fails, it stays registered. A list is cleared as one is
    /// registered.
    void clearHandler(SVSignalHandler& handler);
    /// The same for this three-argument function; never hands the signal back.
    void clearHandlerWithFunction(int signalNumber, void (*handler)(int, siginfo*, void*));
    /// The same for this one-argument function; never hands the signal back.
    void clearHandlerWithFunction(int signalNumber, void (*handler)(int));
    /// The same for each record of a list.
    void clearHandlers(SVSignalHandlerList& handlers);

    // --- Dump ----------------------------------------------------------------------------------

    /// Writes the whole shared state as markup: the managers' count, whether signals are being
    /// handled, and the records of every signal from 1 to 60. The stream's formats apply; what it
    /// throws leaves the text so far. The lock is held throughout, and signals are not held back.
    /// Signal context: normal context only.
    std::ostream& print(std::ostream& stream) const;

    // --- The operating system ------------------------------------------------------------------

    /// Installs a record's action for its signal. Signal context: any, without the lock.
    /// Result: the record of the action before, pre-existing, external and valid.
    SVSignalHandler installHandlerInSystem(SVSignalHandler& handler);

    /// Puts back, for every signal from 1 to 60, its valid pre-existing records; the last one of a
    /// signal stays in force. Signals without one keep what they have. Up to the first error.
    void restorePreviouslyExistingHandlers();

    // --- The shared state ----------------------------------------------------------------------
    // Open to be read by those who watch the library; changed by its own operations only. All but
    // the dispositions are zero before the first manager is made.

    /// Every walk over signals covers 1 to this number.
    static constexpr int maxSignalHandlerNumber = 60;

    static bool currentlyHandlingSignals;  ///< since a start, and until a stop
    static unsigned int numberOfManagers;  ///< live managers, those inside signal handlers included
    static SVSignalTable* handlerTables;   ///< owns the tables that its values point to
    static SVMutexHandle* handlerTableLock;                     ///< re-entrant; guards the others
    static SVSignalHandlerDispositionSet signalDispositionSet;  ///< whole before any code runs

private:
    friend void ::actualSignalHandler(int, siginfo*, void*);

    /// Makes the manager of a dispatch.
    struct Dispatching {};
    explicit SVSignalHandlerManager(Dispatching);

    SVFailure tearDown();
    SVMutexHandle* lockHandle() const;

    const bool m_locking;
    const bool m_dispatching;
};

/// Writes a manager as print() does.
SORVANE_API std::ostream& operator<<(std::ostream& stream, const SVSignalHandlerManager& manager);

}  // namespace Sorvane

#endif
