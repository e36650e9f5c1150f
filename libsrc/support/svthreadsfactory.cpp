#include "svthreadsfactory.h"

namespace Sorvane {

SVThreadsFactory::~SVThreadsFactory() noexcept = default;

SVMutexHandle* SVThreadsFactory::CreateUnnamedHandle(_svmutex kind, bool processPrivate) noexcept {
    return new SVMutexHandle(kind, processPrivate);
}

}  // namespace Sorvane
