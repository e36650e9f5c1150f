#include "svsharedlock.h"

#include <atomic>

#include "../support/svatomicref.h"
#include "../support/svthreadsfactory.h"
#include "svlifecycle.h"
#include "svsignalhandlermanager.h"

namespace Sorvane {

namespace {

std::atomic<unsigned int> users{0};
std::atomic<SVMutexHandle*> retiredHandles{nullptr};

SVAtomicRef<SVMutexHandle*> handleInUse() noexcept {
    return SVAtomicRef<SVMutexHandle*>(SVSignalHandlerManager::handlerTableLock);
}

}  // namespace

/// The handles that are out of use and not deleted yet.
class SVRetiredHandles {
public:
    static void add(SVMutexHandle* handle) noexcept {
        handle->m_nextRetired = retiredHandles.load();
        while (!retiredHandles.compare_exchange_weak(handle->m_nextRetired, handle)) {
        }
    }

    static SVMutexHandle* takeAll() noexcept { return retiredHandles.exchange(nullptr); }

    template <typename Action>
    static void forEach(SVMutexHandle* first, Action action) {
        while (first != nullptr) {
            SVMutexHandle* const next = first->m_nextRetired;
            action(first);
            first = next;
        }
    }
};

void SVSharedLock::enter() noexcept {
    users.fetch_add(1);
}

// What is on the list when the last user leaves was taken out of use before, and those who could
// have read its address were users; whoever becomes one later can't read it any more. The list is
// taken first, because after the last user there may be new ones.
void SVSharedLock::leave() noexcept {
    SVMutexHandle* const retired = SVRetiredHandles::takeAll();
    if (users.fetch_sub(1) == 1) {
        SVRetiredHandles::forEach(retired, [](SVMutexHandle* handle) { delete handle; });
    } else {
        SVRetiredHandles::forEach(retired, SVRetiredHandles::add);
    }
}

SVMutexHandle* SVSharedLock::handle() noexcept {
    return handleInUse().load();
}

SVMutexHandle* SVSharedLock::handleMadeIfNone() noexcept {
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

void SVSharedLock::retireHandleOfNobody() noexcept {
    if (SVLifecycle::managerCount().load() != 0 || users.load() != 1) {
        return;
    }
    SVMutexHandle* const handle = handleInUse().exchange(nullptr);
    if (handle == nullptr) {
        return;
    }
    // A manager that was made just now may count on this very handle.
    SVMutexHandle* none = nullptr;
    if (users.load() != 1 && handleInUse().compare_exchange_strong(none, handle)) {
        return;
    }
    SVRetiredHandles::add(handle);
}

}  // namespace Sorvane
