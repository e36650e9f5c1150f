// The signal handler manager: a cheap handle onto the process's one signal-handling state.
#ifndef SORVANE_SVSIGNALHANDLERMANAGER_H
#define SORVANE_SVSIGNALHANDLERMANAGER_H

#include <csignal>
#include <iosfwd>

#include "../registry/svsignaltables.h"
#include "../support/svexception.h"
#include "../support/svexport.h"
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
///
/// Parameters: signalNumber, information and context, as the operating system gives them.
/// Ownership: none. Result: none; errno is left as it was.
/// Errors: what a handler throws, and a failed installation's SVException, leave it.
/// Guarantee: nothing of the shared state is lost. Threads: any, without a lock.
/// Signal context: handler only.
extern "C" SORVANE_API void actualSignalHandler(int signalNumber, siginfo* information,
                                                void* context);

namespace Sorvane {

using ::actualSignalHandler;

/// A handle onto the process's signal-handling state, which all managers share. The first manager
/// makes the shared tables; the last one tears them down if signals are being handled then.
///
/// A manager made with its locking flag true takes the process-wide lock around its work, and any
/// number of threads may use such managers at once. One with the flag false takes no lock ever; it
/// is for single-threaded programs and for signal handlers, and its caller makes sure that no
/// other thread changes the tables meanwhile.
///
/// Requests that cannot apply (for a forbidden signal, a missing table, a missing entry) are
/// silently ignored. Every failure is an SVException of the file
/// "libsrc/utilities/svsignalhandlermanager", or one of the tables'.
class SORVANE_API SVSignalHandlerManager : public SVObject {
public:
    // --- Lifetime ------------------------------------------------------------------------------

    /// Makes a manager; the first one also makes the tables and resets the dispositions.
    /// Parameters: locking, whether this manager's operations take the process-wide lock.
    /// Ownership: of the manager, the caller's; of the shared state, nobody's.
    /// Result: the manager. Errors: none thrown; without memory for the tables, later operations
    ///   that must store fail, and those that only look find nothing.
    /// Guarantee: no exception. Threads: any. Signal context: any context with locking false.
    explicit SVSignalHandlerManager(bool locking);

    SVSignalHandlerManager(const SVSignalHandlerManager&) = delete;
    SVSignalHandlerManager& operator=(const SVSignalHandlerManager&) = delete;

    /// Lets the manager go. The last one, while signals are being handled, puts every valid
    /// pre-existing handler back, forgets all records and resets the dispositions; while signals
    /// are not being handled, all records stay for the next manager.
    /// Result: none.
    /// Errors: SVException "installHandlerInSystem caught an error from sigaction.", kind 4, code
    ///   errno, when a handler can't be put back. The lock then stays held, and the tables stay.
    /// Guarantee: basic. Threads: any. Signal context: any context with locking false.
    ~SVSignalHandlerManager() noexcept(false) override;

    // --- Taking over and handing back signals --------------------------------------------------

    /// Takes over every signal from 1 to 60 that has records, and keeps what was installed for it
    /// as a pre-existing record. Does nothing when signals are being handled already.
    /// Ownership: none. Result: none. Errors: those of handleSignal(); the signals before are then
    ///   taken over, and signals do not count as being handled.
    /// Guarantee: basic. Threads: any. Signal context: any context with locking false.
    void startHandlingSignals();

    /// Hands one signal back: to its first pre-existing record, valid or not, or, when it has
    /// none, to SIG_IGN. The records stay. Does nothing for a signal without a table.
    /// Parameters: signalNumber. Ownership: none. Result: none.
    /// Errors: SVException "installHandlerInSystem caught an error from sigaction.", kind 4, code
    ///   errno. Guarantee: strong. Threads: any. Signal context: any context with locking false.
    void stopHandlingSignal(int signalNumber);

    /// Hands every signal from 1 to 60 back, as stopHandlingSignal() does, one by one. Does
    /// nothing when signals are not being handled.
    /// Ownership: none. Result: none. Errors: those of stopHandlingSignal(); signals then still
    ///   count as being handled.
    /// Guarantee: basic. Threads: any. Signal context: any context with locking false.
    void stopHandlingSignals();

    /// Say whether the library may handle a signal; takes effect at the next operation that asks.
    /// Parameters: signalNumber, from 1 to 60, others change nothing; handle, the answer; or a
    ///   whole set of answers.
    /// Ownership: none. Result: none. Errors: none. Guarantee: no exception.
    /// Threads: any, without the lock. Signal context: any context.
    void setSignalDisposition(int signalNumber, bool handle);
    void setSignalDispositions(SVSignalHandlerDispositionSet dispositions);

    /// Whether the library may handle a signal. The two are the same.
    /// Parameters: signalNumber. Ownership: none. Result: the answer. Errors: none.
    /// Guarantee: no exception. Threads: any, without the lock. Signal context: any context.
    bool getSignalDisposition(int signalNumber);
    bool canHandleSignalFromDisposition(int signalNumber);

    // --- Dispatch ------------------------------------------------------------------------------

    /// Takes over one signal: makes sure that it has a table and, if its disposition allows,
    /// installs actualSignalHandler and keeps the handler that was there before as a pre-existing
    /// record, unless it was SIG_DFL, SIG_IGN, actualSignalHandler or a function already recorded.
    /// Parameters: signalNumber. Ownership: none. Result: none.
    /// Errors: SVException "Unable to allocate new table", kind 5, code 0;
    ///   "installHandlerInSystem caught an error from sigaction.", kind 4, code errno; those of
    ///   the tables' insert().
    /// Guarantee: basic; a table that was made stays. Threads: any.
    /// Signal context: any context with locking false.
    void handleSignal(int signalNumber);

    /// Call the signal's valid records, in slot order: all of them, or only the pre-existing and
    /// external ones.
    /// Parameters: signalNumber; information and context, handed on unchanged.
    /// Ownership: none. Result: none. Errors: what a handler throws. Guarantee: none is called
    ///   twice. Threads: any. Signal context: any context with locking false.
    void callHandlers(int signalNumber, void* information, void* context);
    void callOnlyPreexistingOrExternalHandlers(int signalNumber, void* information, void* context);

    /// Whether the signal has a valid record that is pre-existing or external.
    /// Parameters: signalNumber. Ownership: none. Result: the answer. Errors: none thrown.
    /// Guarantee: no exception. Threads: any. Signal context: any context with locking false.
    bool hasPreexistingOrExternalHandlerQ(int signalNumber);

    /// Make a record: the manager's own, one that ignores the signal, one with its default action.
    /// Parameters: signalNumber. Ownership: the caller's. Result: the record. Errors: none.
    /// Guarantee: no exception. Threads: any. Signal context: any context.
    SVSignalHandler theSVHandler(int signalNumber);
    SVSignalHandler ignoreHandler(int signalNumber);
    SVSignalHandler defaultHandler(int signalNumber);

    /// Ignores a signal with the operating system, and nowhere else.
    /// Parameters: signalNumber. Ownership: the record is the caller's.
    /// Result: the record of what was installed before.
    /// Errors: SVException "installHandlerInSystem caught an error from sigaction.", kind 4, code
    ///   errno. Guarantee: strong. Threads: any, without the lock. Signal context: any context.
    SVSignalHandler ignoreSignal(int signalNumber);

    // --- Registration --------------------------------------------------------------------------

    /// Register a handler for a signal: a record, or a function or a record of the operating
    /// system from which a valid record is made, which is neither pre-existing nor external. A
    /// signal has one record for each function address; a later one replaces an earlier one. While
    /// signals are being handled, actualSignalHandler is installed for the signal at once.
    /// Parameters: handler, a record; or signalNumber and a function or osRecord. None is changed.
    /// Ownership: everything is copied. Result: none; nothing happens for a forbidden signal.
    /// Errors: SVException "Unable to allocate new table", kind 5, code 0; those of the tables'
    ///   insert(); "installHandlerInSystem caught an error from sigaction.", kind 4, code errno,
    ///   and the record then stays.
    /// Guarantee: basic: a new table, or the record, may stay, as above. Threads: any.
    /// Signal context: any context with locking false.
    void setHandler(SVSignalHandler& handler);
    void setHandlerFromFunction(int signalNumber, void (*handler)(int, siginfo*, void*));
    void setHandlerFromFunction(int signalNumber, void (*handler)(int));
    void setHandlerFromOSStruct(int signalNumber, struct sigaction& osRecord);

    /// Takes a record out again: the one of the same signal and function address. If the record
    /// given is marked pre-existing and it is the signal's last one, it is installed with the
    /// operating system first.
    /// Parameters: handler, a record, or signalNumber and a function. None is changed.
    /// Ownership: none. Result: none; nothing happens when there is none, or the signal is
    ///   forbidden.
    /// Errors: SVException "installHandlerInSystem caught an error from sigaction.", kind 4, code
    ///   errno, and the record then stays.
    /// Guarantee: strong. Threads: any. Signal context: any context with locking false.
    void clearHandler(SVSignalHandler& handler);
    void clearHandlerWithFunction(int signalNumber, void (*handler)(int, siginfo*, void*));
    void clearHandlerWithFunction(int signalNumber, void (*handler)(int));

    /// Register, or clear, every record of a list, front to back. The lock is taken for each by
    /// itself.
    /// Parameters: handlers; unchanged. Ownership: none. Result: none.
    /// Errors: those of setHandler() and clearHandler(), at which the walk stops.
    /// Guarantee: basic: what came before stays done. Threads: any.
    /// Signal context: any context with locking false.
    void setHandlers(SVSignalHandlerList& handlers);
    void clearHandlers(SVSignalHandlerList& handlers);

    // --- Dump ----------------------------------------------------------------------------------

    /// Writes the whole shared state as markup: the managers' count, whether signals are being
    /// handled, and the records of every signal from 1 to 60.
    /// Parameters: stream, whose formats apply. Ownership: none. Result: the stream.
    /// Errors: what the stream throws; the text so far stays. Guarantee: the state is unchanged.
    /// Threads: any; the lock is held throughout. Signal context: normal context only.
    std::ostream& print(std::ostream& stream) const;

    // --- The operating system ------------------------------------------------------------------

    /// Installs a record's action for its signal. The one place that calls sigaction.
    /// Parameters: handler, a record; unchanged. Ownership: the result is the caller's.
    /// Result: the record of the action before, pre-existing, external and valid.
    /// Errors: SVException "installHandlerInSystem caught an error from sigaction.", kind 4, code
    ///   errno. Guarantee: strong. Threads: any, without the lock. Signal context: any context.
    SVSignalHandler installHandlerInSystem(SVSignalHandler& handler);

    /// Puts back, for every signal from 1 to 60, its valid pre-existing records; the last one of a
    /// signal stays in force. Signals without one keep what they have.
    /// Ownership: none. Result: none. Errors: those of installHandlerInSystem(); the signals
    ///   before are then changed. Guarantee: basic. Threads: any.
    /// Signal context: any context with locking false.
    void restorePreviouslyExistingHandlers();

    // --- The shared state ----------------------------------------------------------------------
    // Open to be read by those who watch the library; changed by its own operations only. All but
    // the dispositions are zero before the first manager is made.

    /// Every walk over signals covers 1 to this number.
    static constexpr int maxSignalHandlerNumber = 60;

    static bool currentlyHandlingSignals;
    static unsigned int numberOfManagers;  ///< live managers, those inside signal handlers included
    static SVSignalTable* handlerTables;   ///< owns the tables that its values point to
    static SVMutexHandle* handlerTableLock;                     ///< re-entrant; guards the others
    static SVSignalHandlerDispositionSet signalDispositionSet;  ///< whole before any code runs

private:
    friend void ::actualSignalHandler(int, siginfo*, void*);

    /// Makes the manager of a dispatch.
    struct Dispatching {};
    explicit SVSignalHandlerManager(Dispatching);

    void enter();
    void leave();
    SVMutexHandle* lockHandle() const;

    const bool m_locking;
    const bool m_dispatching;
};

/// Writes a manager as print() does.
SORVANE_API std::ostream& operator<<(std::ostream& stream, const SVSignalHandlerManager& manager);

}  // namespace Sorvane

#endif
