// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "fuzz/manager_body.h"

#include <climits>
#include <csignal>
#include <iterator>
#include <vector>

#include "fuzz/byte_source.h"
#include "fuzz/manager_pair.h"
#include "fuzz/special_handlers.h"
#include "support/emulation.h"
#include "support/observed_handlers.h"

namespace {

class ManagerHistory {
public:
    ManagerHistory(ByteSource& bytes, ManagerEvents& events)
        : m_bytes(bytes),
          m_events(events),
          m_favourites{frequentSignals[bytes.below(std::size(frequentSignals))],
                       frequentSignals[bytes.below(std::size(frequentSignals))]} {}

    std::string play() {
        for (unsigned int number = 1; m_bytes.moreQ() && !m_pair.overQ(); ++number) {
            const Step step = nextStep();
            const std::string difference = m_pair.perform(step);
            if (!difference.empty()) {
                return "step " + std::to_string(number) + ", after " + step.name + ": " +
                       difference;
            }
            noteStep();
        }
        noteTables();
        return m_pair.differenceInLock();
    }

private:
    void noteStep() {
        ++m_events.steps;
        m_events.calls += static_cast<unsigned>(m_pair.model.calls.size());
        m_events.refusedInstallations += m_pair.model.refusedInstallations;
        m_events.failedTeardowns += m_pair.overQ() ? 1U : 0U;
        m_pair.model.refusedInstallations = 0;
    }

    void noteTables() {
        m_pair.model.noteTables();
        m_events.outerGrowths += m_pair.model.outerEvents.growths;
        m_events.innerGrowths += m_pair.model.innerEvents.growths;
        m_events.innerCleans += m_pair.model.innerEvents.inlineCleans;
        m_events.unreachableCopies += m_pair.model.innerEvents.unreachableCopies;
    }

    // What may happen. Registrations come often, so that tables grow.
    enum class Operation {
        destroyManager,
        destroyAllManagers,
        start,
        stopAll,
        stopOne,
        handle,
        restore,
        setDisposition,
        setDispositions,
        setHandler,
        setHandlerOfAnyKind,
        setHandlerNeverCalled,
        wearTableOut,
        setHandlers,
        clearHandler,
        clearHandlerOfAnyKind,
        clearHandlers,
        install,
        ignore,
        makeRecord,
        callHandlers,
        callHostsOwn,
        hasHostsOwn,
        print,
        hostInstalls,
        deliver,
    };

    static constexpr Operation operations[] = {
        Operation::destroyManager,
        Operation::destroyAllManagers,
        Operation::start,
        Operation::start,
        Operation::stopAll,
        Operation::stopOne,
        Operation::handle,
        Operation::handle,
        Operation::restore,
        Operation::setDisposition,
        Operation::setDispositions,
        Operation::setHandler,
        Operation::setHandler,
        Operation::setHandler,
        Operation::setHandlerOfAnyKind,
        Operation::setHandlerOfAnyKind,
        Operation::setHandlers,
        Operation::clearHandler,
        Operation::clearHandler,
        Operation::clearHandlerOfAnyKind,
        Operation::clearHandlers,
        Operation::install,
        Operation::ignore,
        Operation::makeRecord,
        Operation::callHandlers,
        Operation::callHostsOwn,
        Operation::hasHostsOwn,
        Operation::print,
        Operation::wearTableOut,
        Operation::setHandlerNeverCalled,
        Operation::hostInstalls,
        Operation::hostInstalls,
        Operation::deliver,
        Operation::deliver,
    };

    // Most things happen to few signals: half of them to two, the rest to each kind that is
    // treated in a way of its own.
    static constexpr int frequentSignals[] = {SIGINT, SIGUSR1, SIGHUP,  SIGSEGV,
                                              SIGBUS, SIGKILL, SIGCHLD, 40};
    static constexpr int signalsOutside[] = {0, -1, 61, 64, 65, 1000, INT_MIN, INT_MAX};

    int anySignal() { return orAnotherOne(anySignalOfTheKernel()); }

    int anySignalOfTheKernel() {
        const std::size_t choice = m_bytes.below(256);
        if (choice < 128) {
            return m_favourites[choice % std::size(m_favourites)];
        }
        if (choice < 192) {
            return frequentSignals[choice % std::size(frequentSignals)];
        }
        return choice < 248 ? static_cast<int>(1 + (choice - 192) % 56 + m_bytes.below(5))
                            : signalsOutside[choice - 248];
    }

    // Half of the time one that the operating system refuses to let anybody handle.
    int anySignalToAllow() {
        static constexpr int refusedSignals[] = {SIGKILL, SIGSTOP, 32, 33};
        const std::size_t choice = m_bytes.below(2 * std::size(refusedSignals));
        return choice < std::size(refusedSignals) ? orAnotherOne(refusedSignals[choice])
                                                  : anySignal();
    }

    // Another one that nobody may handle, or that everybody may.
    static int orAnotherOne(int signalNumber) {
        if (!treatedUnlikeByTheKernelQ(signalNumber)) {
            return signalNumber;
        }
        return ManagerModel::installableQ(signalNumber) ? SIGUSR1 : 32;
    }

    int anySystemSignal() {
        const int signalNumber = anySignal();
        return ManagerModel::installableQ(signalNumber) ? signalNumber : SIGUSR1;
    }

    struct sigaction anyFunction() {
        struct sigaction action = {};
        const std::size_t choice = m_bytes.below(32);
        if (choice < 2) {
            action.sa_sigaction = choice == 0 ? userInformationHandler : hostInformationHandler;
            action.sa_flags = SA_SIGINFO;
        } else if (choice < 4) {
            action.sa_handler = choice == 2 ? SIG_DFL : SIG_IGN;
        } else {
            action.sa_handler = choice == 4 ? resettingHandler : numberedHandlers.at(choice - 5);
        }
        return action;
    }

    struct sigaction anyAction() {
        static constexpr int flags[] = {0, SA_RESTART, SA_NODEFER, SA_ONSTACK | SA_RESTART};
        struct sigaction action = anyFunction();
        action.sa_flags |= flags[m_bytes.below(std::size(flags))];
        sigaddset(&action.sa_mask, anySystemSignal());
        return action;
    }

    ModelRecord recordOfFunction() {
        return {anySignal(), actionOfFunction(anyFunction()), false, false, true};
    }

    ModelRecord recordOfAnyKind() {
        const std::size_t flags = m_bytes.below(16);
        const int signalNumber = anySignal();
        const struct sigaction action =
            (flags & 8U) != 0 ? anyAction() : actionOfFunction(anyFunction());
        return {signalNumber, action, (flags & 1U) != 0, (flags & 2U) != 0, (flags & 4U) == 0};
    }

    ModelRecord recordNeverCalled() {
        constexpr std::uintptr_t lowestAddress = 0x1000;
        return neverCalledRecord(anySignal(), lowestAddress + m_bytes.below(64), m_bytes.flag());
    }

    // Has a table filled with deleted slots, and nothing else.
    Step wearTableOut(std::size_t place) {
        const int signalNumber = anySignal();
        const std::uintptr_t lowestAddress = 0x1000 + m_bytes.below(64);
        for (std::uintptr_t address = lowestAddress + 5; address > lowestAddress; --address) {
            const ModelRecord record = neverCalledRecord(signalNumber, address, false);
            m_planned.push_back(m_pair.clearHandler(place, record));
            m_planned.push_back(m_pair.setHandler(place, record));
        }
        const ModelSignal* const signal = m_pair.model.signal(signalNumber);
        return m_pair.clearHandlers(
            place, signal == nullptr ? std::vector<ModelRecord>() : signal->recordsInSlotOrder());
    }

    // One that is registered, if the signal has any, as it is stored or as a user's.
    ModelRecord recordToClear(bool asStored) {
        const int signalNumber = anySignal();
        const ModelSignal* const signal = m_pair.model.signal(signalNumber);
        if (signal == nullptr || signal->table.used == 0) {
            return recordOfFunction();
        }
        const std::vector<ModelRecord> records = signal->recordsInSlotOrder();
        const ModelRecord& stored = records[m_bytes.below(records.size())];
        return asStored
                   ? stored
                   : ModelRecord{signalNumber, actionOfFunction(stored.action), false, false, true};
    }

    std::vector<ModelRecord> anyRecords() {
        std::vector<ModelRecord> records;
        for (std::size_t count = m_bytes.below(8); count > 0; --count) {
            records.push_back(recordOfAnyKind());
        }
        return records;
    }

    // Every record of one signal, so that a table comes to have more deleted slots than records.
    std::vector<ModelRecord> recordsToClear() {
        if (m_bytes.below(4) == 0) {
            return anyRecords();
        }
        const ModelSignal* const signal = m_pair.model.signal(anySignal());
        return signal == nullptr ? std::vector<ModelRecord>() : signal->recordsInSlotOrder();
    }

    std::vector<int> anySignals() {
        std::vector<int> signals;
        for (std::size_t count = m_bytes.below(4); count > 0; --count) {
            signals.push_back(anySignal());
        }
        return signals;
    }

    // What needs a manager makes one where there is none.
    Step nextStep() {
        for (std::size_t place = 0; m_ending && place < ManagerPair::placeCount; ++place) {
            if (m_pair.aliveQ(place)) {
                return m_pair.destroyManager(place);
            }
        }
        m_ending = false;
        if (!m_planned.empty()) {
            const Step step = m_planned.back();
            m_planned.pop_back();
            return step;
        }
        const Operation operation = operations[m_bytes.below(std::size(operations))];
        switch (operation) {
            case Operation::hostInstalls:
                return m_pair.hostInstalls({anySystemSignal(), anyAction(), true, true, true});
            case Operation::deliver:
                return deliver();
            default:
                break;
        }
        const std::size_t choice = m_bytes.below(2 * ManagerPair::placeCount);
        const std::size_t place = choice % ManagerPair::placeCount;
        if (!m_pair.aliveQ(place)) {
            return m_pair.makeManager(place, choice >= ManagerPair::placeCount);
        }
        return ofManager(operation, place);
    }

    Step deliver() {
        int signalNumber = anySystemSignal();
        const bool withValue = m_bytes.flag();
        // A child for each of them would take too long.
        const bool endsProcess = m_pair.model.arrivalEndsProcessQ(signalNumber);
        if (!m_pair.deliverableQ(signalNumber) || (endsProcess && m_children == mostChildren)) {
            signalNumber = SIGURG;
        } else if (endsProcess) {
            ++m_children;
            ++m_events.endedProcesses;
        }
        return m_pair.deliver(m_pair.deliverableQ(signalNumber) ? signalNumber : SIGWINCH,
                              withValue);
    }

    Step ofManager(Operation operation, std::size_t place) {
        switch (operation) {
            case Operation::destroyAllManagers:
                m_ending = m_bytes.flag();
                return m_pair.destroyManager(place);
            case Operation::destroyManager:
                return m_pair.destroyManager(place);
            case Operation::start:
                return m_pair.start(place);
            case Operation::stopAll:
                return m_pair.stop(place);
            case Operation::stopOne:
                return m_pair.stop(place, anySignal());
            case Operation::handle:
                return m_pair.handle(place, anySignal());
            case Operation::restore:
                return m_pair.restore(place);
            case Operation::setDisposition:
                return m_pair.setDisposition(place, anySignalToAllow(), m_bytes.below(4) != 0);
            case Operation::setDispositions:
                return m_pair.setDispositions(place, anySignals());
            default:
                return ofRecords(operation, place);
        }
    }

    Step ofRecords(Operation operation, std::size_t place) {
        switch (operation) {
            case Operation::setHandler:
                return m_pair.setHandler(place, recordOfFunction());
            case Operation::setHandlerOfAnyKind:
                return m_pair.setHandler(place, recordOfAnyKind());
            case Operation::setHandlerNeverCalled:
                return m_pair.setHandler(place, recordNeverCalled());
            case Operation::wearTableOut:
                return wearTableOut(place);
            case Operation::setHandlers:
                return m_pair.setHandlers(place, anyRecords());
            case Operation::clearHandler:
                return m_pair.clearHandler(place, recordToClear(false));
            case Operation::clearHandlerOfAnyKind:
                return m_pair.clearHandler(place, recordToClear(true));
            case Operation::clearHandlers:
                return m_pair.clearHandlers(place, recordsToClear());
            case Operation::install:
                return m_pair.install(place, recordOfAnyKind());
            default:
                return ofSignals(operation, place);
        }
    }

    Step ofSignals(Operation operation, std::size_t place) {
        switch (operation) {
            case Operation::ignore:
                return m_pair.ignore(place, anySignal());
            case Operation::makeRecord:
                return m_pair.makeRecord(place, anySignal());
            case Operation::callHandlers:
                return m_pair.callHandlers(place, anySignal());
            case Operation::callHostsOwn:
                return m_pair.callHostsOwn(place, anySignal());
            case Operation::hasHostsOwn:
                return m_pair.hasHostsOwn(place, anySignal());
            default:
                return m_pair.print(place);
        }
    }

    static constexpr unsigned int mostChildren = 2;

    ByteSource& m_bytes;
    ManagerEvents& m_events;
    const int m_favourites[2];
    ManagerPair m_pair;
    unsigned int m_children = 0;
    std::vector<Step> m_planned;  ///< the next one last
    bool m_ending = false;        ///< of one manager after the other
};

}  // namespace

std::string playManagers(const std::uint8_t* data, std::size_t size, ManagerEvents& events) {
    ByteSource bytes(data, size);
    return ManagerHistory(bytes, events).play();
}

std::string playManagers(const std::uint8_t* data, std::size_t size) {
    ManagerEvents events;
    return playManagers(data, size, events);
}
