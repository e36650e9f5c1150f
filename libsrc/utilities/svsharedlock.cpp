#include "svsharedlock.h"

#include <atomic>

#include "../support/svatomicref.h"
#include "../support/svthreadsfactory.h"
#include "svlifecycle.h"
#include "svsignalhandlermanager.h"

namespace Sorvane {

namespace {

std::atomic<unsigned int> leases{0};
std::atomic<SVMutexHandle*> retiredHandles{nullptr};

SVAtomicRef<SVMutexHandle*> handleInUse() noexcept {
    return SVAtomicRef<SVMutexHandle*>(SVSignalHandlerManager::handlerTableLock);
}

}  // namespace

SVSharedLockLease::SVSharedLockLease() noexcept {
    leases.fetch_add(1);
}

// What is on the list when the last lease ends was taken out of use before, and those who could
// have read its address had a lease; whoever gets one later can't read it any more. The list is
// taken first, because after the end of the last lease there may be new ones.
SVSharedLockLease::~SVSharedLockLease() {
    SVMutexHandle* retired = retiredHandles.exchange(nullptr);
    const bool last = leases.fetch_sub(1) == 1;
    while (retired != nullptr) {
        SVMutexHandle* const next = retired->m_nextRetired;
        if (last) {
            delete retired;
        } else {
            putAside(retired);
        }
        retired = next;
    }
}

void SVSharedLockLease::putAside(SVMutexHandle* retired) noexcept {
    retired->m_nextRetired = retiredHandles.load();
    while (!retiredHandles.compare_exchange_weak(retired->m_nextRetired, retired)) {
    }
}

SVMutexHandle* SVSharedLockLease::handleMadeIfNone() noexcept {
    SVMutexHandle* current = handleInUse().load();
    if (current != nullptr) {
        return current;
    }
    SVMutexHandle* const made = SVThreadsFactory().CreateUnnamedHandle(svmutexRecursive, true);
    if (made == nullptr || handleInUse().compare_exchange_strong(current, made)) {
        return made;
    }
    delete made;
    return current;
}

SVMutexHandle* SVSharedLockLease::handle() const noexcept {
    return handleInUse().load();
}

void SVSharedLockLease::retireHandleOfNobody() noexcept {
    if (SVLifecycle::managerCount().load() != 0) {
        return;
    }
    SVMutexHandle* const handle = handleInUse().exchange(nullptr);
    if (handle == nullptr) {
        return;
    }
    // A manager that was made just now may count on this very handle.
    SVMutexHandle* none = nullptr;
    if (SVLifecycle::managerCount().load() != 0 &&
        handleInUse().compare_exchange_strong(none, handle)) {
        return;
    }
    putAside(handle);
}

}  // namespace Sorvane
