// One arrival of a signal here, and whose the signal is meanwhile (see svownership.h).
#ifndef SORVANE_SVARRIVAL_H
#define SORVANE_SVARRIVAL_H

#include <cstdint>

#include "../registry/svownership.h"
#include "../support/svfailure.h"
#include "svsignalhandlermanager.h"

namespace Sorvane {

/// Made before the tables are pinned that are going to be read. Signal context: handler only.
class SVArrival {
public:
    explicit SVArrival(int signalNumber) noexcept
        : m_signalNumber(signalNumber), m_seen(SVOwnership::count(signalNumber)) {}

    /// Whether the signal had been handed back before it arrived.
    bool lateQ() const noexcept { return SVOwnership::handedBackQ(m_seen); }

    /// Whether the signal has changed hands since it arrived, or has been handed back once more.
    bool ownerChangedQ() const noexcept { return SVOwnership::count(m_signalNumber) != m_seen; }

    /// Ends a dispatch: installs the library's own action, because a handler may have changed what
    /// the system has, unless the signal was handed back meanwhile by another thread. What the
    /// handler has left there gets the signals that are still to come (see svleftaction.h).
    /// Errors: SVException: that of installHandlerInSystem(), and those of the tables' insert().
    void stayInstalled(siginfo* information, void* context) const;

private:
    void settle(const struct sigaction& displaced, SVOwnership::Count before) const;
    SVFailure settleInside(const struct sigaction& displaced, SVOwnership::Count before) const;

    const int m_signalNumber;
    const SVOwnership::Count m_seen;
};

/// Whether this thread may be inside a handler that the kernel has called for a signal: that is
/// held back meanwhile, if the library's own action does not say otherwise. Signal context: any.
bool svbeingHandledQ(int signalNumber) noexcept;

/// Whether a handler's information and context are the kernel's: it puts both into one frame.
/// Signal context: any.
inline bool svkernelsQ(const void* information, const void* context) noexcept {
    const auto distance = reinterpret_cast<std::uintptr_t>(context) -
                          reinterpret_cast<std::uintptr_t>(information) + 1024;
    return information != nullptr && context != nullptr && distance < 2048;
}

/// Sends a late arrival on to whom the signal belongs. False when it is none any more: the signal
/// is the library's again, also because the library was called by hand. Signal context: handler
/// only.
bool svsendOn(int signalNumber, siginfo* information, void* context);

}  // namespace Sorvane

#endif
