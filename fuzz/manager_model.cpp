// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "fuzz/manager_model.h"

#include <../registry/svownership.h>
#include <../utilities/svownaction.h>
#include <sorvane/svsignalhandlermanager.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "fuzz/special_handlers.h"

namespace {

constexpr const char* managerFile = "libsrc/utilities/svsignalhandlermanager";
constexpr const char* tableFile = "libsrc/include/../datastructures/svhashtable";

constexpr unsigned int lineNoTableForHandler = 144;
constexpr unsigned int lineNoTableForSignal = 302;

// The kernel's own, which the C library adds to what is asked for; and what the library tells its
// take-overs apart by, in its own action only.
constexpr int restorerFlag = 0x04000000;
constexpr int markingFlag = 0x800;

void* functionOf(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) != 0 ? reinterpret_cast<void*>(action.sa_sigaction)
                                               : reinterpret_cast<void*>(action.sa_handler);
}

void* const defaultFunction = reinterpret_cast<void*>(SIG_DFL);
void* const ignoringFunction = reinterpret_cast<void*>(SIG_IGN);
void* const ownFunction = reinterpret_cast<void*>(&actualSignalHandler);

bool specialQ(const void* function) {
    return function == defaultFunction || function == ignoringFunction;
}

bool fatalQ(int signalNumber) {
    return signalNumber == SIGHUP || signalNumber == SIGBUS || signalNumber == SIGSEGV;
}

std::uint64_t bits(const void* function) {
    return reinterpret_cast<std::uintptr_t>(function);
}
std::uint64_t bits(int key) {
    return static_cast<std::uint32_t>(key);
}

ModelFailure noTable(unsigned int line) {
    return {"Unable to allocate new table", managerFile, line, 5, 0};
}

}  // namespace

void* ModelRecord::function() const {
    return functionOf(action);
}

bool sameAction(const struct sigaction& left, const struct sigaction& right) {
    const bool own = left.sa_sigaction == &actualSignalHandler;
    const int ofNoEffect = restorerFlag | (own ? markingFlag : 0);
    if (functionOf(left) != functionOf(right) ||
        (left.sa_flags | ofNoEffect) != (right.sa_flags | ofNoEffect)) {
        return false;
    }
    // The kernel has one bit for each of its signals; what comes behind them in the C library's
    // set is not read back.
    constexpr std::size_t kernelMaskSize = ManagerModel::lastSystemSignal / 8;
    return std::memcmp(&left.sa_mask, &right.sa_mask, kernelMaskSize) == 0;
}

struct sigaction actionOfFunction(const struct sigaction& action) {
    struct sigaction made = {};
    made.sa_flags = SA_RESTART | SA_ONSTACK | (action.sa_flags & SA_SIGINFO);
    if ((action.sa_flags & SA_SIGINFO) != 0) {
        made.sa_sigaction = action.sa_sigaction;
    } else {
        made.sa_handler = action.sa_handler;
    }
    return made;
}

std::vector<ModelRecord> ModelSignal::recordsInSlotOrder() const {
    std::vector<ModelRecord> found;
    for (const ModelSlot& slot : table.slots) {
        if (slot.state == occupiedState) {
            found.push_back(records[static_cast<std::size_t>(slot.value) - 1]);
        }
    }
    return found;
}

ManagerModel::ManagerModel() {
    for (int signalNumber = 1; signalNumber <= lastSystemSignal; ++signalNumber) {
        const auto index = static_cast<std::size_t>(signalNumber);
        sigaction(signalNumber, nullptr, &system[index]);
        // What an earlier history has left.
        const struct sigaction own = Sorvane::SVOwnAction::of(signalNumber);
        std::memcpy(&manners[index].heldBack, &own.sa_mask, sizeof(manners[index].heldBack));
        manners[index].flags = own.sa_flags & ~(SA_SIGINFO | SA_ONSTACK | markingFlag);
        librarys[index] = Sorvane::SVOwnership::librarysQ(signalNumber);
        handedBack[index] = Sorvane::SVOwnership::count(signalNumber) > 1;
        handedBackTo[index] = Sorvane::SVOwnership::actionOfHost(signalNumber);
        ignoredByHost[index] =
            Sorvane::SVOwnership::hostsAction(signalNumber).sa_handler == SIG_IGN;
    }
    resetDispositions();
}

// --- Lifetime ------------------------------------------------------------------------------------

void ManagerModel::makeManager(bool locking) {
    if (locking && !lockExists) {
        lockExists = memoryForNextNeed();
    }
    if (!tablesExist) {
        tablesExist = memoryForNextNeed();
        resetDispositions();
    }
    ++managers;
}

void ManagerModel::destroyManager(bool locking) {
    --managers;
    if (managers == 0 && handling) {
        try {
            restorePreexisting();
        } catch (const ModelFailure&) {
            lockLeftHeld = locking && lockExists;
            throw;
        }
        noteTables();
        handling = false;
        tablesExist = false;
        signals.clear();
        outer = TableModel();
        resetDispositions();
    }
    if (managers == 0 && locking) {
        lockExists = false;
    }
}

void ManagerModel::noteTables() {
    outerEvents.growths += outer.events.growths;
    for (const auto& [key, signal] : signals) {
        innerEvents.growths += signal.table.events.growths;
        innerEvents.inlineCleans += signal.table.events.inlineCleans;
        innerEvents.unreachableCopies += signal.table.events.unreachableCopies;
    }
}

// --- Taking over and handing back ----------------------------------------------------------------

void ManagerModel::startHandlingSignals() {
    if (handling) {
        return;
    }
    for (int signalNumber = 1; signalNumber <= lastWalkedSignal; ++signalNumber) {
        const ModelSignal* const found = signal(signalNumber);
        if (found != nullptr && found->table.used != 0) {
            handleSignal(signalNumber);
        }
    }
    handling = true;
}

void ManagerModel::stopHandlingSignal(int signalNumber) {
    const ModelSignal* const found = signal(signalNumber);
    if (!disposition(signalNumber) || found == nullptr) {
        return;
    }
    for (const ModelRecord& record : found->recordsInSlotOrder()) {
        if (record.preExists) {
            handBack(record);
            return;
        }
    }
    handBack(ignoringRecord(signalNumber));
}

void ManagerModel::stopHandlingSignals() {
    if (!handling) {
        return;
    }
    for (int signalNumber = 1; signalNumber <= lastWalkedSignal; ++signalNumber) {
        stopHandlingSignal(signalNumber);
    }
    handling = false;
}

void ManagerModel::setDisposition(int signalNumber, bool handle) {
    if (signalNumber >= 1 && signalNumber <= lastWalkedSignal) {
        dispositions[static_cast<std::size_t>(signalNumber)] = handle;
    }
}

bool ManagerModel::disposition(int signalNumber) const {
    return signalNumber >= 1 && signalNumber <= lastWalkedSignal &&
           dispositions[static_cast<std::size_t>(signalNumber)];
}

void ManagerModel::resetDispositions() {
    for (int signalNumber = 1; signalNumber <= lastWalkedSignal; ++signalNumber) {
        setDisposition(signalNumber, installableQ(signalNumber));
    }
}

void ManagerModel::handleSignal(int signalNumber) {
    ModelSignal& owner = signalMadeIfNone(signalNumber, lineNoTableForSignal);
    if (!disposition(signalNumber)) {
        return;
    }
    // What the host has is on record before it is displaced; without memory for that it stays.
    followHost(signalNumber);
    if (installableQ(signalNumber)) {
        const ModelRecord previous = {signalNumber, system[static_cast<std::size_t>(signalNumber)],
                                      true, true, true};
        void* const function = previous.function();
        if (!owner.table.hasKey(bits(function)) && !specialQ(function) && function != ownFunction) {
            store(owner, previous);
        }
    }
    installOwn(signalNumber);
}

// --- Dispatch ------------------------------------------------------------------------------------

void ManagerModel::callHandlers(int signalNumber) {
    if (const ModelSignal* const found = signal(signalNumber)) {
        for (const ModelRecord& record : found->recordsInSlotOrder()) {
            if (record.valid) {
                call(record);
            }
        }
    }
}

void ManagerModel::callHostsOwn(int signalNumber) {
    if (const ModelSignal* const found = signal(signalNumber)) {
        for (const ModelRecord& record : found->recordsInSlotOrder()) {
            if (record.hostsOwnQ()) {
                call(record);
            }
        }
    }
}

bool ManagerModel::hasHostsOwnQ(int signalNumber) const {
    if (const ModelSignal* const found = signal(signalNumber)) {
        for (const ModelRecord& record : found->recordsInSlotOrder()) {
            if (record.hostsOwnQ()) {
                return true;
            }
        }
    }
    return false;
}

void ManagerModel::call(const ModelRecord& record) {
    if (specialQ(record.function())) {
        return;
    }
    calls.push_back({record.function(), record.signalNumber,
                     (record.action.sa_flags & SA_SIGINFO) != 0, managers});
    if (record.function() == reinterpret_cast<void*>(&resettingHandler) &&
        installableQ(record.signalNumber)) {
        system[static_cast<std::size_t>(record.signalNumber)] = {};
    }
}

bool ManagerModel::takenOverQ(int signalNumber) const {
    return functionOf(system[static_cast<std::size_t>(signalNumber)]) == ownFunction;
}

bool ManagerModel::arrivalEndsProcessQ(int signalNumber) const {
    return takenOverQ(signalNumber) && fatalQ(signalNumber) && !hasHostsOwnQ(signalNumber);
}

void ManagerModel::arrive(int signalNumber) {
    if (takenOverQ(signalNumber)) {
        dispatch(signalNumber);
    } else {
        call({signalNumber, system[static_cast<std::size_t>(signalNumber)], true, true, true});
    }
}

void ManagerModel::dispatch(int signalNumber) {
    makeManager(false);
    // The library was installed by hand for a signal that it had handed back.
    if (handedBack[static_cast<std::size_t>(signalNumber)]) {
        librarys[static_cast<std::size_t>(signalNumber)] = true;
    }
    if (arrivalEndsProcessQ(signalNumber)) {
        callHandlers(signalNumber);
        return;
    }
    if (fatalQ(signalNumber)) {
        callHostsOwn(signalNumber);
    } else {
        callHandlers(signalNumber);
    }
    install(ownRecord(signalNumber));
    destroyManager(false);
}

// --- Registration --------------------------------------------------------------------------------

void ManagerModel::setHandler(const ModelRecord& record) {
    if (!disposition(record.signalNumber)) {
        return;
    }
    ModelSignal& owner = signalMadeIfNone(record.signalNumber, lineNoTableForHandler);
    store(owner, record);
    if (handling) {
        if (!librarys[static_cast<std::size_t>(record.signalNumber)]) {
            followHost(record.signalNumber);
        }
        installOwn(record.signalNumber);
    }
}

void ManagerModel::clearHandler(const ModelRecord& record) {
    if (!disposition(record.signalNumber) || signal(record.signalNumber) == nullptr) {
        return;
    }
    TableModel& table = signals[keyOf(record.signalNumber)].table;
    const std::uint64_t key = bits(record.function());
    if (!table.hasKey(key)) {
        return;
    }
    if (record.preExists && table.used == 1) {
        handBack(record);
    }
    table.remove(key);
}

// --- Whose a signal is ---------------------------------------------------------------------------

namespace {

ModelManner mannerOf(int signalNumber, const struct sigaction& action, bool ignoredByHost = true) {
    constexpr int ofChildren = SA_NOCLDSTOP | SA_NOCLDWAIT;
    ModelManner manner;
    if (!specialQ(functionOf(action))) {
        std::memcpy(&manner.heldBack, &action.sa_mask, sizeof(manner.heldBack));
        manner.flags = action.sa_flags & (SA_RESTART | SA_NODEFER | ofChildren);
        return manner;
    }
    manner.flags |= action.sa_flags & ofChildren;
    if (signalNumber == SIGCHLD && action.sa_handler == SIG_IGN && ignoredByHost) {
        manner.flags |= SA_NOCLDWAIT;
    }
    return manner;
}

ModelManner both(const ModelManner& one, const ModelManner& other) {
    const int restart = one.flags & other.flags & SA_RESTART;
    return {one.heldBack | other.heldBack, ((one.flags | other.flags) & ~SA_RESTART) | restart};
}

}  // namespace

// Of a signal that can't be caught the system tells an action all the same.
void ManagerModel::followHost(int signalNumber) {
    const auto index = static_cast<std::size_t>(signalNumber);
    const bool told =
        installableQ(signalNumber) || signalNumber == SIGKILL || signalNumber == SIGSTOP;
    if (!told || takenOverQ(signalNumber)) {
        return;
    }
    ModelManner manner = mannerOf(signalNumber, system[index],
                                  !ignoredByLibraryQ(signalNumber) || ignoredByHost[index]);
    if (librarys[index]) {
        manner = both(manner, manners[index]);
    } else if (const ModelSignal* const found = signal(signalNumber)) {
        for (const ModelRecord& record : found->recordsInSlotOrder()) {
            if (record.preExists && record.function() != functionOf(system[index])) {
                manner = both(manner, mannerOf(signalNumber, record.action));
            }
        }
    }
    manners[index] = manner;
}

// As a stop has left it.
bool ManagerModel::ignoredByLibraryQ(int signalNumber) const {
    const auto index = static_cast<std::size_t>(signalNumber);
    return system[index].sa_handler == SIG_IGN && handedBackTo[index].sa_handler == SIG_IGN &&
           handedBack[index] && !librarys[index] &&
           (system[index].sa_flags | restorerFlag) == (handedBackTo[index].sa_flags | restorerFlag);
}

void ManagerModel::installOwn(int signalNumber) {
    const bool ignoredByLibrary = installableQ(signalNumber) && ignoredByLibraryQ(signalNumber);
    const struct sigaction displaced = install(ownRecord(signalNumber)).action;
    if (!ignoredByLibrary && displaced.sa_sigaction != &actualSignalHandler) {
        ignoredByHost[static_cast<std::size_t>(signalNumber)] = displaced.sa_handler == SIG_IGN;
    }
    librarys[static_cast<std::size_t>(signalNumber)] = true;
}

void ManagerModel::handBack(const ModelRecord& record) {
    install(record);
    librarys[static_cast<std::size_t>(record.signalNumber)] = false;
    handedBack[static_cast<std::size_t>(record.signalNumber)] = true;
    handedBackTo[static_cast<std::size_t>(record.signalNumber)] = record.action;
}

// --- The operating system ------------------------------------------------------------------------

ModelRecord ManagerModel::install(const ModelRecord& record) {
    if (!installableQ(record.signalNumber)) {
        ++refusedInstallations;
        throw ModelFailure{"installHandlerInSystem caught an error from sigaction.", managerFile,
                           346, 4, EINVAL};
    }
    struct sigaction& current = system[static_cast<std::size_t>(record.signalNumber)];
    const ModelRecord previous = {record.signalNumber, current, true, true, true};
    current = record.action;
    // Nobody can block these.
    sigdelset(&current.sa_mask, SIGKILL);
    sigdelset(&current.sa_mask, SIGSTOP);
    return previous;
}

void ManagerModel::restorePreexisting() {
    for (int signalNumber = 1; signalNumber <= lastWalkedSignal; ++signalNumber) {
        const ModelSignal* const found = signal(signalNumber);
        if (found == nullptr) {
            continue;
        }
        for (const ModelRecord& record : found->recordsInSlotOrder()) {
            if (record.preExists && record.valid) {
                handBack(record);
            }
        }
    }
}

// --- What they are made of -----------------------------------------------------------------------

int ManagerModel::keyOf(int signalNumber) {
    return static_cast<int>(static_cast<unsigned int>(signalNumber) - 1U);
}

// The C library keeps 32 and 33 for its threads; nobody may change the other two.
bool ManagerModel::installableQ(int signalNumber) {
    return signalNumber >= 1 && signalNumber <= lastSystemSignal && signalNumber != SIGKILL &&
           signalNumber != SIGSTOP && signalNumber != 32 && signalNumber != 33;
}

ModelRecord ManagerModel::ownRecord(int signalNumber) const {
    const bool exists = signalNumber >= 1 && signalNumber <= lastSystemSignal;
    const ModelManner manner =
        exists ? manners[static_cast<std::size_t>(signalNumber)] : ModelManner();
    ModelRecord record = {signalNumber, {}, false, false, true};
    record.action.sa_sigaction = &actualSignalHandler;
    std::memcpy(&record.action.sa_mask, &manner.heldBack, sizeof(manner.heldBack));
    record.action.sa_flags = SA_SIGINFO | SA_ONSTACK | manner.flags;
    return record;
}

ModelRecord ManagerModel::ignoringRecord(int signalNumber) {
    ModelRecord record = {signalNumber, {}, false, false, true};
    record.action.sa_handler = SIG_IGN;
    record.action.sa_flags = SA_RESTART | SA_ONSTACK;
    return record;
}

const ModelSignal* ManagerModel::signal(int signalNumber) const {
    const auto found = signals.find(keyOf(signalNumber));
    return found == signals.end() ? nullptr : &found->second;
}

bool ManagerModel::memoryForNextNeed() {
    const bool met = needs >= 32 || ((unmetNeeds >> needs) & 1U) == 0;
    ++needs;
    return met;
}

void ManagerModel::needMemoryToGrow(TableModel& table, std::uint64_t key) {
    const std::optional<std::uint32_t> target = table.rebuildByInsertOf(key);
    if (target.has_value() && !memoryForNextNeed()) {
        throw ModelFailure{"Unable to allocate space for new table.", tableFile,
                           *target < TableModel::inlineSize ? 651U : 666U, 5, 0};
    }
}

// The key is not stored when the outer table can't grow for it.
ModelSignal& ManagerModel::signalMadeIfNone(int signalNumber, unsigned int line) {
    const int key = keyOf(signalNumber);
    const auto found = signals.find(key);
    if (found != signals.end()) {
        return found->second;
    }
    if (!tablesExist || !memoryForNextNeed()) {
        throw noTable(line);
    }
    needMemoryToGrow(outer, bits(key));
    outer.insert(bits(key), 1);
    return signals[key];
}

void ManagerModel::store(ModelSignal& owner, const ModelRecord& record) {
    needMemoryToGrow(owner.table, bits(record.function()));
    owner.records.push_back(record);
    owner.table.insert(bits(record.function()), static_cast<int>(owner.records.size()));
}
