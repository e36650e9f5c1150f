#include "fuzz/manager_body.h"

#include <climits>
#include <csignal>
#include <iterator>
#include <vector>

#include "fuzz/byte_source.h"
#include "fuzz/manager_pair.h"
#include "support/observed_handlers.h"

namespace {

class ManagerHistory {
public:
    explicit ManagerHistory(ByteSource& bytes) : m_bytes(bytes) {}

    std::string play() {
        for (unsigned int number = 1; m_bytes.moreQ() && !m_pair.overQ(); ++number) {
            const Step step = nextStep();
            const std::string difference = m_pair.perform(step);
            if (!difference.empty()) {
                return "step " + std::to_string(number) + ", after " + step.name + ": " +
                       difference;
            }
        }
        return m_pair.differenceInLock();
    }

private:
    // What may happen. Registrations come often, so that tables grow.
    enum class Operation {
        makeManager,
        destroyManager,
        start,
        stopAll,
        stopOne,
        handle,
        restore,
        setDisposition,
        setDispositions,
        setHandler,
        setHandlerOfAnyKind,
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
        Operation::makeManager,
        Operation::destroyManager,
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
        Operation::clearHandlerOfAnyKind,
        Operation::clearHandlers,
        Operation::install,
        Operation::ignore,
        Operation::makeRecord,
        Operation::callHandlers,
        Operation::callHostsOwn,
        Operation::hasHostsOwn,
        Operation::print,
        Operation::hostInstalls,
        Operation::hostInstalls,
        Operation::deliver,
        Operation::deliver,
        Operation::deliver,
    };

    // Most things happen to few signals: to each kind that is treated in a way of its own.
    static constexpr int frequentSignals[] = {SIGINT, SIGUSR1, SIGHUP,  SIGSEGV,
                                              SIGBUS, SIGKILL, SIGCHLD, 40};
    static constexpr int signalsOutside[] = {0, -1, 61, 64, 65, 1000, INT_MIN, INT_MAX};

    int anySignal() {
        const std::size_t choice = m_bytes.below(256);
        if (choice < 160) {
            return frequentSignals[choice % std::size(frequentSignals)];
        }
        return choice < 248 ? static_cast<int>(1 + (choice - 160) % 60)
                            : signalsOutside[choice - 248];
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
            action.sa_handler = numberedHandlers.at(choice - 4);
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

    std::vector<ModelRecord> anyRecords() {
        std::vector<ModelRecord> records;
        for (std::size_t count = m_bytes.below(8); count > 0; --count) {
            records.push_back(recordOfAnyKind());
        }
        return records;
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
        if (!m_pair.deliverableQ(signalNumber) || (endsProcess && ++m_children > mostChildren)) {
            signalNumber = SIGURG;
        }
        return m_pair.deliver(m_pair.deliverableQ(signalNumber) ? signalNumber : SIGWINCH,
                              withValue);
    }

    Step ofManager(Operation operation, std::size_t place) {
        switch (operation) {
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
                return m_pair.setDisposition(place, anySignal(), m_bytes.flag());
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
            case Operation::setHandlers:
                return m_pair.setHandlers(place, anyRecords());
            case Operation::clearHandler:
                return m_pair.clearHandler(place, recordOfFunction());
            case Operation::clearHandlerOfAnyKind:
                return m_pair.clearHandler(place, recordOfAnyKind());
            case Operation::clearHandlers:
                return m_pair.clearHandlers(place, anyRecords());
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
    ManagerPair m_pair;
    unsigned int m_children = 0;
};

}  // namespace

std::string playManagers(const std::uint8_t* data, std::size_t size) {
    ByteSource bytes(data, size);
    return ManagerHistory(bytes).play();
}
