// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "fuzz/manager_pair.h"

#include <unistd.h>

#include <csignal>
#include <sstream>

#include "support/child_process.h"
#include "support/fresh_process.h"

namespace {

// Their default action does nothing.
bool ignoredByDefaultQ(int signalNumber) {
    return signalNumber == SIGCHLD || signalNumber == SIGCONT || signalNumber == SIGURG ||
           signalNumber == SIGWINCH;
}

RecordList listOf(const std::vector<ModelRecord>& records) {
    RecordList list;
    for (const ModelRecord& record : records) {
        list.push_back(realRecord(record));
    }
    return list;
}

// The end of a child is not to be seen by those who watch the signals.
class UnwatchedChildren {
public:
    UnwatchedChildren() {
        struct sigaction none = {};
        none.sa_handler = SIG_DFL;
        sigaction(SIGCHLD, &none, &m_former);
    }
    UnwatchedChildren(const UnwatchedChildren&) = delete;
    UnwatchedChildren& operator=(const UnwatchedChildren&) = delete;
    ~UnwatchedChildren() { sigaction(SIGCHLD, &m_former, nullptr); }

private:
    struct sigaction m_former = {};
};

std::string nameOf(const char* operation, int signalNumber) {
    return operation + std::string("(") + std::to_string(signalNumber) + ")";
}

}  // namespace

ManagerPair::~ManagerPair() {
    emptyTables();
    if (model.lockLeftHeld) {
        Manager::handlerTableLock->unlock();
    }
    for (Place& place : m_places) {
        if (place.manager != nullptr) {
            place.manager->~SVSignalHandlerManager();
        }
    }
}

// --- Steps ---------------------------------------------------------------------------------------

Step ManagerPair::makeManager(std::size_t place, bool locking) {
    return {locking ? "make a locking manager" : "make a manager",
            [this, place, locking] {
                Place& free = m_places[place];
                free.manager = new (free.storage) Manager(locking);
                free.locking = locking;
            },
            [locking](ManagerModel& chosen) { chosen.makeManager(locking); }};
}

Step ManagerPair::destroyManager(std::size_t place) {
    return {
        "destroy a manager",
        [this, place] {
            Manager* const manager = m_places[place].manager;
            m_places[place].manager = nullptr;
            manager->~SVSignalHandlerManager();
        },
        [this, place](ManagerModel& chosen) { chosen.destroyManager(m_places[place].locking); }};
}

Step ManagerPair::start(std::size_t place) {
    return {"startHandlingSignals", [this, place] { at(place).startHandlingSignals(); },
            [](ManagerModel& chosen) { chosen.startHandlingSignals(); }};
}

Step ManagerPair::stop(std::size_t place) {
    return {"stopHandlingSignals", [this, place] { at(place).stopHandlingSignals(); },
            [](ManagerModel& chosen) { chosen.stopHandlingSignals(); }};
}

Step ManagerPair::stop(std::size_t place, int signalNumber) {
    return {nameOf("stopHandlingSignal", signalNumber),
            [this, place, signalNumber] { at(place).stopHandlingSignal(signalNumber); },
            [signalNumber](ManagerModel& chosen) { chosen.stopHandlingSignal(signalNumber); }};
}

Step ManagerPair::handle(std::size_t place, int signalNumber) {
    return {nameOf("handleSignal", signalNumber),
            [this, place, signalNumber] { at(place).handleSignal(signalNumber); },
            [signalNumber](ManagerModel& chosen) { chosen.handleSignal(signalNumber); }};
}

Step ManagerPair::restore(std::size_t place) {
    return {"restorePreviouslyExistingHandlers",
            [this, place] { at(place).restorePreviouslyExistingHandlers(); },
            [](ManagerModel& chosen) { chosen.restorePreexisting(); }};
}

Step ManagerPair::setDisposition(std::size_t place, int signalNumber, bool mayHandle) {
    return {nameOf("setSignalDisposition", signalNumber),
            [this, place, signalNumber, mayHandle] {
                at(place).setSignalDisposition(signalNumber, mayHandle);
            },
            [signalNumber, mayHandle](ManagerModel& chosen) {
                chosen.setDisposition(signalNumber, mayHandle);
            }};
}

Step ManagerPair::setDispositions(std::size_t place, const std::vector<int>& forbidden) {
    return {"setSignalDispositions",
            [this, place, forbidden] {
                Sorvane::SVSignalHandlerDispositionSet set;
                for (const int signalNumber : forbidden) {
                    set.doNotHandleSignal(signalNumber);
                }
                at(place).setSignalDispositions(set);
            },
            [forbidden](ManagerModel& chosen) {
                chosen.resetDispositions();
                for (const int signalNumber : forbidden) {
                    chosen.setDisposition(signalNumber, false);
                }
            }};
}

// The forms that build a record are used for what they can build.
Step ManagerPair::setHandler(std::size_t place, const ModelRecord& record) {
    return {nameOf("setHandler", record.signalNumber),
            [this, place, record] {
                struct sigaction action = record.action;
                if (record.preExists || record.external || !record.valid) {
                    Record real = realRecord(record);
                    at(place).setHandler(real);
                } else if (!sameAction(action, actionOfFunction(record.action))) {
                    at(place).setHandlerFromOSStruct(record.signalNumber, action);
                } else if ((action.sa_flags & SA_SIGINFO) != 0) {
                    at(place).setHandlerFromFunction(record.signalNumber, action.sa_sigaction);
                } else {
                    at(place).setHandlerFromFunction(record.signalNumber, action.sa_handler);
                }
            },
            [record](ManagerModel& chosen) { chosen.setHandler(record); }};
}

Step ManagerPair::clearHandler(std::size_t place, const ModelRecord& record) {
    return {
        nameOf("clearHandler", record.signalNumber),
        [this, place, record] {
            if (record.preExists || record.external || !record.valid) {
                Record real = realRecord(record);
                at(place).clearHandler(real);
            } else if ((record.action.sa_flags & SA_SIGINFO) != 0) {
                at(place).clearHandlerWithFunction(record.signalNumber, record.action.sa_sigaction);
            } else {
                at(place).clearHandlerWithFunction(record.signalNumber, record.action.sa_handler);
            }
        },
        [record](ManagerModel& chosen) { chosen.clearHandler(record); }};
}

Step ManagerPair::setHandlers(std::size_t place, const std::vector<ModelRecord>& records) {
    return {"setHandlers",
            [this, place, list = listOf(records)]() mutable { at(place).setHandlers(list); },
            [records](ManagerModel& chosen) {
                for (const ModelRecord& record : records) {
                    chosen.setHandler(record);
                }
            }};
}

Step ManagerPair::clearHandlers(std::size_t place, const std::vector<ModelRecord>& records) {
    return {"clearHandlers",
            [this, place, list = listOf(records)]() mutable { at(place).clearHandlers(list); },
            [records](ManagerModel& chosen) {
                for (const ModelRecord& record : records) {
                    chosen.clearHandler(record);
                }
            }};
}

Step ManagerPair::install(std::size_t place, const ModelRecord& record) {
    return {nameOf("installHandlerInSystem", record.signalNumber),
            [this, place, record] {
                Record real = realRecord(record);
                m_results.record.emplace(at(place).installHandlerInSystem(real));
            },
            [this, record](ManagerModel& chosen) {
                m_results.expectedRecord = chosen.install(record);
            }};
}

Step ManagerPair::ignore(std::size_t place, int signalNumber) {
    return {nameOf("ignoreSignal", signalNumber),
            [this, place, signalNumber] {
                m_results.record.emplace(at(place).ignoreSignal(signalNumber));
            },
            [this, signalNumber](ManagerModel& chosen) {
                m_results.expectedRecord =
                    chosen.install(ManagerModel::ignoringRecord(signalNumber));
            }};
}

Step ManagerPair::makeRecord(std::size_t place, int signalNumber) {
    return {nameOf("theSVHandler", signalNumber),
            [this, place, signalNumber] {
                m_results.record.emplace(at(place).theSVHandler(signalNumber));
            },
            [this, signalNumber](ManagerModel& same) {
                m_results.expectedRecord = same.ownRecord(signalNumber);
            }};
}

Step ManagerPair::callHandlers(std::size_t place, int signalNumber) {
    static siginfo information = {};
    return {nameOf("callHandlers", signalNumber),
            [this, place, signalNumber] {
                m_results.handedOn = &information;
                at(place).callHandlers(signalNumber, &information, &information);
            },
            [signalNumber](ManagerModel& chosen) { chosen.callHandlers(signalNumber); }};
}

Step ManagerPair::callHostsOwn(std::size_t place, int signalNumber) {
    static siginfo information = {};
    return {nameOf("callOnlyPreexistingOrExternalHandlers", signalNumber),
            [this, place, signalNumber] {
                m_results.handedOn = &information;
                at(place).callOnlyPreexistingOrExternalHandlers(signalNumber, &information,
                                                                &information);
            },
            [signalNumber](ManagerModel& chosen) { chosen.callHostsOwn(signalNumber); }};
}

Step ManagerPair::hasHostsOwn(std::size_t place, int signalNumber) {
    return {nameOf("hasPreexistingOrExternalHandlerQ", signalNumber),
            [this, place, signalNumber] {
                m_results.answer = at(place).hasPreexistingOrExternalHandlerQ(signalNumber);
            },
            [this, signalNumber](ManagerModel& chosen) {
                m_results.expectedAnswer = chosen.hasHostsOwnQ(signalNumber);
            }};
}

Step ManagerPair::print(std::size_t place) {
    return {"print",
            [this, place] {
                std::ostringstream stream;
                stream << at(place);
                m_results.text = stream.str();
            },
            [this](ManagerModel& chosen) { m_results.expectedText = expectedDump(chosen); }};
}

Step ManagerPair::hostInstalls(const ModelRecord& record) {
    return {nameOf("the host's sigaction", record.signalNumber),
            [record] { sigaction(record.signalNumber, &record.action, nullptr); },
            [record](ManagerModel& chosen) { chosen.install(record); }};
}

Step ManagerPair::deliver(int signalNumber, bool withValue) {
    if (model.arrivalEndsProcessQ(signalNumber)) {
        return {nameOf("end by signal", signalNumber),
                [this, signalNumber] { sendToChild(signalNumber); },
                [this, signalNumber](ManagerModel& chosen) {
                    ManagerModel ofChild = chosen;
                    ofChild.arrive(signalNumber);
                    chosen.calls = ofChild.calls;
                    m_results.expectedAnswer = true;
                }};
    }
    return {nameOf(withValue ? "sigqueue" : "raise", signalNumber),
            [this, signalNumber, withValue] {
                if (withValue) {
                    sigval value = {};
                    value.sival_int = 1000 + signalNumber;
                    m_results.value = value.sival_int;
                    sigqueue(getpid(), signalNumber, value);
                    // Sends nothing; valgrind delivers what is queued no sooner than at a kill.
                    kill(getpid(), 0);
                } else {
                    raise(signalNumber);
                }
            },
            [signalNumber](ManagerModel& chosen) { chosen.arrive(signalNumber); }};
}

void ManagerPair::sendToChild(int signalNumber) {
    const UnwatchedChildren unwatched;
    m_results.answer = inChild([signalNumber] { raise(signalNumber); }).exitedWithQ(0);
}

bool ManagerPair::deliverableQ(int signalNumber) const {
    if (!ManagerModel::installableQ(signalNumber)) {
        return false;
    }
    const struct sigaction& action = model.system[static_cast<std::size_t>(signalNumber)];
    return action.sa_handler != SIG_DFL || ignoredByDefaultQ(signalNumber);
}

// --- Doing them ----------------------------------------------------------------------------------

std::string ManagerPair::perform(const Step& step) {
    const Failure failure = performReal(step);
    const std::optional<ModelFailure> expected = performModelled(step, model);
    return differences(model, expected, failure);
}

Failure ManagerPair::performReal(const Step& step) {
    forgetCalls();
    m_results = Results();
    return failureOf([&step] { step.real(); });
}

std::optional<ModelFailure> ManagerPair::performModelled(const Step& step, ManagerModel& chosen) {
    chosen.calls.clear();
    chosen.needs = 0;
    m_results.expectedRecord.reset();
    try {
        step.modelled(chosen);
    } catch (const ModelFailure& failure) {
        return failure;
    }
    return std::nullopt;
}

std::string ManagerPair::differences(ManagerModel& chosen,
                                     const std::optional<ModelFailure>& expected,
                                     const Failure& failure) const {
    return differenceFrom(expected, failure) + differenceFrom(chosen) + differenceInResults() +
           differenceInCalls();
}

std::string ManagerPair::differenceInResults() const {
    std::string difference;
    if (m_results.record.has_value() != m_results.expectedRecord.has_value()) {
        difference += "a record was given back, or none was, against expectation; ";
    } else if (m_results.record.has_value()) {
        difference += differenceFrom(*m_results.expectedRecord, *m_results.record);
    }
    difference += m_results.answer == m_results.expectedAnswer ? "" : "the answer is wrong; ";
    difference += m_results.text == m_results.expectedText ? "" : "the dump is wrong; ";
    return difference;
}

std::string ManagerPair::differenceInCalls() const {
    for (std::size_t i = 0; i < callCount(); ++i) {
        const HandlerCall& call = callAt(i);
        if (call.information == nullptr) {
            continue;
        }
        if (m_results.handedOn != nullptr &&
            (call.information != m_results.handedOn || call.context != m_results.handedOn)) {
            return "information or context was not handed on as it was; ";
        }
        if (m_results.value.has_value() &&
            call.informationCopy.si_value.sival_int != *m_results.value) {
            return "a handler got another signal's information; ";
        }
    }
    return "";
}

std::string ManagerPair::differenceInLock() const {
    if (Manager::handlerTableLock == nullptr || lockIsFree() != model.lockLeftHeld) {
        return "";
    }
    return model.lockLeftHeld ? "the lock is free; " : "the lock is held; ";
}
