// What happens when a signal arrives. All of it can be reached by a signal.

#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "../support/svhandlercontext.h"
#include "svarrival.h"
#include "svsharedstate.h"
#include "svsignalhandlermanager.h"

namespace Sorvane {

namespace {

// The signals that end the process unless the host had a handler for them. SIGILL, SIGFPE and
// SIGABRT are not among them: they go the ordinary way.
bool fatalQ(int signalNumber) noexcept {
    return signalNumber == SIGSEGV || signalNumber == SIGBUS || signalNumber == SIGHUP;
}

bool hostsOwnQ(const SVSignalHandler& record) noexcept {
    return (record.preExistsQ() || record.externalQ()) && record.validQ();
}

// The walk over one signal's records. It begins with the table as it is when the signal arrives,
// and sees what its handlers do to the table on the way, slot by slot. If the records have been
// moved to other slots, it keeps to the slots that it has.
class Dispatch {
public:
    explicit Dispatch(int signalNumber) noexcept
        : m_signalNumber(signalNumber), m_table(m_pin.tableOf(signalNumber)) {}

    bool hasHostsOwnQ() const { return svfirstRecord(m_table, hostsOwnQ) != nullptr; }

    void callValid(void* information, void* context) {
        call(information, context, [](const SVSignalHandler& record) { return record.validQ(); });
    }
    void callHostsOwn(void* information, void* context) { call(information, context, hostsOwnQ); }

private:
    using Slot = SVSignalHandlerTable::Entry;

    // Calls what a test lets through, in slot order, from a slot on. A copy is called, so that a
    // handler that changes its own registration does not pull the record away from under the call.
    // Parameters: leftBehind, whether in what is published the records stand elsewhere.
    template <bool leftBehind, typename Test>
    [[gnu::noinline]] void callFrom(const Slot* slot, void* information, void* context, Test test) {
        for (const Slot* end = m_table->table + m_table->mask + 1; slot != end; ++slot) {
            if (slot->state != svslotOccupied) {
                continue;
            }
            SVSignalHandler record(slot->value);
            if (!test(record) || (leftBehind && clearedQ(slot->key))) {
                continue;
            }
            record(information, context);
            if (!leftBehind && !m_pin.publishedQ()) {
                const auto place = slot - m_table->table;
                if (!follow()) {
                    return callFrom<true>(slot + 1, information, context, test);
                }
                slot = m_table->table + place;
                end = m_table->table + m_table->mask + 1;
            }
        }
    }
    template <typename Test>
    void call(void* information, void* context, Test test) {
        if (m_table != nullptr) {
            callFrom<false>(m_table->table, information, context, test);
        }
    }

    // Goes on with what is published now, if the records there stand in the same slots. This and
    // the next one are rarely needed, and kept out of the loop.
    [[gnu::noinline]] bool follow() noexcept {
        SVTablesPin now;
        SVSignalHandlerTable* const table = now.tableOf(m_signalNumber);
        if (endedQ() || table == nullptr || !svsameSlotsQ(*m_table, *table)) {
            return false;
        }
        m_table = table;
        m_pin.swap(now);
        return true;
    }

    // Whoever clears a handler whose turn has not come does not see it called any more: its module
    // may be about to go. The end of the whole registry is no clearing. A record is looked for slot
    // by slot, because a key behind a cleared one is not found by its hash any more.
    [[gnu::noinline]] bool clearedQ(const void* function) const noexcept {
        const SVTablesPin now;
        const auto sameQ = [function](const SVSignalHandler& record) {
            return record.getHandlerFunction() == function;
        };
        return !endedQ() && svfirstRecord(now.tableOf(m_signalNumber), sameQ) == nullptr;
    }
    bool endedQ() const noexcept { return svregistry.timesEnded() != m_timesEnded; }

    const unsigned int m_timesEnded = svregistry.timesEnded();
    SVTablesPin m_pin;
    const int m_signalNumber;
    SVSignalHandlerTable* m_table;
};

// One attempt at a dispatch. What is to be called is decided from what is published at one instant,
// whatever other threads do to it meanwhile. Result: false if the signal changed hands before that;
// then all begins anew.
bool dispatch(int signalNumber, siginfo* information, void* context) {
    const SVArrival arrival(signalNumber);
    Dispatch records(signalNumber);
    if (arrival.ownerChangedQ()) {
        return false;
    }
    if (arrival.lateQ()) {
        return svsendOn(signalNumber, information, context);
    }
    if (fatalQ(signalNumber) && records.hasHostsOwnQ()) {
        records.callHostsOwn(information, context);
    } else {
        records.callValid(information, context);
        if (fatalQ(signalNumber)) {
            _exit(0);
        }
    }
    arrival.stayInstalled();
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
    return SVSignalHandler(signalNumber, &actualSignalHandler, false, false, true);
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
    // No locking: the thread that was interrupted, or another one, may hold the lock.
    SVSignalHandlerManager manager{SVSignalHandlerManager::Dispatching()};
    while (!dispatch(signalNumber, information, context)) {
    }
}
