// The process-wide lock: how it comes and goes while others are about to take it.
//
// The handle is made by the first locking manager and deleted after the last one, both without
// the lock. Whoever is about to lock it may have read its address just before, so an operation
// holds a lease from before it reads the address until after it has unlocked, and a handle that
// is taken out of use is deleted only when nobody has a lease.
#ifndef SORVANE_SVSHAREDLOCK_H
#define SORVANE_SVSHAREDLOCK_H

#include "../support/svmutex.h"

namespace Sorvane {

/// Keeps every lock handle from being deleted for the length of a scope, and gives out the one in
/// use. Threads: any. Signal context: normal context only.
class SVSharedLockLease {
public:
    SVSharedLockLease() noexcept;
    SVSharedLockLease(const SVSharedLockLease&) = delete;
    SVSharedLockLease& operator=(const SVSharedLockLease&) = delete;
    ~SVSharedLockLease();

    /// The handle in use, made if there is none; null without memory.
    SVMutexHandle* handleMadeIfNone() noexcept;

    /// The handle in use, or null.
    SVMutexHandle* handle() const noexcept;

    /// Takes the handle out of use when no manager is alive, to be deleted with the last lease.
    void retireHandleOfNobody() noexcept;

private:
    static void putAside(SVMutexHandle* retired) noexcept;
};

}  // namespace Sorvane

#endif
