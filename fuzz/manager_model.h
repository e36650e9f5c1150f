// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A model of the manager: what every operation is to do to the shared state and to the operating
// system's signal table, and which handlers are to be called, in which order. Written as plain
// lists and walks; it calls nothing and shares nothing with the library.
#ifndef SORVANE_FUZZ_MANAGER_MODEL_H
#define SORVANE_FUZZ_MANAGER_MODEL_H

#include <array>
#include <csignal>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "fuzz/table_model.h"

/// What an operation is to throw.
struct ModelFailure {
    const char* message;
    const char* file;
    unsigned int line;
    int kind;
    int code;
};

/// A handler record.
struct ModelRecord {
    int signalNumber;
    struct sigaction action;
    bool preExists;
    bool external;
    bool valid;

    void* function() const;
    bool hostsOwnQ() const { return (preExists || external) && valid; }
};

/// Whether two actions are the same to whoever reads them with sigaction.
bool sameAction(const struct sigaction& left, const struct sigaction& right);

/// The action that a record has that is made from the function of this one.
struct sigaction actionOfFunction(const struct sigaction& action);

/// A handler that is to be called.
struct ModelCall {
    void* function;
    int signalNumber;
    bool withInformation;
    unsigned int managers;  ///< alive during the call
};

/// The records of one signal. The table's values are numbers into the list, counted from 1.
struct ModelSignal {
    TableModel table;
    std::vector<ModelRecord> records;

    std::vector<ModelRecord> recordsInSlotOrder() const;
};

/// What the library's own action has of the host's.
struct ModelManner {
    std::uint64_t heldBack = 0;
    int flags = SA_RESTART;
};

class ManagerModel {
public:
    static constexpr int lastWalkedSignal = 60;
    static constexpr int lastSystemSignal = 64;

    /// Begins with the operating system's actions as they are.
    ManagerModel();

    // --- The state ------------------------------------------------------------------------------

    unsigned int managers = 0;
    bool handling = false;
    bool tablesExist = false;
    bool lockExists = false;
    bool lockLeftHeld = false;
    std::array<bool, lastWalkedSignal + 1> dispositions = {};
    TableModel outer;
    std::map<int, ModelSignal> signals;  ///< by key
    std::array<struct sigaction, lastSystemSignal + 1> system = {};
    std::array<ModelManner, lastSystemSignal + 1> manners;
    std::array<bool, lastSystemSignal + 1> librarys = {};    ///< the signals that the library has
    std::array<bool, lastSystemSignal + 1> handedBack = {};  ///< those that it has had before
    std::array<struct sigaction, lastSystemSignal + 1> handedBackTo = {};  ///< the last action
    std::array<bool, lastSystemSignal + 1> ignoredByHost = {};  ///< when they were taken over last
    std::vector<ModelCall> calls;

    // --- What happened, for those who want to know whether enough did ---------------------------

    unsigned int refusedInstallations = 0;
    TableEvents outerEvents;
    TableEvents innerEvents;

    /// Adds what happened in the tables that there are; done before they go.
    void noteTables();

    /// Which of the next operation's needs for memory are not met: bit n for the need n + 1.
    unsigned int unmetNeeds = 0;
    unsigned int needs = 0;  ///< how many there were

    // --- The operations; each throws a ModelFailure when the library is to throw ----------------

    void makeManager(bool locking);
    void destroyManager(bool locking);
    void startHandlingSignals();
    void stopHandlingSignal(int signalNumber);
    void stopHandlingSignals();
    void setDisposition(int signalNumber, bool handle);
    void resetDispositions();
    bool disposition(int signalNumber) const;
    void handleSignal(int signalNumber);
    void callHandlers(int signalNumber);
    void callHostsOwn(int signalNumber);
    bool hasHostsOwnQ(int signalNumber) const;
    void setHandler(const ModelRecord& record);
    void clearHandler(const ModelRecord& record);
    void restorePreexisting();
    ModelRecord install(const ModelRecord& record);

    /// A signal arrives for the process.
    void arrive(int signalNumber);
    /// Whether the library is to end the process when it does.
    bool arrivalEndsProcessQ(int signalNumber) const;
    bool takenOverQ(int signalNumber) const;

    // --- What they are made of ------------------------------------------------------------------

    static int keyOf(int signalNumber);
    static bool installableQ(int signalNumber);
    ModelRecord ownRecord(int signalNumber) const;
    static ModelRecord ignoringRecord(int signalNumber);
    const ModelSignal* signal(int signalNumber) const;

private:
    bool memoryForNextNeed();
    void needMemoryToGrow(TableModel& table, std::uint64_t key);
    ModelSignal& signalMadeIfNone(int signalNumber, unsigned int line);
    void store(ModelSignal& owner, const ModelRecord& record);
    void dispatch(int signalNumber);
    void followHost(int signalNumber);
    bool ignoredByLibraryQ(int signalNumber) const;
    void installOwn(int signalNumber);
    void handBack(const ModelRecord& record);
    void call(const ModelRecord& record);
};

#endif
