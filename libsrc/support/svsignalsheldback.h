// Holding signals back.
#ifndef SORVANE_SVSIGNALSHELDBACK_H
#define SORVANE_SVSIGNALSHELDBACK_H

#include <pthread.h>

#include <csignal>

namespace Sorvane {

/// Holds signals back from this thread for the length of a scope: all but SIGTRAP, which ends a
/// process that single-steps itself if it is held back.
/// Threads: any. Signal context: any context.
class SVSignalsHeldBack {
public:
    SVSignalsHeldBack() noexcept {
        sigset_t signals;
        sigfillset(&signals);
        sigdelset(&signals, SIGTRAP);
        pthread_sigmask(SIG_BLOCK, &signals, &m_before);
    }
    SVSignalsHeldBack(const SVSignalsHeldBack&) = delete;
    SVSignalsHeldBack& operator=(const SVSignalsHeldBack&) = delete;
    ~SVSignalsHeldBack() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

private:
    sigset_t m_before;
};

}  // namespace Sorvane

#endif
