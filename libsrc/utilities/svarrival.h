// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// One arrival of a signal here, and whose the signal is meanwhile (see svownership.h).
#ifndef SORVANE_SVARRIVAL_H
#define SORVANE_SVARRIVAL_H

#include "../registry/svownership.h"
#include "../support/svfailure.h"
#include "svsignalhandlermanager.h"

namespace Sorvane {

/// Made before the tables are pinned that are going to be read. Signal context: handler only.
class SVArrival {
public:
    explicit SVArrival(int signalNumber) noexcept;

    /// Whether the signal had been handed back before it arrived.
    bool lateQ() const noexcept { return SVOwnership::handedBackQ(m_seen); }

    /// Whether the signal has changed hands since it arrived, or has been handed back once more.
    bool ownerChangedQ() const noexcept { return SVOwnership::count(m_signalNumber) != m_seen; }

    /// Whether the host has put the library back by hand before (see svleftaction.h).
    bool putBackQ() const noexcept { return m_putBack; }

    /// Ends a dispatch: installs the library's own action, because a handler may have changed what
    /// the system has, unless the signal was handed back meanwhile by another thread. What the
    /// handler has left there gets the signals that are still to come (see svleftaction.h).
    /// Parameters: resetsItself, whether a handler was called that has asked for the default action
    /// after its call; it counts as one that has left that, where the signal is the process's end.
    /// Errors: SVException: that of installHandlerInSystem(), and those of the tables' insert().
    void stayInstalled(siginfo* information, void* context, bool resetsItself) const;

private:
    bool putBackByHandlerQ(const struct sigaction& displaced, unsigned int changes) const noexcept;
    bool leaveWhatItStoodFor(siginfo* information, void* context) const;
    bool leaveTheDefault(siginfo* information, void* context) const;
    void settle(const struct sigaction& displaced, SVOwnership::Count before) const;
    SVFailure settleInside(const struct sigaction& displaced, SVOwnership::Count before) const;

    const int m_signalNumber;
    const SVOwnership::Count m_seen;
    const bool m_putBack;
};

/// Whether this thread may be inside a handler that the kernel has called for a signal: that is
/// held back meanwhile, if the library's own action does not say otherwise. Signal context: any.
bool svbeingHandledQ(int signalNumber) noexcept;

/// Whether what a handler got as information and context can be the kernel's, which puts both into
/// one frame. Signal context: any.
bool svkernelsQ(const void* information, const void* context) noexcept;

/// Sends a signal to this thread once more, as it came. Result: whether the system had room for it.
/// Signal context: any. May change errno.
bool svsendAgain(int signalNumber, siginfo& information) noexcept;

/// Sends a late arrival on to whom the signal belongs. False when it is none any more: the signal
/// is the library's again, also because the library was called by hand. Signal context: handler
/// only.
bool svsendOn(int signalNumber, siginfo* information, void* context);

}  // namespace Sorvane

#endif
