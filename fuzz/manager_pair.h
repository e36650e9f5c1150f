// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Managers of the library and the model of them, side by side.
#ifndef SORVANE_FUZZ_MANAGER_PAIR_H
#define SORVANE_FUZZ_MANAGER_PAIR_H

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "fuzz/fresh_signals.h"
#include "fuzz/manager_comparison.h"
#include "fuzz/manager_model.h"
#include "support/shared_state.h"

/// One thing that is done to both. It may be done several times.
struct Step {
    std::string name;
    std::function<void()> real;
    std::function<void(ManagerModel&)> modelled;
};

class ManagerPair {
    const FreshSignals m_freshSignals;  // what the model begins with, and what is left at the end

public:
    static constexpr std::size_t placeCount = 4;

    ManagerModel model;

    ManagerPair() = default;
    ManagerPair(const ManagerPair&) = delete;
    ManagerPair& operator=(const ManagerPair&) = delete;
    ~ManagerPair();

    /// Whether a place has a manager. Steps that name a place need one that has.
    bool aliveQ(std::size_t place) const { return m_places[place].manager != nullptr; }

    // --- Steps ----------------------------------------------------------------------------------

    Step makeManager(std::size_t place, bool locking);
    Step destroyManager(std::size_t place);
    Step start(std::size_t place);
    Step stop(std::size_t place);
    Step stop(std::size_t place, int signalNumber);
    Step handle(std::size_t place, int signalNumber);
    Step restore(std::size_t place);
    Step setDisposition(std::size_t place, int signalNumber, bool mayHandle);
    Step setDispositions(std::size_t place, const std::vector<int>& forbidden);
    Step setHandler(std::size_t place, const ModelRecord& record);
    Step clearHandler(std::size_t place, const ModelRecord& record);
    Step setHandlers(std::size_t place, const std::vector<ModelRecord>& records);
    Step clearHandlers(std::size_t place, const std::vector<ModelRecord>& records);
    Step install(std::size_t place, const ModelRecord& record);
    Step ignore(std::size_t place, int signalNumber);
    Step makeRecord(std::size_t place, int signalNumber);
    Step callHandlers(std::size_t place, int signalNumber);
    Step callHostsOwn(std::size_t place, int signalNumber);
    Step hasHostsOwn(std::size_t place, int signalNumber);
    Step print(std::size_t place);
    Step hostInstalls(const ModelRecord& record);

    /// A signal is sent to the process; in a child when the library is to end it.
    Step deliver(int signalNumber, bool withValue);
    /// Whether a signal can be sent without its default action doing anything.
    bool deliverableQ(int signalNumber) const;

    // --- Doing them -----------------------------------------------------------------------------

    /// Does a step on both sides.
    /// Result: where they disagree then; empty when they don't.
    std::string perform(const Step& step);

    /// The parts of it: the two sides, and the judgement.
    Failure performReal(const Step& step);
    std::optional<ModelFailure> performModelled(const Step& step, ManagerModel& chosen);
    std::string differences(ManagerModel& chosen, const std::optional<ModelFailure>& expected,
                            const Failure& failure) const;

    /// Where the lock is not free, or not held, as it should be.
    std::string differenceInLock() const;

    /// Whether the last manager could not put everything back; nothing can follow.
    bool overQ() const { return model.managers == 0 && model.handling; }

private:
    struct Place {
        alignas(Manager) unsigned char storage[sizeof(Manager)];
        Manager* manager = nullptr;
        bool locking = false;
    };

    /// What a step gave back, and what it was to give back.
    struct Results {
        std::optional<Record> record;
        std::optional<ModelRecord> expectedRecord;
        bool answer = false;
        bool expectedAnswer = false;
        std::string text;
        std::string expectedText;
        const siginfo* handedOn = nullptr;  ///< the very information that handlers are to get
        std::optional<int> value;           ///< that came with the signal
    };

    Manager& at(std::size_t place) { return *m_places[place].manager; }
    void sendToChild(int signalNumber);
    std::string differenceInResults() const;
    std::string differenceInCalls() const;

    std::array<Place, placeCount> m_places = {};
    Results m_results;
};

#endif
