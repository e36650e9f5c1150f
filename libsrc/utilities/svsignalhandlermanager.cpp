// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The manager's shared state, and what the first and the last manager do to it.

#include "svsignalhandlermanager.h"

#include <iostream>  // the stream library is initialised before this module's own statics

#include "../support/svhandlercontext.h"
#include "../support/svthreadsfactory.h"
#include "svsharedstate.h"
#include "svsubscriptionentries.h"
#include "svsystemactions.h"

namespace Sorvane {

bool SVSignalHandlerManager::currentlyHandlingSignals = false;
unsigned int SVSignalHandlerManager::numberOfManagers = 0;
SVSignalTable* SVSignalHandlerManager::handlerTables = nullptr;
SVMutexHandle* SVSignalHandlerManager::handlerTableLock = nullptr;
constinit SVSignalHandlerDispositionSet SVSignalHandlerManager::signalDispositionSet;

constinit SVRegistry svregistry(SVSignalHandlerManager::handlerTables);
constinit SVSignalSet svonlyForGuests;
constinit SVSignalSet svkeptByGuests;

static_assert(SVAtomicRef<bool>::is_always_lock_free);

constinit std::atomic<unsigned int> svforks{0};

namespace {

using Manager = SVSignalHandlerManager;

// How many of the managers are not a dispatch's own; changed inside the gate.
constinit unsigned int managersOutsideDispatch = 0;

// The child has these, and its own thread's dispatches.
void goOnInChild() {
    const SVGate::SignalsHeldBack signalsHeldBack;
    SVGate::goOnInChild();
    SVPin::forgetOtherThreads();
    SVSubscriptionEntries::goOnInChild();
    svforks.fetch_add(1);
    svshared(Manager::numberOfManagers).store(managersOutsideDispatch + SVHandlerContext::depth);
    if (SVMutexHandle* const handle = svshared(Manager::handlerTableLock).load()) {
        handle->goOnInChild();
    }
}

// By the first manager that locks. Twice does no harm.
void prepareForFork() {
    static constinit std::atomic<bool> prepared{false};
    if (!prepared.load()) {
        prepared.store(pthread_atfork(nullptr, nullptr, &goOnInChild) == 0);
    }
}

// The process-wide lock is made by the first locking manager and deleted after the last one,
// neither under the lock itself. A locking manager uses it from before it first reads the handle's
// address until after it has read it for the last time; a handle that is used is not deleted.
constinit unsigned int usersOfLock = 0;

void beginUseOfLock() noexcept {
    const SVGate gate;
    ++usersOfLock;
    if (svshared(Manager::handlerTableLock).load() == nullptr) {
        svshared(Manager::handlerTableLock)
            .store(SVThreadsFactory().CreateUnnamedHandle(svmutexRecursive, true));
    }
}

// Deleted outside the gate, because a handle may be of a class of its user's.
void endUseOfLock(bool handleGoes) noexcept {
    SVMutexHandle* unused = nullptr;
    {
        const SVGate gate;
        if (--usersOfLock == 0 && handleGoes && svshared(Manager::numberOfManagers).load() == 0) {
            unused = svshared(Manager::handlerTableLock).exchange(nullptr);
        }
    }
    delete unused;
}

void makeSharedTables() noexcept {
    if (svshared(Manager::handlerTables).load() == nullptr) {
        svregistry.begin();
        Manager::signalDispositionSet.reset();
    }
}

// Both counts at once, for a child that a handler forks. Result: how many managers there are.
unsigned int uncount() noexcept {
    const SVGate::Closed gate;
    --managersOutsideDispatch;
    return svshared(Manager::numberOfManagers).fetch_sub(1) - 1;
}

}  // namespace

SVSignalHandlerManager::SVSignalHandlerManager(bool locking)
    : m_locking(locking), m_dispatching(false) {
    if (m_locking) {
        prepareForFork();
        beginUseOfLock();
    }
    svchange(lockHandle(), [] {
        makeSharedTables();
        ++managersOutsideDispatch;
        svshared(numberOfManagers).fetch_add(1);
    });
}

// Counted before the gate is looked at: either whoever tears the state down sees this manager, or
// this manager sees the gate closed and comes after the end of that.
SVSignalHandlerManager::SVSignalHandlerManager(Dispatching)
    : m_locking(false), m_dispatching(true) {
    svshared(numberOfManagers).fetch_add(1);
    if (!SVGate::openQ() || svshared(handlerTables).load() == nullptr) {
        const SVGate gate;
        makeSharedTables();
    }
}

// A failure of the last manager's leaves the lock held, because the state that it guards is then
// not one that others should go on with.
SVSignalHandlerManager::~SVSignalHandlerManager() noexcept(false) {
    const auto end = [this](unsigned int left) { return left == 0 ? tearDown() : SVFailure(); };
    const SVFailure failure =
        m_dispatching ? end(svshared(numberOfManagers).fetch_sub(1) - 1)
                      : svunderLock(lockHandle(), true, [&end] { return end(uncount()); });
    if (m_locking) {
        endUseOfLock(!failure);
    }
    failure.throwIfAny();
}

// Takes the lock once more, as restorePreviouslyExistingHandlers() does, but from before the gate
// is closed until it is open again: all of it is one change. A dispatch inside the gate leaves it
// to whom it has interrupted. Others may have made managers since the last one was, and destroyed
// them again.
SVFailure SVSignalHandlerManager::tearDown() {
    if (!svshared(currentlyHandlingSignals).load() || SVGate::closedByThisThreadQ()) {
        return SVFailure();
    }
    const SVLocked scope(lockHandle());
    const SVGate gate;
    if (svshared(numberOfManagers).load() != 0 || !svshared(currentlyHandlingSignals).load()) {
        return SVFailure();
    }
    return SVSystemActions::handBackPreexisting().then([] {
        svshared(currentlyHandlingSignals).store(false);
        svregistry.end();
        signalDispositionSet.reset();
    });
}

// Null for a manager that does not lock, and when there was no memory for a lock.
SVMutexHandle* SVSignalHandlerManager::lockHandle() const {
    return m_locking ? svshared(handlerTableLock).load() : nullptr;
}

}  // namespace Sorvane
