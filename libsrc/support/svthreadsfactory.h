// Where lock handles come from.
#ifndef SORVANE_SVTHREADSFACTORY_H
#define SORVANE_SVTHREADSFACTORY_H

#include "svexport.h"
#include "svmutex.h"
#include "svobject.h"

namespace Sorvane {

/// Makes lock handles; has no state, and is made on the stack and dropped right after.
class SORVANE_API SVThreadsFactory : public SVObject {
public:
    SVThreadsFactory() noexcept = default;
    ~SVThreadsFactory() noexcept override;

    /// Makes a new lock without a name, open.
    /// Parameters: kind; processPrivate, false for a lock in memory that several processes share.
    /// Ownership: the handle is the caller's, to be deleted.
    /// Result: the handle; null when there is no memory for it. Errors: none thrown.
    /// Guarantee: no exception. Threads: any. Signal context: normal context only.
    SVMutexHandle* CreateUnnamedHandle(_svmutex kind, bool processPrivate) noexcept;
};

}  // namespace Sorvane

#endif
