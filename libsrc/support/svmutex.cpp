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

// With glibc none of the calls below can fail for these attributes, and none allocates.
SVMutexHandle::SVMutexHandle(_svmutex kind, bool processPrivate) noexcept {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, posixType(kind));
    pthread_mutexattr_setpshared(&attributes,
                                 processPrivate ? PTHREAD_PROCESS_PRIVATE : PTHREAD_PROCESS_SHARED);
    pthread_mutex_init(&m_mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

SVMutexHandle::~SVMutexHandle() noexcept {
    pthread_mutex_destroy(&m_mutex);
}

bool SVMutexHandle::tryLock() {
    return pthread_mutex_trylock(&m_mutex) == 0;
}

void SVMutexHandle::lock() {
    pthread_mutex_lock(&m_mutex);
}

void SVMutexHandle::unlock() {
    pthread_mutex_unlock(&m_mutex);
}

}  // namespace Sorvane
