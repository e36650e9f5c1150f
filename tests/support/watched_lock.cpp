// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "support/watched_lock.h"

#include <algorithm>
#include <utility>

namespace {

void callIfSet(const std::function<void()>& hook) {
    if (hook) {
        hook();
    }
}

}  // namespace

WatchedLock::WatchedLock(std::shared_ptr<LockLog> log) : m_log(std::move(log)) {}

WatchedLock::~WatchedLock() noexcept {
    ++m_log->destructions;
}

void WatchedLock::lock() {
    callIfSet(m_log->onDemand);
    SVMutexHandle::lock();
    ++m_log->locks;
    ++m_log->depth;
    m_log->deepest = std::max(m_log->deepest, m_log->depth);
    if (m_log->depth == 1) {
        callIfSet(m_log->onTaken);
    }
}

void WatchedLock::unlock() {
    const bool last = m_log->depth == 1;
    if (last) {
        callIfSet(m_log->onRelease);
    }
    ++m_log->unlocks;
    --m_log->depth;
    SVMutexHandle::unlock();
    if (last) {
        callIfSet(m_log->onFree);
    }
}

std::shared_ptr<LockLog> WatchedLock::putInPlace() {
    auto log = std::make_shared<LockLog>();
    delete Sorvane::SVSignalHandlerManager::handlerTableLock;
    Sorvane::SVSignalHandlerManager::handlerTableLock = new WatchedLock(log);
    return log;
}
