// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A subscription: one handler for one signal, for the length of a scope.
#ifndef SORVANE_SVSIGNALSUBSCRIPTION_H
#define SORVANE_SVSIGNALSUBSCRIPTION_H

#include <csignal>

#include "../support/svexception.h"
#include "../support/svexport.h"
#include "../support/svfailure.h"
#include "../support/svobject.h"
#include "../support/svsignalhandler.h"
#include "svsignalhandlermanager.h"
#include "svsubscriber.h"

namespace Sorvane {

/// What becomes of a signal that the host ignores.
enum class SVIgnoredSignal {
    leaveAlone,  ///< it stays ignored, and the subscription is not active
    takeOver,    ///< the subscription has it
};

/// A guest that leaves no trace: has its handler called for a signal from its beginning to its end,
/// beside whatever the host and others have. Needs no start, and is indifferent to one.
///
/// A subscription counts as one manager as long as it lives, and takes the process-wide lock.
/// Subscriptions, managers and the host may come and go in any order. With the last subscription of
/// a signal that nobody else has registered for, the host has again exactly what it had: its
/// handler with mask and flags, the default action, or being ignored. What the host itself has
/// installed meanwhile stays.
///
/// SIGSEGV, SIGBUS and SIGHUP. Beside a handler of the host's, the subscribers are called when that
/// gives up: when it has left the default action, and its signal is pending or its fault comes
/// again. They are called once, just before the process ends, with the information and the context
/// of the signal; what the host's handler does without returning, the library does not see. Without
/// a handler of the host's they are called at once, and the process then ends with status 0; one
/// that wants its signal to end the process calls endByDefaultAction().
///
/// stopHandlingSignal() and stopHandlingSignals() hand signals back for everybody. The subscription
/// is not active then, and its handler is not called, until renew() or handleSignal() is called, or
/// after a stop of all signals, until somebody starts.
/// What the stop has left, as an ignored signal that nobody had a handler for, stays if the
/// subscription ends before that.
///
/// Errors. SVException with the file "libsrc/utilities/svsignalsubscription", code 0:
/// - "There is no handler.", kind 24: it is null, SIG_DFL or SIG_IGN.
/// - "The signal can't be handled, or its disposition forbids it.", kind 24: there is no such
///   signal, or none that the library may handle.
/// - "The handler has the signal already.", kind 24: this function is on record for the signal, is
///   the host's for it, or is subscribed to it (in the form with a user's pointer: with the same
///   pointer).
/// - "No entry function is left.", kind 5: 256 subscriptions have one; each keeps its own from when
///   it becomes active for the first time.
/// - "Unable to allocate new table", kind 5: no memory.
///
/// And those of handleSignal() and of the tables' insert(). Nothing has changed then.
///
/// Threads: any; but one object is used by one thread at a time. Signal context: normal context; a
/// subscription may also end in a handler that the library calls, if that has not interrupted an
/// operation of a locking manager.
class SORVANE_API SVSignalSubscription : public SVObject {
public:
    /// A handler of the signal's number alone.
    using SimpleHandler = void (*)(int);
    /// A handler that gets what sigaction's handlers get.
    using InformationHandler = void (*)(int, siginfo*, void*);
    /// The same with a pointer of the user's behind it.
    using UserHandler = void (*)(int, siginfo*, void* context, void* user);

    /// Begin a subscription: no other thread ever sees it half begun. What the handler gets beside
    /// the signal's number is handed on unchanged.
    SVSignalSubscription(int signalNumber, SimpleHandler handler,
                         SVIgnoredSignal ignored = SVIgnoredSignal::leaveAlone);
    /// The same with the signal's information and context.
    SVSignalSubscription(int signalNumber, InformationHandler handler,
                         SVIgnoredSignal ignored = SVIgnoredSignal::leaveAlone);
    /// The same with a pointer of the user's.
    SVSignalSubscription(int signalNumber, UserHandler handler, void* user,
                         SVIgnoredSignal ignored = SVIgnoredSignal::leaveAlone);

    SVSignalSubscription(const SVSignalSubscription&) = delete;
    SVSignalSubscription& operator=(const SVSignalSubscription&) = delete;

    /// Ends it, and waits until its handler runs on no other thread. Called by the handler itself,
    /// it does not wait for that call, nor for what the handler has interrupted. A call that
    /// another thread has left by siglongjmp is waited for without end. Errors: none. Without
    /// memory to take its record out, the record stays, and calls nothing. May change errno.
    ~SVSignalSubscription() noexcept override;

    /// Whether the handler is on record, and the library is what is installed: so that it is called
    /// when the signal arrives, or, for SIGSEGV, SIGBUS and SIGHUP beside a handler of the host's,
    /// when that gives up. Signal context: any. May change errno.
    bool activeQ() const noexcept;

    /// Begins once more, if the subscription is not active: because somebody has handed the signal
    /// back, because the host ignored it, or because the host has installed something over the
    /// library. Result: whether it is active now. Errors: those of the beginning.
    bool renew();

private:
    SVSignalSubscription(int signalNumber, const SVSubscriber& subscriber, SVIgnoredSignal ignored);

    SVFailure begin() noexcept;
    SVFailure refusal(const struct sigaction& hosts) const noexcept;
    SVFailure enter(const struct sigaction& hosts) noexcept;
    SVFailure takeOverAgain(const struct sigaction& hosts) const noexcept;
    void withdraw() noexcept;
    void end() noexcept;

    const SVSignalHandlerManager m_manager;
    const int m_signalNumber;
    const SVSubscriber m_subscriber;
    const SVIgnoredSignal m_ignored;
    unsigned int m_entry;     ///< the entry that calls the handler, if any
    bool m_onRecord = false;  ///< whether the entry has a record
};

}  // namespace Sorvane

#endif
