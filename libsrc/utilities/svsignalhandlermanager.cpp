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
    svshared(SVSignalHandlerManager::numberOfManagers)
        .store(svmanagersOutsideDispatch.load() + SVHandlerContext::depth);
    if (SVMutexHandle* const handle = svshared(SVSignalHandlerManager::handlerTableLock).load()) {
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
    if (svshared(SVSignalHandlerManager::handlerTables).load() == nullptr) {
        svregistry.begin();
        SVSignalHandlerManager::signalDispositionSet.reset();
    }
    return SVFailure();
}

// A signal may have made a manager since the count was found to be 0, and destroyed it again.
SVFailure tearDownIfLast() noexcept {
    if (svshared(SVSignalHandlerManager::numberOfManagers).load() != 0 ||
        !svshared(SVSignalHandlerManager::currentlyHandlingSignals).load()) {
        return SVFailure();
    }
    return SVSystemActions::handBackPreexisting().then([] {
        svshared(SVSignalHandlerManager::currentlyHandlingSignals).store(false);
        svregistry.end();
        SVSignalHandlerManager::signalDispositionSet.reset();
        return SVFailure();
    });
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
    SVMutexHandle* const handle = lock();
    enter();
    unlock(handle);
}

SVSignalHandlerManager::SVSignalHandlerManager(Dispatching)
    : m_locking(false), m_dispatching(true) {
    enter();
}

SVSignalHandlerManager::~SVSignalHandlerManager() noexcept(false) {
    SVSharedLock::LastUse lastUse(m_locking);
    SVMutexHandle* const handle = lock();
    leave();
    unlock(handle);
    lastUse.letHandleGo();
}

// Counted before the gate is looked at: either whoever tears the state down sees this manager, or
// this manager sees the gate closed and comes after the end of that.
void SVSignalHandlerManager::enter() {
    svshared(SVSignalHandlerManager::numberOfManagers).fetch_add(1);
    if (!m_dispatching) {
        svmanagersOutsideDispatch.fetch_add(1);
    }
    if (!SVGate::openQ() || svshared(SVSignalHandlerManager::handlerTables).load() == nullptr) {
        SVGate::pass(makeSharedTables);
    }
}

// The last manager takes the lock once more, as restorePreviouslyExistingHandlers() does, but
// before the gate is closed.
void SVSignalHandlerManager::leave() {
    SVMutex scope;
    if (m_locking && svshared(SVSignalHandlerManager::numberOfManagers).load() == 1 &&
        svshared(SVSignalHandlerManager::currentlyHandlingSignals).load()) {
        scope.setHandle(lockHandle());
    }
    if (!m_dispatching) {
        svmanagersOutsideDispatch.fetch_sub(1);
    }
    if (svshared(SVSignalHandlerManager::numberOfManagers).fetch_sub(1) == 1 &&
        svshared(SVSignalHandlerManager::currentlyHandlingSignals).load()) {
        SVGate::pass(tearDownIfLast);
    }
}

// Null for a manager that does not lock, and when there was no memory for a lock.
SVMutexHandle* SVSignalHandlerManager::lockHandle() const {
    return m_locking ? svshared(SVSignalHandlerManager::handlerTableLock).load() : nullptr;
}

SVMutexHandle* SVSignalHandlerManager::lock() const {
    SVMutexHandle* const handle = lockHandle();
    if (handle != nullptr) {
        handle->lock();
    }
    return handle;
}

void SVSignalHandlerManager::unlock(SVMutexHandle* handle) {
    if (handle != nullptr) {
        handle->unlock();
    }
}

}  // namespace Sorvane
