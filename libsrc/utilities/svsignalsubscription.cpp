// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svsignalsubscription.h"

#include "../registry/svownership.h"
#include "svownaction.h"
#include "svsharedstate.h"
#include "svsubscriptionentries.h"
#include "svsystemactions.h"

namespace Sorvane {

namespace {

constexpr SVFailure failureAt(const char* message, unsigned int line,
                              svexceptiontype type) noexcept {
    return SVFailure(message, "libsrc/utilities/svsignalsubscription", line, type, 0);
}

constexpr SVFailure noHandler = failureAt("There is no handler.", 41, svexceptionRequestRefused);
constexpr SVFailure forbidden = failureAt(
    "The signal can't be handled, or its disposition forbids it.", 58, svexceptionRequestRefused);
constexpr SVFailure hadAlready =
    failureAt("The handler has the signal already.", 73, svexceptionRequestRefused);
constexpr SVFailure noEntry =
    failureAt("No entry function is left.", 96, svexceptionAllocationFailed);
constexpr SVFailure noTableForGuest =
    failureAt("Unable to allocate new table", 112, svexceptionAllocationFailed);

SVMutexHandle* lockHandle() noexcept {
    return svshared(SVSignalHandlerManager::handlerTableLock).load();
}

// The default action and the ignoring one are no functions.
bool callableQ(const SVSubscriber& subscriber) noexcept {
    return subscriber.function != reinterpret_cast<SVSubscriber::Function>(SIG_DFL) &&
           subscriber.function != reinterpret_cast<SVSubscriber::Function>(SIG_IGN);
}

// What the host has for a signal, also while that is the library's; but what it has installed over
// the library comes first.
SVFailure askForHosts(int signalNumber, struct sigaction& hosts) noexcept {
    return SVSystemActions::askForHosts(signalNumber, hosts).then([&] {
        hosts = svownActionQ(hosts) ? SVSystemActions::meantBy(signalNumber, hosts)
                                    : SVOwnership::hostsActionIf(signalNumber, hosts);
    });
}

bool hostsQ(const SVSignalHandler& record) noexcept {
    return record.preExistsQ();
}

// Its own record, and those of others that could not be taken out when they had come to their end.
// No cleared slot stays that others' records lie behind. In a child that was split off in the
// middle of an end there may be no table any more. Result: whether there was memory for it.
bool takeEndedOut(int signalNumber) noexcept {
    const bool none = svregistry.tableOf(signalNumber) == nullptr;
    const bool detached = none || !svregistry.detach(signalNumber, noTableForGuest);
    if (detached && !none) {
        svregistry.removeAll(signalNumber, SVSubscriptionEntries::endedQ);
        svregistry.compact(signalNumber);
    }
    return detached;
}

void* functionOf(const struct sigaction& action) noexcept {
    return reinterpret_cast<void*>(action.sa_sigaction);
}

bool hasRecordQ(int signalNumber, const struct sigaction& action) noexcept {
    return svregistry.tableOf(signalNumber)->has_key(functionOf(action));
}

// Notes whether that has put a handler of the host's on record.
SVFailure takeOverForGuests(int signalNumber) noexcept {
    const unsigned int before = svregistry.tableOf(signalNumber)->used;
    return svtakeOver(signalNumber).then([=] {
        if (svregistry.tableOf(signalNumber)->used != before) {
            svkeptByGuests.add(signalNumber);
        }
    });
}

// What the host had before it installed something else over the library.
void forgetFormerOf(int signalNumber, const struct sigaction& hosts) noexcept {
    const struct sigaction& former = SVOwnership::hostsAction(signalNumber);
    if (svkeptByGuests.hasQ(signalNumber) && SVOwnership::librarysQ(signalNumber) &&
        former.sa_handler != hosts.sa_handler && hasRecordQ(signalNumber, former)) {
        svregistry.remove(signalNumber, functionOf(former));
        svregistry.compact(signalNumber);
    }
}

bool onlyHostsQ(const SVSignalHandlerTable* table) noexcept {
    return svfirstRecord(table, [](const SVSignalHandler& record) {
               return !hostsQ(record) && !SVSubscriptionEntries::endedQ(record);
           }) == nullptr;
}

}  // namespace

SVSignalSubscription::SVSignalSubscription(int signalNumber, const SVSubscriber& subscriber,
                                           SVIgnoredSignal ignored)
    : m_manager(true),
      m_signalNumber(signalNumber),
      m_subscriber(subscriber),
      m_ignored(ignored),
      m_entry(SVSubscriptionEntries::none) {
    renew();
}

SVSignalSubscription::SVSignalSubscription(int signalNumber, SimpleHandler handler,
                                           SVIgnoredSignal ignored)
    : SVSignalSubscription(signalNumber,
                           SVSubscriber{SVSubscriber::Form::simple,
                                        reinterpret_cast<SVSubscriber::Function>(handler), nullptr},
                           ignored) {}

SVSignalSubscription::SVSignalSubscription(int signalNumber, InformationHandler handler,
                                           SVIgnoredSignal ignored)
    : SVSignalSubscription(signalNumber,
                           SVSubscriber{SVSubscriber::Form::information,
                                        reinterpret_cast<SVSubscriber::Function>(handler), nullptr},
                           ignored) {}

SVSignalSubscription::SVSignalSubscription(int signalNumber, UserHandler handler, void* user,
                                           SVIgnoredSignal ignored)
    : SVSignalSubscription(signalNumber,
                           SVSubscriber{SVSubscriber::Form::user,
                                        reinterpret_cast<SVSubscriber::Function>(handler), user},
                           ignored) {}

// The manager may be the last one, and fail to put a handler back; nobody could be told of it.
SVSignalSubscription::~SVSignalSubscription() noexcept try {
    if (m_entry != SVSubscriptionEntries::none) {
        svchange(lockHandle(), [this] { end(); });
        SVSubscriptionEntries::waitForOthers(m_entry);
        if (!m_onRecord) {
            SVSubscriptionEntries::giveBack(m_entry);
        }
    }
} catch (const SVException&) {
    return;
}

// A dispatch may be about to install the library again.
bool SVSignalSubscription::activeQ() const noexcept {
    struct sigaction current;
    const auto installedQ = [&] {
        return !SVSystemActions::ask(m_signalNumber, current) && svownActionQ(current);
    };
    return m_entry != SVSubscriptionEntries::none && SVOwnership::librarysQ(m_signalNumber) &&
           (SVOwnership::Unsettled::anyQ(m_signalNumber) || installedQ());
}

bool SVSignalSubscription::renew() {
    svchange(lockHandle(), [this] { return begin(); });
    return activeQ();
}

SVFailure SVSignalSubscription::begin() noexcept {
    if (activeQ()) {
        return SVFailure();
    }
    if (!callableQ(m_subscriber)) {
        return noHandler;
    }
    if (!SVSignalHandlerManager::signalDispositionSet.getSignalDisposition(m_signalNumber)) {
        return forbidden;
    }
    struct sigaction hosts;
    return askForHosts(m_signalNumber, hosts).then([&] { return refusal(hosts); }).then([&] {
        const bool leftAlone =
            hosts.sa_handler == SIG_IGN && m_ignored == SVIgnoredSignal::leaveAlone;
        if (leftAlone) {
            return SVFailure();
        }
        return m_onRecord ? takeOverAgain(hosts) : enter(hosts);
    });
}

// Whether the handler has the signal in another way. A handler with a user's pointer can be nobody
// else's.
SVFailure SVSignalSubscription::refusal(const struct sigaction& hosts) const noexcept {
    const auto* const function = reinterpret_cast<void*>(m_subscriber.function);
    const bool subscribed = m_entry == SVSubscriptionEntries::none &&
                            SVSubscriptionEntries::callsQ(m_signalNumber, m_subscriber);
    const bool registered = functionOf(hosts) == function ||
                            svrecordOf(svregistry.tableOf(m_signalNumber), function) != nullptr;
    return subscribed || registered ? hadAlready : SVFailure();
}

// The record comes first, so that whoever finds the library installed finds the record.
SVFailure SVSignalSubscription::enter(const struct sigaction& hosts) noexcept {
    m_entry = SVSubscriptionEntries::begin(m_signalNumber, m_subscriber);
    if (m_entry == SVSubscriptionEntries::none) {
        return noEntry;
    }
    const SVSignalHandler record(m_signalNumber, SVSubscriptionEntries::functionOf(m_entry), false,
                                 false, true);
    const bool first = svregistry.tableOf(m_signalNumber) == nullptr;
    const SVFailure failure = svregistry.addTable(m_signalNumber, noTableForGuest)
                                  .then([&] {
                                      if (first) {
                                          svonlyForGuests.add(m_signalNumber);
                                      }
                                      return svregistry.store(record, noTableForGuest);
                                  })
                                  .then([&] {
                                      m_onRecord = true;
                                      forgetFormerOf(m_signalNumber, hosts);
                                      return takeOverForGuests(m_signalNumber);
                                  });
    if (failure) {
        withdraw();
    }
    return failure;
}

SVFailure SVSignalSubscription::takeOverAgain(const struct sigaction& hosts) const noexcept {
    return svregistry.detach(m_signalNumber, noTableForGuest).then([&] {
        forgetFormerOf(m_signalNumber, hosts);
        return takeOverForGuests(m_signalNumber);
    });
}

// In the same gate in which it entered.
void SVSignalSubscription::withdraw() noexcept {
    SVSubscriptionEntries::end(m_entry);
    if (m_onRecord) {
        svregistry.removeAll(m_signalNumber, SVSubscriptionEntries::endedQ);
        svregistry.compact(m_signalNumber);
        m_onRecord = false;
    }
    SVSignalHandlerTable* const table = svregistry.tableOf(m_signalNumber);
    if (table != nullptr && table->used == 0 && svonlyForGuests.hasQ(m_signalNumber) &&
        !SVOwnership::librarysQ(m_signalNumber) &&
        !svregistry.detach(m_signalNumber, noTableForGuest)) {
        svregistry.dropTable(m_signalNumber);
    }
    SVSubscriptionEntries::giveBack(m_entry);
    m_entry = SVSubscriptionEntries::none;
}

// Without memory its record stays. What a subscription has kept on record of the host goes with the
// last of the others, but not before the host's action is installed; and the table as well, if only
// subscriptions have asked for the signal: a stop is to find nothing there.
void SVSignalSubscription::end() noexcept {
    SVSubscriptionEntries::end(m_entry);
    m_onRecord = !takeEndedOut(m_signalNumber);
    if (!onlyHostsQ(svregistry.tableOf(m_signalNumber))) {
        return;
    }
    const struct sigaction hosts = SVOwnership::hostsAction(m_signalNumber);
    const SVFailure failure = SVOwnership::librarysQ(m_signalNumber)
                                  ? SVSystemActions::leaveToHost(m_signalNumber)
                                  : SVFailure();
    if (failure || m_onRecord || svregistry.tableOf(m_signalNumber) == nullptr) {
        return;
    }
    if (svonlyForGuests.hasQ(m_signalNumber)) {
        svregistry.dropTable(m_signalNumber);
    } else if (svkeptByGuests.hasQ(m_signalNumber) && hasRecordQ(m_signalNumber, hosts)) {
        svregistry.remove(m_signalNumber, functionOf(hosts));
        svregistry.compact(m_signalNumber);
    }
    svkeptByGuests.remove(m_signalNumber);
}

}  // namespace Sorvane
