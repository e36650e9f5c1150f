// The process-wide lock: how it comes and goes.
//
// The handle is made by the first locking manager and deleted after the last one, neither under the
// lock itself. Every locking manager is a user of it, from before it first reads the handle's
// address until after it has read it for the last time; users are counted inside the gate, and a
// handle that has users is not deleted.
//
// A forked child gets the lock as its own thread had it: held as often, and free of other threads.
#ifndef SORVANE_SVSHAREDLOCK_H
#define SORVANE_SVSHAREDLOCK_H

#include "../support/svmutex.h"

namespace Sorvane {

/// Threads: any. Signal context: normal context only.
namespace SVSharedLock {

/// Begins the use of the lock by one manager. There is no handle if there is no memory for one.
void beginUse() noexcept;

/// Ends the use of the lock by one manager, at the end of a scope. The handle goes with the last
/// user if that says so and no manager is alive.
class LastUse {
public:
    explicit LastUse(bool used) noexcept : m_used(used) {}
    LastUse(const LastUse&) = delete;
    LastUse& operator=(const LastUse&) = delete;
    ~LastUse() {
        if (m_used) {
            end();
        }
    }

    /// That the handle need not be kept.
    void letHandleGo() noexcept { m_handleGoes = true; }

private:
    void end() noexcept;

    const bool m_used;
    bool m_handleGoes = false;
};

}  // namespace SVSharedLock

}  // namespace Sorvane

#endif
