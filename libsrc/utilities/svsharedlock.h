// The process-wide lock: how it comes and goes while others are about to take it.
//
// The handle is made by the first locking manager and deleted after the last one, both without
// the lock. Whoever is about to lock it may have read its address just before. So every locking
// manager is a user of the lock from before it first reads the address until after it has read it
// for the last time, and a handle that was taken out of use is deleted by a user that goes when
// there is no other.
#ifndef SORVANE_SVSHAREDLOCK_H
#define SORVANE_SVSHAREDLOCK_H

#include "../support/svmutex.h"

namespace Sorvane {

/// Threads: any. Signal context: normal context only.
namespace SVSharedLock {

/// Begins and ends the use of the lock by one manager.
void enter() noexcept;
void leave() noexcept;

/// Ends the use of the lock, if it was one, at the end of a scope.
class LastUse {
public:
    explicit LastUse(bool used) noexcept : m_used(used) {}
    LastUse(const LastUse&) = delete;
    LastUse& operator=(const LastUse&) = delete;
    ~LastUse() {
        if (m_used) {
            leave();
        }
    }

private:
    const bool m_used;
};

/// The handle in use, or null; the second makes one if there is none and there is memory.
SVMutexHandle* handle() noexcept;
SVMutexHandle* handleMadeIfNone() noexcept;

/// Takes the handle out of use when no manager is alive and there is no other user than the
/// caller. It is deleted when the last user leaves.
void retireHandleOfNobody() noexcept;

}  // namespace SVSharedLock

}  // namespace Sorvane

#endif
