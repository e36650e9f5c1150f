// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The works as libuv does them: its handler writes to a pipe, and the loop calls what is watching.

#include <uv.h>

#include <csignal>
#include <cstddef>
#include <vector>

#include "../loop.h"
#include "../works.h"
#include "start_or_stop.h"

namespace {

constexpr int theSignal = SIGUSR1;

uv_loop_t loop;

void goRound() {
    uv_run(&loop, UV_RUN_NOWAIT);
}

void begin(uv_signal_t& watcher, int signalNumber) {
    uv_signal_start(
        &watcher, [](uv_signal_t*, int) { Bench::calls = Bench::calls + 1; }, signalNumber);
}

std::vector<uv_signal_t> makeWatchers(int count) {
    return std::vector<uv_signal_t>(static_cast<std::size_t>(count));
}

void initialise(std::vector<uv_signal_t>& watchers) {
    for (uv_signal_t& watcher : watchers) {
        uv_signal_init(&loop, &watcher);
    }
}

int looped(int records) {
    std::vector<uv_signal_t> watchers = makeWatchers(records);
    initialise(watchers);
    for (uv_signal_t& watcher : watchers) {
        begin(watcher, theSignal);
    }
    return Bench::serveLooped(theSignal, records, &goRound);
}

int pair(int others) {
    std::vector<uv_signal_t> watchers = makeWatchers(others + 1);
    initialise(watchers);
    for (uv_signal_t& watcher : watchers) {
        begin(watcher, theSignal);
    }
    uv_signal_t& last = watchers.back();
    uv_signal_stop(&last);
    return Bench::serveWork(
        [&] {
            begin(last, theSignal);
            uv_signal_stop(&last);
        },
        [&](long) {
            begin(last, theSignal);
            Bench::raiseInLoop(theSignal, others + 1, &goRound);
            uv_signal_stop(&last);
            Bench::expect("calls", Bench::calls, others + 1);
            Bench::calls = 0;
        });
}

int startOrStop(bool starting, int count) {
    std::vector<uv_signal_t> watchers = makeWatchers(count);
    initialise(watchers);
    return Bench::serveStartOrStop(
        starting, count,
        [&](std::size_t index, int signalNumber) { begin(watchers[index], signalNumber); },
        [&](std::size_t index, int) { uv_signal_stop(&watchers[index]); });
}

int start(int count) {
    return startOrStop(true, count);
}

int stop(int count) {
    return startOrStop(false, count);
}

}  // namespace

int main(int count, char** arguments) {
    Bench::expect("loop", uv_loop_init(&loop), 0);
    return Bench::serveNamed(
        count, arguments,
        {{"looped", &looped}, {"pair", &pair}, {"start", &start}, {"stop", &stop}});
}
