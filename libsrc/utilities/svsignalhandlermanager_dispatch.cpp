// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What happens when a signal arrives. All of it can be reached by a signal.

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>

#include "../support/svhandlercontext.h"
#include "svarrival.h"
#include "svleftaction.h"
#include "svownaction.h"
#include "svsharedstate.h"
#include "svsignalhandlermanager.h"
#include "svsubscriptionentries.h"

namespace Sorvane {

namespace {

bool hostsOwnQ(const SVSignalHandler& record) noexcept {
    return (record.preExistsQ() || record.externalQ()) && record.validQ();
}

// The walk over one signal's records. It begins with the table as it is when the signal arrives,
// and sees what its handlers do to the table on the way, slot by slot. If the records have been
// moved to other slots, it keeps to the slots that it has.
//
// A handler may call the library by hand for the very delivery that it is being called for: whoever
// installs a handler after the library, and calls what that has displaced, does so if the signal is
// taken over once more. Then the walk goes on from there; so each record is called once.
class Dispatch {
public:
    explicit Dispatch(int signalNumber, bool foundPutBack = false) noexcept
        : m_foundPutBack(foundPutBack),
          m_timesLeft(SVOwnership::timesLeft(signalNumber)),
          m_signalNumber(signalNumber),
          m_table(m_pin.tableOf(signalNumber)) {}
    Dispatch(const Dispatch&) = delete;
    Dispatch& operator=(const Dispatch&) = delete;
    // What it has interrupted has missed nothing.
    ~Dispatch() { SVSubscriptionEntries::missed = m_missedBefore; }

    bool hasHostsOwnQ() const { return svfirstRecord(m_table, hostsOwnQ) != nullptr; }

    void callValid(void* information, void* context) { call(information, context, false); }
    void callHostsOwn(void* information, void* context) { call(information, context, true); }

    /// Whether there were calls, but only of subscriptions that have just ended.
    bool allMissedQ() const noexcept {
        return m_calls != 0 && m_calls == SVSubscriptionEntries::missed - m_missedBefore;
    }

    /// Whether the host's handler was called, and has asked for the default action after that.
    bool resetsItselfQ() const noexcept { return m_resetsItself; }

    /// Whether nothing has been published since it began.
    bool upToDateQ() const noexcept { return !m_followed && m_pin.publishedQ(); }

    /// Calls a handler that has no record, and has been left in the place of all that have. They
    /// are called if it calls what it has displaced.
    void callLeft(const struct sigaction& left, void* information, void* context) {
        struct sigaction action = left;
        SVSignalHandler handler(m_signalNumber, action, false, false, true);
        const Calling calling(*this, information, context,
                              svfatalQ(m_signalNumber) && hasHostsOwnQ());
        handler(information, context);
    }

    /// Whether this thread is calling handlers for a signal, further up its stack than a frame, and
    /// the library had not been put back before.
    static bool callingQ(int signalNumber, const void* frame) noexcept {
        const Innermost* const calling = innermostAbove(frame);
        return calling != nullptr && calling->signalNumber == signalNumber &&
               !calling->foundPutBack;
    }

    /// Calls the rest of the dispatch by one of whose handlers the library is being called by hand.
    /// Result: whether it is. Parameters: frame, that of the library's handler.
    static bool goOnIfCalledBack(int signalNumber, void* information, void* context,
                                 const void* frame) {
        Innermost* const calling = innermostAbove(frame);
        const bool calledBack = calling != nullptr &&
                                calling->sameQ(signalNumber, information, context) &&
                                calling->dispatch->m_self == calling->dispatch &&
                                (svkernelsQ(information, context) || svbeingHandledQ(signalNumber));
        if (calledBack) {
            calling->dispatch->callRest();
            calling->dispatch->callFormer();
        }
        return calledBack;
    }

private:
    using Slot = SVSignalHandlerTable::Entry;

    // A dispatch of this thread that is calling handlers, what it was called for, whether it has
    // found the library put back by hand, and in how many it stands, itself included. Another
    // delivery has a frame of its own; without the kernel's frame nobody can tell, and it is taken
    // for the same.
    struct Innermost {
        Dispatch* dispatch;
        const void* information;
        int signalNumber;
        bool foundPutBack;
        unsigned int depth;

        bool sameQ(int itsSignal, const void* itsInformation,
                   const void* itsContext) const noexcept {
            return itsSignal == signalNumber &&
                   (itsInformation == information || !svkernelsQ(itsInformation, itsContext));
        }
    };

    // Those of this thread, the innermost one last; of more than there is room for, the innermost
    // ones. A handler that leaves by siglongjmp leaves its dispatch here: what is further down the
    // stack than whoever looks is gone, and is not looked at.
    struct Nested {
        static constexpr unsigned int most = 8;

        unsigned int count;
        Innermost all[most];
    };
    static constinit thread_local Nested nested __attribute__((tls_model("initial-exec")));

    static Innermost* innermostAbove(const void* frame) noexcept {
        while (nested.count > 0) {
            Innermost& last = nested.all[(nested.count - 1) % Nested::most];
            if (last.depth == nested.count && reinterpret_cast<std::uintptr_t>(last.dispatch) >
                                                  reinterpret_cast<std::uintptr_t>(frame)) {
                return &last;
            }
            --nested.count;
        }
        return nullptr;
    }

    // While a dispatch calls handlers. One of them may throw where it is not a signal that it is
    // called for.
    class Calling {
    public:
        Calling(Dispatch& dispatch, void* information, void* context, bool onlyHostsOwn) noexcept
            : m_outer(nested.count) {
            dispatch.m_information = information;
            dispatch.m_context = context;
            dispatch.m_onlyHostsOwn = onlyHostsOwn;
            if (dispatch.m_table != nullptr) {
                dispatch.m_next = dispatch.m_table->table;
                dispatch.m_end = endOf(*dispatch.m_table);
                dispatch.m_notSeen = static_cast<std::ptrdiff_t>(dispatch.m_table->used);
            }
            nested.count = m_outer + 1;
            nested.all[m_outer % Nested::most] = {&dispatch, information, dispatch.m_signalNumber,
                                                  dispatch.m_foundPutBack, nested.count};
        }
        Calling(const Calling&) = delete;
        Calling& operator=(const Calling&) = delete;
        ~Calling() { nested.count = m_outer; }

    private:
        const unsigned int m_outer;
    };

    void call(void* information, void* context, bool onlyHostsOwn) {
        const Calling calling(*this, information, context, onlyHostsOwn);
        callRest();
    }

    static bool resetsItselfQ(const SVSignalHandler& record) noexcept {
        return record.preExistsQ() && record.resetsItselfQ();
    }

    static const Slot* endOf(const SVSignalHandlerTable& table) noexcept {
        return table.table + table.mask + 1;
    }

    // In slot order. A handler that changes its own registration does not pull the record away from
    // under the call, which has read it by then. What lies behind the last record is looked at only
    // if somebody has made a change since the walk began.
    [[gnu::noinline]] void callRest() {
        const Slot* slot = m_next;
        std::ptrdiff_t notSeen = m_notSeen;
        while (slot != m_end && (notSeen != 0 || SVGate::changesSoFar() != m_changes)) {
            const Slot& current = *slot++;
            if (current.state != svslotOccupied) {
                continue;
            }
            --notSeen;
            const SVSignalHandler& record = current.value;
            if (!(m_onlyHostsOwn ? hostsOwnQ(record) : record.validQ()) ||
                (m_leftBehind && clearedQ(current.key, record.preExistsQ()))) {
                continue;
            }
            ++m_calls;
            m_resetsItself = m_resetsItself || resetsItselfQ(record);
            // For whoever goes on from there.
            m_next = slot;
            m_notSeen = notSeen;
            record.call(m_information, m_context);
            if (!m_pin.publishedQ()) {
                m_leftBehind = !follow();
                m_notSeen = endOf(*m_table) - m_table->table;
            }
            slot = m_next;
            notSeen = m_notSeen;
        }
        m_next = m_end;
    }

    // Whoever has displaced the library, and calls it, means what it stood for then; that may have
    // no record any more.
    [[gnu::noinline]] void callFormer() {
        if (!SVOwnership::displacedByHostQ(m_signalNumber) || m_formerCalled) {
            return;
        }
        m_formerCalled = true;
        struct sigaction former = SVLeftAction::meantByHand(m_signalNumber);
        SVSignalHandler handler(m_signalNumber, former, false, false, true);
        if (!svnobodysActionQ(former) &&
            svrecordOf(m_table, handler.getHandlerFunction()) == nullptr) {
            handler(m_information, m_context);
        }
    }

    // Goes on with what is published now, if the records there stand in the same slots. This and
    // the next one are rarely needed, and kept out of the loop.
    [[gnu::noinline]] bool follow() noexcept {
        SVTablesPin now;
        SVSignalHandlerTable* const table = now.tableOf(m_signalNumber);
        if (endedQ() || leftQ() || table == nullptr || !svsameSlotsQ(*m_table, *table)) {
            return false;
        }
        m_next = table->table + (m_next - m_table->table);
        m_end = endOf(*table);
        m_table = table;
        m_pin.swap(now);
        m_followed = true;
        return true;
    }

    // Whoever clears a handler whose turn has not come does not see it called any more: its module
    // may be about to go. The end of the whole registry is no clearing; nor is it one if the signal
    // is left to the host, which is to have this delivery, too.
    [[gnu::noinline]] bool clearedQ(const void* function, bool preExists) const noexcept {
        const SVTablesPin now;
        return !endedQ() && !(leftQ() && preExists) &&
               svrecordOf(now.tableOf(m_signalNumber), function) == nullptr;
    }
    bool endedQ() const noexcept { return svregistry.timesEnded() != m_timesEnded; }
    bool leftQ() const noexcept { return SVOwnership::timesLeft(m_signalNumber) != m_timesLeft; }

    const bool m_foundPutBack;
    const unsigned int m_timesEnded = svregistry.timesEnded();
    const unsigned int m_timesLeft;
    const unsigned int m_missedBefore = SVSubscriptionEntries::missed;
    unsigned int m_calls = 0;
    SVTablesPin m_pin;
    const int m_signalNumber;
    SVSignalHandlerTable* m_table;
    const Dispatch* const m_self = this;
    void* m_information = nullptr;
    void* m_context = nullptr;
    bool m_onlyHostsOwn = false;
    bool m_leftBehind = false;  ///< by what is published, in which the records stand elsewhere
    bool m_followed = false;    ///< what is published
    bool m_formerCalled = false;
    bool m_resetsItself = false;  ///< a handler of the host's that is to be called once
    const Slot* m_next = nullptr;
    const Slot* m_end = nullptr;
    const unsigned int m_changes = SVGate::changesWhole();
    std::ptrdiff_t m_notSeen = 0;  ///< to how many records, at most, the walk has not come
};

// Without the model of its declaration, g++ would look it up by a call, which may allocate.
constinit thread_local Dispatch::Nested Dispatch::nested
    __attribute__((tls_model("initial-exec"))) = {};

enum class Outcome { outOfDate, late, leftToSystem, called, calledForTheLastTime };

// Whether somebody has made a change since the tables were pinned. Who has ended what was called
// for nothing may still be about to hand the signal back.
[[gnu::noinline]] bool outOfDateQ(const SVArrival& arrival, const Dispatch& records) noexcept {
    if (!SVGate::openQ()) {
        SVGate::waitUntilOpen();
    }
    return arrival.ownerChangedQ() || !records.upToDateQ();
}

// What is to be called is decided from what is published at one instant, whatever other threads do
// to it meanwhile. A function of its own, so that what it needs of the stack is free again when the
// library is installed.
[[gnu::noinline]] Outcome callRecords(const SVArrival& arrival, int signalNumber,
                                      siginfo* information, void* context) {
    Dispatch records(signalNumber, arrival.putBackQ());
    if (arrival.ownerChangedQ()) {
        return Outcome::outOfDate;
    }
    if (arrival.lateQ()) {
        return Outcome::late;
    }
    const bool onlyHostsOwn = svfatalQ(signalNumber) && records.hasHostsOwnQ();
    if (onlyHostsOwn) {
        records.callHostsOwn(information, context);
    } else {
        records.callValid(information, context);
    }
    if (records.allMissedQ() && outOfDateQ(arrival, records)) {
        return Outcome::outOfDate;
    }
    if (svfatalQ(signalNumber) && !onlyHostsOwn) {
        _exit(0);
    }
    return records.resetsItselfQ() ? Outcome::calledForTheLastTime : Outcome::called;
}

// What was left for the signal may be for another one of its number.
[[gnu::noinline]] Outcome callWhatWasLeft(const SVArrival& arrival, int signalNumber,
                                          siginfo* information, void* context) {
    const bool putBack =
        arrival.putBackQ() && Dispatch::callingQ(signalNumber, __builtin_frame_address(0));
    struct sigaction left;
    switch (SVLeftAction::take(signalNumber, information, context, putBack, left)) {
        case SVLeftAction::Taker::system:
            return Outcome::leftToSystem;
        case SVLeftAction::Taker::leftHandler:
            Dispatch(signalNumber).callLeft(left, information, context);
            return Outcome::called;
        case SVLeftAction::Taker::everybody:
            break;
    }
    return callRecords(arrival, signalNumber, information, context);
}

// One attempt at a dispatch. Result: false if the signal changed hands, or all its subscriptions
// ended, before anybody was called; then all begins anew.
bool dispatch(int signalNumber, siginfo* information, void* context) {
    const SVArrival arrival(signalNumber);
    const Outcome outcome = SVLeftAction::anyQ(signalNumber) || arrival.putBackQ()
                                ? callWhatWasLeft(arrival, signalNumber, information, context)
                                : callRecords(arrival, signalNumber, information, context);
    switch (outcome) {
        case Outcome::outOfDate:
            return false;
        case Outcome::late:
            return svsendOn(signalNumber, information, context);
        case Outcome::leftToSystem:
            return true;
        case Outcome::called:
        case Outcome::calledForTheLastTime:
            break;
    }
    arrival.stayInstalled(information, context, outcome == Outcome::calledForTheLastTime);
    return true;
}

// The interrupted code must not find errno changed, whatever handlers and installations do to it.
class ErrnoKeeper {
public:
    ErrnoKeeper() noexcept : m_saved(errno) {}
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
    ~ErrnoKeeper() { errno = m_saved; }

private:
    const int m_saved;
};

}  // namespace

void SVSignalHandlerManager::callHandlers(int signalNumber, void* information, void* context) {
    const SVLocked scope(lockHandle());
    Dispatch(signalNumber).callValid(information, context);
}

void SVSignalHandlerManager::callOnlyPreexistingOrExternalHandlers(int signalNumber,
                                                                   void* information,
                                                                   void* context) {
    const SVLocked scope(lockHandle());
    Dispatch(signalNumber).callHostsOwn(information, context);
}

bool SVSignalHandlerManager::hasPreexistingOrExternalHandlerQ(int signalNumber) {
    const SVLocked scope(lockHandle());
    return Dispatch(signalNumber).hasHostsOwnQ();
}

void svownHandler(int signalNumber, siginfo* information, void* context)
    __attribute__((alias("actualSignalHandler")));

SVSignalHandler SVSignalHandlerManager::theSVHandler(int signalNumber) {
    struct sigaction own = SVOwnAction::of(signalNumber);
    return SVSignalHandler(signalNumber, own, false, false, true);
}

SVSignalHandler SVSignalHandlerManager::ignoreHandler(int signalNumber) {
    return SVSignalHandler(signalNumber, SIG_IGN, false, false, true);
}

SVSignalHandler SVSignalHandlerManager::defaultHandler(int signalNumber) {
    return SVSignalHandler(signalNumber, SIG_DFL, false, false, true);
}

SVSignalHandler SVSignalHandlerManager::ignoreSignal(int signalNumber) {
    SVSignalHandler ignoring = ignoreHandler(signalNumber);
    return installHandlerInSystem(ignoring);
}

}  // namespace Sorvane

extern "C" void actualSignalHandler(int signalNumber, siginfo* information, void* context) {
    using namespace Sorvane;
    const ErrnoKeeper errnoKeeper;
    const SVHandlerContext::Scope handlerScope;
    if (Dispatch::goOnIfCalledBack(signalNumber, information, context,
                                   __builtin_frame_address(0))) {
        return;
    }
    // No locking: the thread that was interrupted, or another one, may hold the lock.
    SVSignalHandlerManager manager{SVSignalHandlerManager::Dispatching()};
    while (!dispatch(signalNumber, information, context)) {
    }
}
