// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// An operating-system lock behind a handle, and its scoped use.
#ifndef SORVANE_SVMUTEX_H
#define SORVANE_SVMUTEX_H

#include <pthread.h>

#include <atomic>

#include "svexport.h"
#include "svobject.h"

namespace Sorvane {

/// The kinds of lock, with the numbers that callers pass.
enum _svmutex : int {
    svmutexDefault = 0,
    svmutexNormal = 1,
    svmutexErrorCheck = 2,  ///< refuses the thread that holds it; lock() does not report that
    svmutexRecursive = 3,   ///< the thread that holds it may lock it again
};

/// An unnamed lock of the operating system. Its virtual operations are in the order that binary
/// clients know: the destructors, tryLock, lock, unlock.
///
/// Threads: any, at once. Signal context: normal context only.
class SORVANE_API SVMutexHandle : public SVObject {
public:
    /// Makes the lock, open. processPrivate is false for one in memory that processes share.
    explicit SVMutexHandle(_svmutex kind = svmutexRecursive, bool processPrivate = true) noexcept;
    SVMutexHandle(const SVMutexHandle&) = delete;
    SVMutexHandle& operator=(const SVMutexHandle&) = delete;
    ~SVMutexHandle() noexcept override;

    /// Take the lock: tryLock() only if that needs no waiting, and it tells whether it did; lock()
    /// waits for it.
    virtual bool tryLock();
    virtual void lock();

    /// Gives the lock back, once for each time it was taken. Threads: the one that holds it.
    virtual void unlock();

    /// Makes the lock, in the only thread of a forked child, what it was to that thread before:
    /// held as often, and free of all other threads.
    void goOnInChild() noexcept;

private:
    void makeMutex() noexcept;
    void taken() noexcept;

    pthread_mutex_t m_mutex;
    const _svmutex m_kind;
    const bool m_processPrivate;
    std::atomic<pthread_t> m_holder{};  ///< the thread that holds it; 0 for none
    unsigned int m_timesHeld = 0;       ///< by that thread
};

/// A scoped lock: releases what it holds on every way out of a scope, exceptions included.
///
/// Threads: the scope's own. Signal context: any for one that holds nothing; otherwise normal
/// context only.
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

    /// Locks a handle and holds it until the end of the scope; null holds nothing. Called at most
    /// once. The handle stays the caller's and must outlive this object.
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
