// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// One handler record: for which signal, which function, and where it came from.
#ifndef SORVANE_SVSIGNALHANDLER_H
#define SORVANE_SVSIGNALHANDLER_H

#include <csignal>
#include <iosfwd>

#include "svexport.h"
#include "svobject.h"

/// The name of the signal information in handlers' signatures. Some C libraries have it as a tag
/// of their own; where it is there already, this names the same type once more, which is allowed.
using siginfo = siginfo_t;

namespace Sorvane {

/// A handler record: a signal number, a whole sigaction record of the operating system, and three
/// flags. A plain value; copies share nothing.
///
/// Signal context: any. All of it is inline, takes no lock and allocates nothing; the destructor,
/// although virtual, is never called virtually by the tables or by dispatch.
class SORVANE_API SVSignalHandler : public SVObject {
public:
    /// The handler functions that a record can hold.
    using InformationFunction = void (*)(int, siginfo*, void*);
    /// The same with the signal number alone.
    using SimpleFunction = void (*)(int);

    /// Makes the value of an empty table slot: signal 0, an all-zero record, no flag set.
    SVSignalHandler() noexcept = default;

    /// Makes a record from a three-argument function. The signal number is not tested.
    ///
    /// preExists says that it was installed before the library took the signal, and is what the
    /// library puts back; external, that dispatch treats it like a pre-existing one, although
    /// nothing puts it back; valid, that dispatch calls it at all.
    ///
    /// The mask is empty. The flags are SA_RESTART, so that the host's system calls are not torn
    /// up, SA_ONSTACK, so that a thread with an alternate stack is served on it, and SA_SIGINFO.
    SVSignalHandler(int signalNumber, InformationFunction handler, bool preExists, bool external,
                    bool valid) noexcept
        : m_signalNumber(signalNumber),
          m_preExists(preExists),
          m_external(external),
          m_valid(valid) {
        m_osRecord.sa_sigaction = handler;
        m_osRecord.sa_flags = functionFlags | SA_SIGINFO;
    }
    /// The same from a one-argument function, SIG_DFL or SIG_IGN, without SA_SIGINFO.
    SVSignalHandler(int signalNumber, SimpleFunction handler, bool preExists, bool external,
                    bool valid) noexcept
        : m_signalNumber(signalNumber),
          m_preExists(preExists),
          m_external(external),
          m_valid(valid) {
        m_osRecord.sa_handler = handler;
        m_osRecord.sa_flags = functionFlags;
    }
    /// The same from a record of the operating system, which is copied whole, mask and flags too.
    SVSignalHandler(int signalNumber, struct sigaction& osRecord, bool preExists, bool external,
                    bool valid) noexcept
        : m_signalNumber(signalNumber),
          m_osRecord(osRecord),
          m_preExists(preExists),
          m_external(external),
          m_valid(valid) {}

    SVSignalHandler(const SVSignalHandler&) noexcept = default;
    SVSignalHandler& operator=(const SVSignalHandler&) noexcept = default;
    ~SVSignalHandler() noexcept override {}

    /// The whole record of the operating system, as sigaction takes it.
    struct sigaction getOSStruct() noexcept {
        return m_osRecord;
    }
    /// The signal that the record is for.
    int getSignalNumber() const noexcept { return m_signalNumber; }
    /// The function's address, whichever form it has; 0 for SIG_DFL and 1 for SIG_IGN.
    void* getHandlerFunction() const noexcept {
        return informationFormQ() ? reinterpret_cast<void*>(m_osRecord.sa_sigaction)
                                  : reinterpret_cast<void*>(m_osRecord.sa_handler);
    }
    /// Whether the record asks for the default action after a call (SA_RESETHAND).
    bool resetsItselfQ() const noexcept {
        return (static_cast<unsigned int>(m_osRecord.sa_flags) & SA_RESETHAND) != 0;
    }
    /// The flags, as they were given: whether it was installed before the library took the signal.
    bool preExistsQ() const noexcept { return m_preExists; }
    /// Whether dispatch treats it like one that was.
    bool externalQ() const noexcept { return m_external; }
    /// Whether dispatch calls it at all.
    bool validQ() const noexcept { return m_valid; }

    /// Calls the handler for the record's own signal, whatever the flags. A three-argument function
    /// gets information and context unchanged, a one-argument function the signal number alone;
    /// SIG_DFL and SIG_IGN are no functions, and nothing is called for them.
    /// The record is not looked at any more when the handler has been called.
    /// Errors: what the handler throws. Signal context: any, as far as the handler allows.
    void operator()(void* information, void* context) { call(information, context); }
    /// The same under a name.
    void call(void* information, void* context) const {
        if (specialValueQ()) {
            return;
        }
        if (informationFormQ()) {
            m_osRecord.sa_sigaction(m_signalNumber, static_cast<siginfo*>(information), context);
        } else {
            m_osRecord.sa_handler(m_signalNumber);
        }
    }

private:
    static constexpr int functionFlags = SA_RESTART | SA_ONSTACK;

    bool informationFormQ() const noexcept { return (m_osRecord.sa_flags & SA_SIGINFO) != 0; }
    bool specialValueQ() const noexcept {
        const void* const function = getHandlerFunction();
        return function == reinterpret_cast<void*>(SIG_DFL) ||
               function == reinterpret_cast<void*>(SIG_IGN);
    }

    int m_signalNumber = 0;
    struct sigaction m_osRecord = {};
    bool m_preExists = false;
    bool m_external = false;
    bool m_valid = false;
};

/// Writes a record as one line of markup that a person can read: signal number and name, how many
/// arguments the handler takes, its function and module as far as they are known, and the flags.
/// The stream's number formats do not matter.
/// Errors: what the stream throws; the text so far stays. Signal context: normal context only.
SORVANE_API std::ostream& operator<<(std::ostream& stream, const SVSignalHandler& record);

}  // namespace Sorvane

#endif
