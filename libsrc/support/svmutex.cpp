// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svmutex.h"

namespace Sorvane {

namespace {

int posixType(_svmutex kind) noexcept {
    switch (kind) {
        case svmutexNormal:
            return PTHREAD_MUTEX_NORMAL;
        case svmutexErrorCheck:
            return PTHREAD_MUTEX_ERRORCHECK;
        case svmutexRecursive:
            return PTHREAD_MUTEX_RECURSIVE;
        case svmutexDefault:
            break;
    }
    return PTHREAD_MUTEX_DEFAULT;
}

}  // namespace

SVMutexHandle::SVMutexHandle(_svmutex kind, bool processPrivate) noexcept
    : m_kind(kind), m_processPrivate(processPrivate) {
    makeMutex();
}

SVMutexHandle::~SVMutexHandle() noexcept {
    pthread_mutex_destroy(&m_mutex);
}

// With glibc none of the calls below can fail for these attributes, and none allocates.
void SVMutexHandle::makeMutex() noexcept {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, posixType(m_kind));
    pthread_mutexattr_setpshared(
        &attributes, m_processPrivate ? PTHREAD_PROCESS_PRIVATE : PTHREAD_PROCESS_SHARED);
    pthread_mutex_init(&m_mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

void SVMutexHandle::taken() noexcept {
    m_holder.store(pthread_self(), std::memory_order_relaxed);
    ++m_timesHeld;
}

bool SVMutexHandle::tryLock() {
    if (pthread_mutex_trylock(&m_mutex) != 0) {
        return false;
    }
    taken();
    return true;
}

void SVMutexHandle::lock() {
    if (pthread_mutex_lock(&m_mutex) == 0) {
        taken();
    }
}

void SVMutexHandle::unlock() {
    if (--m_timesHeld == 0) {
        m_holder.store(0, std::memory_order_relaxed);
    }
    pthread_mutex_unlock(&m_mutex);
}

// The C library's lock knows its holder by a number that the child's thread does not have.
void SVMutexHandle::goOnInChild() noexcept {
    if (m_holder.load(std::memory_order_relaxed) != pthread_self()) {
        m_holder.store(0, std::memory_order_relaxed);
        m_timesHeld = 0;
    }
    makeMutex();
    for (unsigned int times = 0; times < m_timesHeld; ++times) {
        pthread_mutex_lock(&m_mutex);
    }
}

}  // namespace Sorvane
