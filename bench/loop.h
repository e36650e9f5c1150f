// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A signal whose handlers are called by an event loop.
#ifndef SORVANE_BENCH_LOOP_H
#define SORVANE_BENCH_LOOP_H

#include "handlers.h"

namespace Bench {

/// Raises a signal and has the loop go round until so many handlers have been called.
template <typename GoRound>
void raiseInLoop(int signalNumber, long handlersCalled, GoRound goRound) {
    const long wanted = calls + handlersCalled;
    raiseOnThisThread(signalNumber);
    while (calls < wanted) {
        goRound();
    }
}

template <typename GoRound>
int serveLooped(int signalNumber, int records, GoRound goRound) {
    return serveCounted(records, [&] { raiseInLoop(signalNumber, records, goRound); });
}

}  // namespace Bench

#endif
