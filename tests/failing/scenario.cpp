// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "failing/scenario.h"

#include <csignal>
#include <cstdint>

#include "fuzz/special_handlers.h"
#include "support/observed_handlers.h"

namespace {

constexpr std::size_t locking = 0;
constexpr std::size_t notLocking = 1;
constexpr std::size_t otherLocking = 2;
constexpr int extraSignal = SIGURG;

ModelRecord userOf(int signalNumber, std::size_t handler) {
    struct sigaction action = {};
    action.sa_handler = numberedHandlers.at(handler);
    return {signalNumber, actionOfFunction(action), false, false, true};
}

ModelRecord resettingOf(int signalNumber) {
    struct sigaction action = {};
    action.sa_handler = resettingHandler;
    return {signalNumber, actionOfFunction(action), false, false, true};
}

ModelRecord hostOf(int signalNumber, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    return {signalNumber, actionOfFunction(action), true, true, true};
}

// Collects the steps; one method for each chapter of the story.
class Story {
public:
    explicit Story(const std::vector<int>& signals) : m_signals(signals) {}

    std::vector<StepMaker> steps() {
        makeManagers();
        hostInstalls();
        registerForEach();
        registerSoThatTablesGrow();
        registerSoThatATableIsCleaned();
        startAndDeliver();
        registerWhileHandling();
        clearAndHandBack();
        startAgain();
        destroyManagers();
        beginAnew();
        return m_steps;
    }

private:
    void add(StepMaker maker) { m_steps.push_back(std::move(maker)); }

    void set(std::size_t place, const ModelRecord& record) {
        add([=](ManagerPair& pair) { return pair.setHandler(place, record); });
    }
    void clear(std::size_t place, const ModelRecord& record) {
        add([=](ManagerPair& pair) { return pair.clearHandler(place, record); });
    }
    void make(std::size_t place, bool withLock) {
        add([=](ManagerPair& pair) { return pair.makeManager(place, withLock); });
    }
    void destroy(std::size_t place) {
        add([=](ManagerPair& pair) { return pair.destroyManager(place); });
    }

    void deliverToEach() {
        for (const int signalNumber : m_signals) {
            add([=](ManagerPair& pair) {
                const bool possible = pair.deliverableQ(signalNumber) &&
                                      !pair.model.arrivalEndsProcessQ(signalNumber);
                return pair.deliver(possible ? signalNumber : extraSignal, true);
            });
        }
    }

    void makeManagers() {
        make(locking, true);
        make(notLocking, false);
        make(otherLocking, true);
    }

    void hostInstalls() {
        for (const int signalNumber : m_signals) {
            if (ManagerModel::installableQ(signalNumber)) {
                add([=](ManagerPair& pair) {
                    return pair.hostInstalls(hostOf(signalNumber, hostHandler));
                });
            }
        }
    }

    // The sixth signal makes the outer table grow.
    void registerForEach() {
        for (std::size_t i = 0; i < m_signals.size(); ++i) {
            set(i % 3, userOf(m_signals[i], 0));
        }
    }

    // The first signal's table grows at once; the second one's when the host's handler comes in.
    void registerSoThatTablesGrow() {
        for (std::size_t handler = 1; handler < 7; ++handler) {
            set(handler % 3, userOf(m_signals[0], handler));
        }
        for (std::size_t handler = 1; handler < 5; ++handler) {
            set(locking, userOf(m_signals[1], handler));
        }
        const std::vector<ModelRecord> list = {userOf(m_signals[2], 1), userOf(m_signals[3], 1),
                                               hostOf(m_signals[4], otherHostHandler)};
        add([=](ManagerPair& pair) { return pair.setHandlers(locking, list); });
    }

    // Five slots deleted and a sixth used: the table is rebuilt at the same size.
    void registerSoThatATableIsCleaned() {
        clear(locking, userOf(m_signals[5], 0));
        for (std::uintptr_t address = 0x1001; address < 0x1006; ++address) {
            set(locking, neverCalledRecord(m_signals[5], address, false));
            clear(locking, neverCalledRecord(m_signals[5], address, false));
        }
        set(locking, userOf(m_signals[5], 0));
    }

    // Signals that are taken over although nobody registered for them get their tables then.
    void startAndDeliver() {
        for (const int signalNumber : {SIGWINCH, SIGALRM}) {
            add([=](ManagerPair& pair) { return pair.handle(locking, signalNumber); });
        }
        add([](ManagerPair& pair) { return pair.start(locking); });
        deliverToEach();
    }

    void registerWhileHandling() {
        set(locking, resettingOf(m_signals[3]));
        for (const int signalNumber : m_signals) {
            set(otherLocking, userOf(signalNumber, 10));
        }
        set(notLocking, userOf(extraSignal, 0));
        for (const int signalNumber : m_signals) {
            add([=](ManagerPair& pair) { return pair.handle(locking, signalNumber); });
        }
        deliverToEach();
    }

    void clearAndHandBack() {
        for (const int signalNumber : m_signals) {
            add([=](ManagerPair& pair) { return pair.stop(notLocking, signalNumber); });
            add([=](ManagerPair& pair) { return pair.ignore(locking, signalNumber); });
            add([=](ManagerPair& pair) {
                return pair.install(locking, hostOf(signalNumber, otherHostHandler));
            });
            clear(otherLocking, userOf(signalNumber, 10));
        }
        // The last record of its signal, which the signal goes back to.
        clear(locking, userOf(m_signals[6], 0));
        set(locking, hostOf(m_signals[6], hostHandler));
        clear(locking, hostOf(m_signals[6], hostHandler));
        set(locking, userOf(m_signals[6], 0));
        add([](ManagerPair& pair) { return pair.restore(otherLocking); });
        add([](ManagerPair& pair) { return pair.stop(locking); });
        deliverToEach();
    }

    void startAgain() {
        for (const int signalNumber : m_signals) {
            set(locking, hostOf(signalNumber, otherHostHandler));
        }
        add([](ManagerPair& pair) { return pair.start(notLocking); });
        deliverToEach();
    }

    void destroyManagers() {
        destroy(otherLocking);
        destroy(notLocking);
        deliverToEach();
        destroy(locking);
    }

    // A signal that is still taken over makes the first manager, inside its handler.
    void beginAnew() {
        add([](ManagerPair& pair) {
            return pair.hostInstalls(ManagerModel().ownRecord(extraSignal));
        });
        add([](ManagerPair& pair) { return pair.deliver(extraSignal, false); });
        make(locking, true);
        set(locking, userOf(m_signals[0], 0));
        add([](ManagerPair& pair) { return pair.start(locking); });
        deliverToEach();
        add([](ManagerPair& pair) { return pair.stop(locking); });
        destroy(locking);
    }

    const std::vector<int> m_signals;
    std::vector<StepMaker> m_steps;
};

}  // namespace

std::vector<StepMaker> scenarioWith(const std::vector<int>& signals) {
    return Story(signals).steps();
}

std::vector<int> ordinaryScenarioSignals() {
    return {SIGHUP, SIGINT, SIGUSR1, SIGSEGV, SIGUSR2, SIGTERM, 40};
}

std::string runFreshScenario() {
    ManagerPair pair;
    for (const StepMaker& maker : scenarioWith(ordinaryScenarioSignals())) {
        const Step step = maker(pair);
        const std::string difference = pair.perform(step) + pair.differenceInLock();
        if (!difference.empty()) {
            return "in a fresh scenario, after " + step.name + ": " + difference;
        }
    }
    return "";
}
