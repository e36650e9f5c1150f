// What happens when a signal arrives. All of it can be reached by a signal.

#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "../support/svhandlercontext.h"
#include "svarrival.h"
#include "svleftaction.h"
#include "svownaction.h"
#include "svsharedstate.h"
#include "svsignalhandlermanager.h"

namespace Sorvane {

namespace {

// The signals that end the process unless the host had a handler for them. SIGILL, SIGFPE and
// SIGABRT are not among them: they go the ordinary way.
bool fatalQ(int signalNumber) noexcept {
    return signalNumber == SIGSEGV || signalNumber == SIGBUS || signalNumber == SIGHUP;
}

bool validQ(const SVSignalHandler& record) noexcept {
    return record.validQ();
}

bool hostsOwnQ(const SVSignalHandler& record) noexcept {
    return (record.preExistsQ() || record.externalQ()) && record.validQ();
}

// The walk over one signal's records. It begins with the table as it is when the signal arrives,
// and sees what its handlers do to the table on the way, slot by slot. If the records have been
// moved to other slots, it keeps to the slots that it has.
//
// A handler may call the library by hand for the very signal that it is being called for: whoever
// installs a handler after the library, and calls what that has displaced, does so if the signal is
// taken over once more. Then the walk goes on from there; so each record is called once.
class Dispatch {
public:
    explicit Dispatch(int signalNumber) noexcept
        : m_signalNumber(signalNumber), m_table(m_pin.tableOf(signalNumber)) {}

    bool hasHostsOwnQ() const { return svfirstRecord(m_table, hostsOwnQ) != nullptr; }

    void callValid(void* information, void* context) { call(information, context, validQ); }
    void callHostsOwn(void* information, void* context) { call(information, context, hostsOwnQ); }

    /// This thread's innermost one whose handlers are being called, if it is for this signal;
    /// otherwise null. One whose handler has left by siglongjmp does not count any more.
    static Dispatch* calling(int signalNumber) noexcept {
        Dispatch* const found = innermost;
        return found != nullptr && found->m_self == found &&
                       found->m_signalNumber == signalNumber && svbeingHandledQ(signalNumber)
                   ? found
                   : nullptr;
    }

    /// Calls the rest.
    [[gnu::noinline]] void goOn() {
        const Slot* slot = m_next;
        while (slot != m_end) {
            if (slot->state != svslotOccupied) {
                ++slot;
                continue;
            }
            // A copy is called, so that a handler that changes its own registration does not pull
            // the record away from under the call.
            SVSignalHandler record(slot->value);
            const void* const function = slot->key;
            ++slot;
            if (m_test(record) && !(m_leftBehind && clearedQ(function))) {
                m_next = slot;
                record(m_information, m_context);
                m_leftBehind = !m_pin.publishedQ() && !follow();
                slot = m_next;
            }
        }
        m_next = m_end;
    }

private:
    using Slot = SVSignalHandlerTable::Entry;
    using Test = bool (*)(const SVSignalHandler&);

    // While a dispatch is this thread's innermost.
    class Calling {
    public:
        explicit Calling(Dispatch& dispatch) noexcept : m_outer(innermost) {
            innermost = &dispatch;
        }
        Calling(const Calling&) = delete;
        Calling& operator=(const Calling&) = delete;
        ~Calling() { innermost = m_outer; }

    private:
        Dispatch* const m_outer;
    };

    // Calls what a test lets through, in slot order.
    void call(void* information, void* context, Test test) {
        if (m_table != nullptr) {
            m_information = information;
            m_context = context;
            m_test = test;
            m_next = m_table->table;
            m_end = m_table->table + m_table->mask + 1;
            const Calling calling(*this);
            goOn();
        }
    }

    // Goes on with what is published now, if the records there stand in the same slots.
    bool follow() noexcept {
        SVTablesPin now;
        SVSignalHandlerTable* const table = now.tableOf(m_signalNumber);
        if (endedQ() || table == nullptr || !svsameSlotsQ(*m_table, *table)) {
            return false;
        }
        m_next = table->table + (m_next - m_table->table);
        m_end = table->table + table->mask + 1;
        m_table = table;
        m_pin.swap(now);
        return true;
    }

    // Whoever clears a handler whose turn has not come does not see it called any more: its module
    // may be about to go. The end of the whole registry is no clearing. A record is looked for slot
    // by slot, because a key behind a cleared one is not found by its hash any more.
    bool clearedQ(const void* function) const noexcept {
        const SVTablesPin now;
        const auto sameQ = [function](const SVSignalHandler& record) {
            return record.getHandlerFunction() == function;
        };
        return !endedQ() && svfirstRecord(now.tableOf(m_signalNumber), sameQ) == nullptr;
    }
    bool endedQ() const noexcept { return svregistry.timesEnded() != m_timesEnded; }

    static constinit thread_local Dispatch* innermost __attribute__((tls_model("initial-exec")));

    const unsigned int m_timesEnded = svregistry.timesEnded();
    SVTablesPin m_pin;
    const int m_signalNumber;
    SVSignalHandlerTable* m_table;
    bool m_leftBehind = false;  ///< by what is published, in which the records stand elsewhere
    const Dispatch* const m_self = this;
    void* m_information = nullptr;
    void* m_context = nullptr;
    Test m_test = nullptr;
    const Slot* m_next = nullptr;
    const Slot* m_end = nullptr;
};

constinit thread_local Dispatch* Dispatch::innermost = nullptr;

enum class Outcome { ownerChanged, late, called };

// What is to be called is decided from what is published at one instant, whatever other threads do
// to it meanwhile. A function of its own, so that what it needs of the stack is free again when the
// library is installed.
[[gnu::noinline]] Outcome callRecords(const SVArrival& arrival, int signalNumber,
                                      siginfo* information, void* context) {
    Dispatch records(signalNumber);
    if (arrival.ownerChangedQ()) {
        return Outcome::ownerChanged;
    }
    if (arrival.lateQ()) {
        return Outcome::late;
    }
    if (fatalQ(signalNumber) && records.hasHostsOwnQ()) {
        records.callHostsOwn(information, context);
    } else {
        records.callValid(information, context);
        if (fatalQ(signalNumber)) {
            _exit(0);
        }
    }
    return Outcome::called;
}

// One attempt at a dispatch. Result: false if the signal changed hands before its records were
// called; then all begins anew.
bool dispatch(int signalNumber, siginfo* information, void* context) {
    if (SVLeftAction::takes(signalNumber, information, context)) {
        return true;
    }
    const SVArrival arrival(signalNumber);
    switch (callRecords(arrival, signalNumber, information, context)) {
        case Outcome::ownerChanged:
            return false;
        case Outcome::late:
            return svsendOn(signalNumber, information, context);
        case Outcome::called:
            break;
    }
    arrival.stayInstalled(information, context);
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
    if (!svcalledByKernelQ(__builtin_frame_address(0), context)) {
        if (Dispatch* const calling = Dispatch::calling(signalNumber)) {
            calling->goOn();
            return;
        }
    }
    // No locking: the thread that was interrupted, or another one, may hold the lock.
    SVSignalHandlerManager manager{SVSignalHandlerManager::Dispatching()};
    while (!dispatch(signalNumber, information, context)) {
    }
}
