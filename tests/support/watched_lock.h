// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A lock for the manager that tells what is done with it.
#ifndef SORVANE_TESTS_SUPPORT_WATCHED_LOCK_H
#define SORVANE_TESTS_SUPPORT_WATCHED_LOCK_H

#include <sorvane/svsignalhandlermanager.h>

#include <functional>
#include <memory>

/// What was done with a lock, and what is to be done at its turns. Counts are changed by whoever
/// holds the lock; hooks are set before several threads use it.
struct LockLog {
    unsigned int locks = 0;
    unsigned int unlocks = 0;
    unsigned int depth = 0;    ///< how many times it is held right now
    unsigned int deepest = 0;  ///< how many times it was ever held at once
    unsigned int destructions = 0;

    std::function<void()> onDemand;   ///< before waiting for the lock
    std::function<void()> onTaken;    ///< once it is held, if it was free
    std::function<void()> onRelease;  ///< while it is still held, before it becomes free
    std::function<void()> onFree;     ///< once it is free
};

/// A real lock of the operating system that keeps a LockLog.
class WatchedLock : public Sorvane::SVMutexHandle {
public:
    explicit WatchedLock(std::shared_ptr<LockLog> log);
    ~WatchedLock() noexcept override;

    void lock() override;
    void unlock() override;

    /// Puts such a lock in the place of the manager's, which from then on is its owner. The log may
    /// outlive it.
    static std::shared_ptr<LockLog> putInPlace();

private:
    const std::shared_ptr<LockLog> m_log;
};

#endif
