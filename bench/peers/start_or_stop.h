// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Beginning and ending to handle signals, one by one.
#ifndef SORVANE_BENCH_PEERS_START_OR_STOP_H
#define SORVANE_BENCH_PEERS_START_OR_STOP_H

#include <cstddef>

#include "../handlers.h"

namespace Bench {

/// Both are done, and one of them counts. Each is told the signal and how many came before it.
template <typename Begin, typename End>
int serveStartOrStop(bool starting, int count, Begin begin, End end) {
    const auto signals = allSignals();
    const auto forEach = [&](auto& work) {
        return timed([&] {
            for (std::size_t index = 0; index < static_cast<std::size_t>(count); ++index) {
                work(index, signals[index]);
            }
        });
    };
    const auto installedQ = [&] {
        struct sigaction found;
        sigaction(signals[static_cast<std::size_t>(count) - 1], nullptr, &found);
        return found.sa_handler != SIG_DFL && found.sa_handler != SIG_IGN ? 1 : 0;
    };
    return serve([&](long times) {
        double started = 0;
        double stopped = 0;
        for (long i = 0; i < times; ++i) {
            started += forEach(begin);
            expect("installed", installedQ(), 1);
            stopped += forEach(end);
            expect("installed", installedQ(), 0);
        }
        return starting ? started : stopped;
    });
}

}  // namespace Bench

#endif
