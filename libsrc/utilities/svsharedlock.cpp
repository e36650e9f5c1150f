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
    if (svshared(SVSignalHandlerManager::handlerTableLock).load() == nullptr) {
        svshared(SVSignalHandlerManager::handlerTableLock)
            .store(SVThreadsFactory().CreateUnnamedHandle(svmutexRecursive, true));
    }
}

// Deleted outside the gate, because a handle may be of a class of its user's.
void SVSharedLock::LastUse::end() noexcept {
    SVMutexHandle* going = nullptr;
    {
        const SVGate gate;
        --users;
        if (m_handleGoes && users == 0 &&
            svshared(SVSignalHandlerManager::numberOfManagers).load() == 0) {
            going = svshared(SVSignalHandlerManager::handlerTableLock).exchange(nullptr);
        }
    }
    delete going;
}

}  // namespace Sorvane
