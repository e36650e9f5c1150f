// The process-wide lock: how it comes and goes while others are about to take it.
//
// The problem. The handle is made by the first locking manager and deleted after the last one, both
// without the lock. Whoever is about to lock it has read its address before, and two who go at once
// must not leave it to each other.
//
// The mechanism. Every locking manager is a user of the lock, from before it first reads the
// address until after it has read it for the last time. The last user to go, if it is to delete the
// handle, closes the lock in the same instruction in which it goes: from then on nobody has the
// address, and nobody on another thread becomes a user before the handle is gone. That is the only
// wait.
#ifndef SORVANE_SVSHAREDLOCK_H
#define SORVANE_SVSHAREDLOCK_H

#include "../support/svmutex.h"

namespace Sorvane {

/// Threads: any. Signal context: normal context only.
namespace SVSharedLock {

/// Begins the use of the lock by one manager.
void enter() noexcept;

/// The use of the lock by a manager that goes, for the length of a scope. The handle goes with the
/// last user if that says so and no manager is alive.
class LastUse {
public:
    explicit LastUse(bool used) noexcept : m_used(used) {}
    LastUse(const LastUse&) = delete;
    LastUse& operator=(const LastUse&) = delete;
    ~LastUse();

    /// That the handle is not held and need not be kept.
    void letHandleGo() noexcept { m_handleGoes = true; }

private:
    const bool m_used;
    bool m_handleGoes = false;
};

/// The handle in use, or null; the second makes one if there is none and there is memory.
SVMutexHandle* handle() noexcept;
SVMutexHandle* handleMadeIfNone() noexcept;

}  // namespace SVSharedLock

}  // namespace Sorvane

#endif
