// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What the manager's operations share: the registry on the manager's own tables, how its shared
// members are read while other threads change them, and how an operation changes them.
#ifndef SORVANE_SVSHAREDSTATE_H
#define SORVANE_SVSHAREDSTATE_H

#include <atomic>

#include "../registry/svgate.h"
#include "../registry/svpin.h"
#include "../registry/svregistry.h"
#include "../support/svatomicref.h"
#include "../support/svsignalset.h"
#include "svsignalhandlermanager.h"

namespace Sorvane {

/// Changes the published tables. Signal context: inside the gate.
extern constinit SVRegistry svregistry;

/// Signal context: inside the gate.
/// Those whose table was made by a subscription, where nobody but subscriptions has asked for the
/// signal since; and those whose host's handler is on record since a subscription took the signal
/// over, where nobody else has done so since.
extern constinit SVSignalSet svonlyForGuests;
extern constinit SVSignalSet svkeptByGuests;

/// How many forks this process comes from, as far as the library was in the parent and prepared for
/// them: whoever keeps the number of its beginning finds out that it is a child's copy.
/// Threads: any. Signal context: any context.
extern std::atomic<unsigned int> svforks;

/// A failure of the manager's, and the one that there is no memory for a signal's table.
/// Parameters: line, the fixed number of its site.
constexpr SVFailure svmanagerFailure(const char* message, unsigned int line, svexceptiontype type,
                                     int code) noexcept {
    return SVFailure(message, "libsrc/utilities/svsignalhandlermanager", line, type, code);
}
constexpr SVFailure svnoTableFailure(unsigned int line) noexcept {
    return svmanagerFailure("Unable to allocate new table", line, svexceptionAllocationFailed, 0);
}

/// A shared member of the manager that others change meanwhile.
/// Threads: any. Signal context: any context.
template <typename Member>
SVAtomicRef<Member> svshared(Member& member) noexcept {
    return SVAtomicRef<Member>(member);
}

/// Holds a lock for the length of a scope, if there is one.
class SVLocked : public SVMutex {
public:
    explicit SVLocked(SVMutexHandle* handle) { setHandle(handle); }
};

/// Does something under a lock, if there is one, and with signals held back. They are let in when
/// the lock is free again, so that a handler that comes then may leave by siglongjmp; the lock is
/// not waited for while they are held back. Result: that of the operation, which throws nothing.
/// Parameters: keptByFailure, whether the lock stays held if the operation fails; lock, for the
/// first of the two, which this thread holds already.
template <typename Operation>
SVFailure svunderHeldLock(SVMutexHandle* lock, bool keptByFailure, Operation operation) {
    const SVGate::SignalsHeldBack signalsHeldBack;
    const SVFailure failure = operation();
    if (lock != nullptr && !(failure && keptByFailure)) {
        lock->unlock();
    }
    return failure;
}
template <typename Operation>
SVFailure svunderLock(SVMutexHandle* lock, bool keptByFailure, Operation operation) {
    if (lock != nullptr) {
        lock->lock();
    }
    return svunderHeldLock(lock, keptByFailure, operation);
}

/// Makes a change inside the gate. Result: the failure that it tells, if any.
template <typename Change>
SVFailure svinsideGate(Change change) {
    const SVGate::Closed gate;
    return SVFailure().then(change);
}

/// Makes a change inside the gate, under a lock if there is one, and throws the failure that it
/// tells, if any, after it. The second one leaves the gate open if a test, which is made under the
/// lock, says that there is nothing to change.
template <typename Change>
void svchange(SVMutexHandle* lock, Change change) {
    svunderLock(lock, false, [&change] { return svinsideGate(change); }).throwIfAny();
}
template <typename Test, typename Change>
void svchangeIf(SVMutexHandle* lock, Test neededQ, Change change) {
    if (lock != nullptr) {
        lock->lock();
    }
    if (neededQ()) {
        svunderHeldLock(lock, false, [&change] { return svinsideGate(change); }).throwIfAny();
    } else if (lock != nullptr) {
        lock->unlock();
    }
}

/// A pin on the manager's tables.
class SVTablesPin : public SVPin {
public:
    SVTablesPin() noexcept : SVPin(SVSignalHandlerManager::handlerTables) {}
};

/// The first of a table's records for which a test holds; null if there is none, or no table.
template <typename Test>
const SVSignalHandler* svfirstRecord(const SVSignalHandlerTable* table, Test test) {
    if (table != nullptr) {
        for (auto position = table->begin(); position != table->end(); position++) {
            if (test(position.GetValue())) {
                return &position.GetValue();
            }
        }
    }
    return nullptr;
}

/// The record of a function; null if there is none, or no table. It is looked for slot by slot,
/// because a key behind a cleared slot is not found by its hash any more.
inline const SVSignalHandler* svrecordOf(const SVSignalHandlerTable* table, const void* function) {
    return svfirstRecord(table, [function](const SVSignalHandler& record) {
        return record.getHandlerFunction() == function;
    });
}

/// Does something for every signal that any walk covers, in increasing order.
template <typename Action>
void svforEachSignal(Action action) {
    for (int signalNumber = 1; signalNumber <= SVSignalHandlerManager::maxSignalHandlerNumber;
         ++signalNumber) {
        action(signalNumber);
    }
}

}  // namespace Sorvane

#endif
