// The manager's shared state, and what the first and the last manager do to it.

#include "svsignalhandlermanager.h"

#include <iostream>  // the stream library is initialised before this module's own statics

#include "../support/svatomicref.h"
#include "svlifecycle.h"
#include "svownership.h"
#include "svregistry.h"
#include "svsharedlock.h"
#include "svwalk.h"

namespace Sorvane {

bool SVSignalHandlerManager::currentlyHandlingSignals = false;
unsigned int SVSignalHandlerManager::numberOfManagers = 0;
SVSignalTable* SVSignalHandlerManager::handlerTables = nullptr;
SVMutexHandle* SVSignalHandlerManager::handlerTableLock = nullptr;
constinit SVSignalHandlerDispositionSet SVSignalHandlerManager::signalDispositionSet;

namespace {

bool noTablesQ() noexcept {
    return SVAtomicRef<SVSignalTable*>(SVSignalHandlerManager::handlerTables).load() == nullptr;
}

// The dispositions are reset before the tables are published, so that whoever finds the tables does
// not have an answer of his own reset.
void makeSharedTables() {
    SVSignalHandlerDispositionSet& dispositions = SVSignalHandlerManager::signalDispositionSet;
    const SVLifecycle::Teardown teardown = SVLifecycle::currentTeardown();
    const SVSignalHandlerDispositionSet seen(dispositions);
    if (!noTablesQ()) {
        return;
    }
    if (teardown != 0) {
        SVLifecycle::resetDispositions(teardown);
    } else {
        dispositions.resetSince(seen);
    }
    SVRegistry::create();
}

}  // namespace

// Locks the handle directly rather than for a scope: an exception out of the last manager's
// destructor leaves the lock held, because the state it guards is then not one that others should
// go on with. Nothing in the constructor throws.
SVSignalHandlerManager::SVSignalHandlerManager(bool locking) : m_locking(locking) {
    SVMutexHandle* handle = nullptr;
    if (m_locking) {
        SVSharedLock::enter();
        handle = SVSharedLock::handleMadeIfNone();
    }
    if (handle != nullptr) {
        handle->lock();
    }
    // Counted in first: a teardown that finds no tables wanted has then not seen this manager, and
    // this manager sees that there are none.
    SVLifecycle::managerMade();
    if (noTablesQ()) {
        makeSharedTables();
    }
    if (handle != nullptr) {
        handle->unlock();
    }
}

SVSignalHandlerManager::~SVSignalHandlerManager() noexcept(false) {
    SVSharedLock::LastUse lastUse(m_locking);
    SVMutexHandle* const handle = lockHandle();
    if (handle != nullptr) {
        handle->lock();
    }
    if (const SVLifecycle::Teardown teardown = SVLifecycle::managerGone()) {
        tearDown(teardown);
    }
    if (handle != nullptr) {
        handle->unlock();
    }
    lastUse.letHandleGo();
}

// Null for a manager that does not lock, and when there was no memory for a lock.
SVMutexHandle* SVSignalHandlerManager::lockHandle() const {
    return m_locking ? SVSharedLock::handle() : nullptr;
}

namespace {

// A teardown that is left before it is complete has failed: a handler could not be put back.
class FailedUnlessComplete {
public:
    explicit FailedUnlessComplete(SVLifecycle::Teardown teardown) : m_teardown(teardown) {}
    FailedUnlessComplete(const FailedUnlessComplete&) = delete;
    FailedUnlessComplete& operator=(const FailedUnlessComplete&) = delete;
    ~FailedUnlessComplete() { SVLifecycle::teardownFailed(m_teardown); }

private:
    const SVLifecycle::Teardown m_teardown;
};

}  // namespace

// At every step somebody else may have completed this teardown, in a handler or on another thread,
// and gone on; then the rest is none of its business any more. What each step is to change is read
// before asking, so that a step that comes too late finds it changed.
void SVSignalHandlerManager::tearDown(unsigned int teardown) {
    const auto wanted = [teardown] { return SVLifecycle::currentTeardown() == teardown; };
    {
        const SVRegistryPin pin;
        const FailedUnlessComplete failedUnlessComplete(teardown);
        SVMutex scope;
        scope.setHandle(lockHandle());
        forEachPreexisting(pin, [&](SVSignalHandler& record) {
            const SVOwnership::Count seen = SVOwnership::count(record.getSignalNumber());
            if (wanted() && SVOwnership::giveToHost(record.getSignalNumber(), seen)) {
                const SVSignalHandler displaced = installHandlerInSystem(record);
                if (!wanted()) {
                    SVOwnership::settleLateHandBack(*this, displaced, seen);
                }
            }
            return wanted();
        });
        SVLifecycle::resetDispositions(teardown);
        if (!wanted()) {
            return;
        }
        SVRegistry::retire(pin, SVLifecycle::managerCount() != 0);
        if (SVLifecycle::managerCount() != 0) {
            SVRegistry::create();
        }
        SVLifecycle::teardownComplete(teardown);
    }
    SVRegistry::tidy();
}

void SVSignalHandlerManager::completeTeardown() {
    if (const SVLifecycle::Teardown teardown = SVLifecycle::currentTeardown()) {
        tearDown(teardown);
    }
}

}  // namespace Sorvane
