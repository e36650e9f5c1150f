// The manager's shared state, and what the first and the last manager do to it.

#include "svsignalhandlermanager.h"

#include <iostream>  // the stream library is initialised before this module's own statics

#include "../support/svhandlercontext.h"
#include "svsharedlock.h"
#include "svsharedstate.h"
#include "svsystemactions.h"

namespace Sorvane {

bool SVSignalHandlerManager::currentlyHandlingSignals = false;
unsigned int SVSignalHandlerManager::numberOfManagers = 0;
SVSignalTable* SVSignalHandlerManager::handlerTables = nullptr;
SVMutexHandle* SVSignalHandlerManager::handlerTableLock = nullptr;
constinit SVSignalHandlerDispositionSet SVSignalHandlerManager::signalDispositionSet;

constinit SVRegistry svregistry(SVSignalHandlerManager::handlerTables);
constinit std::atomic<unsigned int> svmanagersOutsideDispatch{0};

static_assert(SVAtomicRef<unsigned int>::is_always_lock_free);
static_assert(SVAtomicRef<bool>::is_always_lock_free);

namespace {

// The child has the managers outside dispatches, and its own thread's dispatches.
void goOnInChild() {
    SVGate::goOnInChild();
    SVPin::forgetOtherThreads();
    const unsigned int dispatches = SVHandlerContext::depth - SVGate::nestingOfThisThread();
    svnumberOfManagers().store(svmanagersOutsideDispatch.load() + dispatches);
    if (SVMutexHandle* const handle = svhandlerTableLock().load()) {
        handle->goOnInChild();
    }
}

// Once for each process, by the first manager that locks.
void prepareForFork() {
    static constinit std::atomic<bool> prepared{false};
    if (!prepared.exchange(true)) {
        pthread_atfork(nullptr, nullptr, &goOnInChild);
    }
}

SVFailure makeSharedTables() noexcept {
    if (svhandlerTables().load() == nullptr) {
        svregistry.begin();
        SVSignalHandlerManager::signalDispositionSet.reset();
    }
    return SVFailure();
}

// A signal may have made a manager since the count was found to be 0, and destroyed it again.
SVFailure tearDownIfLast() noexcept {
    if (svnumberOfManagers().load() != 0 || !svcurrentlyHandlingSignals().load()) {
        return SVFailure();
    }
    if (const SVFailure failure = SVSystemActions::handBackPreexisting()) {
        return failure;
    }
    svcurrentlyHandlingSignals().store(false);
    svregistry.end();
    SVSignalHandlerManager::signalDispositionSet.reset();
    return SVFailure();
}

}  // namespace

// Locks the handle directly rather than for a scope: an exception out of the last manager's
// destructor leaves the lock held, because the state it guards is then not one that others should
// go on with. Nothing in the constructor throws.
SVSignalHandlerManager::SVSignalHandlerManager(bool locking)
    : m_locking(locking), m_dispatching(false) {
    if (m_locking) {
        prepareForFork();
        SVSharedLock::beginUse();
    }
    SVMutexHandle* const handle = lockHandle();
    if (handle != nullptr) {
        handle->lock();
    }
    enter();
    if (handle != nullptr) {
        handle->unlock();
    }
}

SVSignalHandlerManager::SVSignalHandlerManager(Dispatching)
    : m_locking(false), m_dispatching(true) {
    enter();
}

SVSignalHandlerManager::~SVSignalHandlerManager() noexcept(false) {
    SVSharedLock::LastUse lastUse(m_locking);
    SVMutexHandle* const handle = lockHandle();
    if (handle != nullptr) {
        handle->lock();
    }
    leave();
    if (handle != nullptr) {
        handle->unlock();
    }
    lastUse.letHandleGo();
}

// Counted before the gate is looked at: either whoever tears the state down sees this manager, or
// this manager sees the gate closed and comes after the end of that.
void SVSignalHandlerManager::enter() {
    svnumberOfManagers().fetch_add(1);
    if (!m_dispatching) {
        svmanagersOutsideDispatch.fetch_add(1);
    }
    if (!SVGate::openQ() || svhandlerTables().load() == nullptr) {
        SVGate::pass(makeSharedTables);
    }
}

// The last manager takes the lock once more, as restorePreviouslyExistingHandlers() does, but
// before the gate is closed.
void SVSignalHandlerManager::leave() {
    SVMutex scope;
    if (m_locking && svnumberOfManagers().load() == 1 && svcurrentlyHandlingSignals().load()) {
        scope.setHandle(lockHandle());
    }
    if (!m_dispatching) {
        svmanagersOutsideDispatch.fetch_sub(1);
    }
    if (svnumberOfManagers().fetch_sub(1) == 1 && svcurrentlyHandlingSignals().load()) {
        SVGate::pass(tearDownIfLast);
    }
}

// Null for a manager that does not lock, and when there was no memory for a lock.
SVMutexHandle* SVSignalHandlerManager::lockHandle() const {
    return m_locking ? svhandlerTableLock().load() : nullptr;
}

}  // namespace Sorvane
