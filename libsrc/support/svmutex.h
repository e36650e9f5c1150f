// An operating-system lock behind a handle, and its scoped use.
#ifndef SORVANE_SVMUTEX_H
#define SORVANE_SVMUTEX_H

#include <pthread.h>

#include "svexport.h"
#include "svobject.h"

namespace Sorvane {

/// The kinds of lock, with the numbers that callers pass.
enum _svmutex : int {
    svmutexDefault = 0,
    svmutexNormal = 1,
    svmutexErrorCheck = 2,
    svmutexRecursive = 3,  ///< the thread that holds it may lock it again
};

/// An unnamed lock of the operating system. Its virtual operations are in the order that binary
/// clients know: the destructors, tryLock, lock, unlock.
class SORVANE_API SVMutexHandle : public SVObject {
public:
    /// Makes the lock, open.
    /// Parameters: kind; processPrivate, false for a lock in memory that several processes share.
    /// Ownership: of the operating system's lock, until the destructor. Result: the handle.
    /// Errors: none. Guarantee: no exception. Threads: any. Signal context: normal context only.
    explicit SVMutexHandle(_svmutex kind = svmutexRecursive, bool processPrivate = true) noexcept;
    SVMutexHandle(const SVMutexHandle&) = delete;
    SVMutexHandle& operator=(const SVMutexHandle&) = delete;
    ~SVMutexHandle() noexcept override;

    /// Take the lock: tryLock only if that needs no waiting, lock whatever it takes.
    /// Ownership: of the lock, by the calling thread, once for each unlock.
    /// Result: tryLock, whether the lock was taken. Errors: none thrown. Guarantee: no exception.
    /// Threads: any. Signal context: normal context only.
    virtual bool tryLock();
    virtual void lock();

    /// Gives the lock back, once for each time it was taken.
    /// Ownership: ends. Result: none. Errors: none thrown. Guarantee: no exception.
    /// Threads: the one that holds the lock. Signal context: normal context only.
    virtual void unlock();

private:
    pthread_mutex_t m_mutex;
};

/// A scoped lock: releases what it holds on every way out of a scope, exceptions included.
class SORVANE_API SVMutex : public SVObject {
public:
    SVMutex() noexcept = default;
    SVMutex(const SVMutex&) = delete;
    SVMutex& operator=(const SVMutex&) = delete;

    /// Unlocks the handle that is held, if any.
    ~SVMutex() noexcept override {
        if (m_handle != nullptr) {
            m_handle->unlock();
        }
    }

    /// Locks a handle and keeps it until the end of the scope; called once for each scope.
    /// Parameters: handle; null holds nothing.
    /// Ownership: the handle stays the caller's and must outlive this object.
    /// Result: none. Errors: none thrown. Guarantee: no exception.
    /// Threads: the scope's own. Signal context: normal context only.
    void setHandle(SVMutexHandle* handle) {
        if (handle != nullptr) {
            handle->lock();
        }
        m_handle = handle;
    }

private:
    SVMutexHandle* m_handle = nullptr;
};

}  // namespace Sorvane

#endif
