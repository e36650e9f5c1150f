// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Has itself profiled: a timer sends SIGPROF a hundred times in a second of work.

#include <gperftools/profiler.h>

#include <cstdio>

#include "plugin_of_host.h"

namespace {

volatile unsigned long result = 0;

// Works until the profiler has seen enough of it.
void workFor(int samples) {
    ProfilerState state = {};
    ProfilerGetCurrentState(&state);
    const int wanted = state.samples_gathered + samples;
    while (state.samples_gathered < wanted) {
        for (unsigned long index = 0; index < 1000000; ++index) {
            result = result + index;
        }
        ProfilerGetCurrentState(&state);
    }
    std::printf("%d more samples\n", samples);
    std::fflush(stdout);
}

}  // namespace

int main() {
    if (ProfilerStart("profile") == 0) {
        return 1;
    }
    loadPlugin();
    workFor(10);
    unloadPlugin();
    takeSnapshot("later");
    workFor(10);
    ProfilerStop();
    takeSnapshot("stopped");
    return 0;
}
