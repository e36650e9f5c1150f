#include "svsharedlock.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "../support/svatomicref.h"
#include "../support/svthreadsfactory.h"
#include "../support/svwait.h"
#include "svlifecycle.h"
#include "svsignalhandlermanager.h"

namespace Sorvane {

namespace {

// How many users there are, or that the lock is closed, and by which thread.
constexpr unsigned int closed = 1U << 31U;
constinit std::atomic<unsigned int> users{0};

unsigned int closedByThisThread() noexcept {
    return closed | static_cast<unsigned int>(syscall(SYS_gettid));
}

SVAtomicRef<SVMutexHandle*> handleInUse() noexcept {
    return SVAtomicRef<SVMutexHandle*>(SVSignalHandlerManager::handlerTableLock);
}

// A manager that does not lock may come and go meanwhile. It has nothing to do with the handle.
bool lastUserQ(unsigned int current) noexcept {
    return current == 1 && SVLifecycle::managerCount() == 0;
}

// A handle that the only user has read stays in use until it goes. After that a manager in a
// handler may have taken it out of use, and opened the lock.
bool leaveAndDelete() noexcept {
    SVMutexHandle* const handle = SVSharedLock::handle();
    const unsigned int closedHere = closedByThisThread();
    unsigned int expectedUsers = 1;
    if (handle == nullptr || !users.compare_exchange_strong(expectedUsers, closedHere)) {
        return false;
    }
    SVMutexHandle* expectedHandle = handle;
    handleInUse().compare_exchange_strong(expectedHandle, nullptr);
    delete handle;
    expectedUsers = closedHere;
    users.compare_exchange_strong(expectedUsers, 0);
    return true;
}

// Becomes the first user after a closing. A handler that has interrupted this thread's own can't
// wait for it: it takes the handle out of use itself, unless another handler has done that.
bool reopen(unsigned int current) noexcept {
    if (current != closedByThisThread()) {
        waitALittle();
        return false;
    }
    SVMutexHandle* going = SVSharedLock::handle();
    if (users.load() == current) {
        handleInUse().compare_exchange_strong(going, nullptr);
    }
    return users.compare_exchange_strong(current, 1);
}

}  // namespace

void SVSharedLock::enter() noexcept {
    unsigned int current = users.load();
    for (;;) {
        if ((current & closed) != 0) {
            if (reopen(current)) {
                return;
            }
            current = users.load();
        } else if (users.compare_exchange_weak(current, current + 1)) {
            return;
        }
    }
}

SVSharedLock::LastUse::~LastUse() {
    if (!m_used) {
        return;
    }
    unsigned int current = users.load();
    for (;;) {
        if (m_handleGoes && lastUserQ(current) && leaveAndDelete()) {
            return;
        }
        if (users.compare_exchange_weak(current, current - 1)) {
            return;
        }
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

}  // namespace Sorvane
