#include "svsharedlock.h"

#include "../support/svthreadsfactory.h"
#include "svsharedstate.h"

namespace Sorvane {

namespace {

constinit unsigned int users = 0;

}  // namespace

void SVSharedLock::beginUse() noexcept {
    const SVGate gate;
    ++users;
    if (svhandlerTableLock().load() == nullptr) {
        svhandlerTableLock().store(SVThreadsFactory().CreateUnnamedHandle(svmutexRecursive, true));
    }
}

// Deleted outside the gate, because a handle may be of a class of its user's.
void SVSharedLock::LastUse::end() noexcept {
    SVMutexHandle* going = nullptr;
    {
        const SVGate gate;
        --users;
        if (m_handleGoes && users == 0 && svnumberOfManagers().load() == 0) {
            going = svhandlerTableLock().exchange(nullptr);
        }
    }
    delete going;
}

}  // namespace Sorvane
