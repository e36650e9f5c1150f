// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The plug-in. It begins when it is loaded and ends when it is unloaded or the host ends, as the
// mode of the run says.

#include "plugin.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "bash_builtin.h"
#include "probe.h"

namespace {

pid_t beganIn = 0;
unsigned int* counters = nullptr;

pthread_t busyThread;
bool busyThreadRuns = false;
std::atomic<bool> busyThreadEnds{false};
std::atomic<int> rounds{0};

void* changeAllTheTime(void*) {
    while (!busyThreadEnds.load()) {
        Hosts::changeAll();
        rounds.fetch_add(1);
        rounds.notify_all();
    }
    return nullptr;
}

// Returns when everything has been changed twice. A plug-in's own thread takes no signals of the
// host's.
void startBusyThread() {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    busyThreadRuns = pthread_create(&busyThread, nullptr, &changeAllTheTime, nullptr) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    for (int seen = 0; busyThreadRuns && seen < 2; seen = rounds.load()) {
        rounds.wait(seen);
    }
}

void stopBusyThread() {
    // A child of the host has no such thread.
    if (busyThreadRuns && beganIn == getpid()) {
        busyThreadEnds.store(true);
        pthread_join(busyThread, nullptr);
    }
    busyThreadRuns = false;
}

__attribute__((constructor)) void load() {
    if (!hosts_process()) {
        return;
    }
    beganIn = getpid();
    counters = hosts_counters();
    counters[0] = 1;
    if (std::strcmp(hosts_mode(), "idle") == 0) {
        Hosts::beginIdle();
        return;
    }
    Hosts::beginHandling();
    if (std::strcmp(hosts_mode(), "busy") == 0 || std::strcmp(hosts_mode(), "early") == 0) {
        startBusyThread();
    }
}

__attribute__((destructor)) void unload() {
    if (beganIn != 0) {
        stopBusyThread();
        Hosts::end();
        beganIn = 0;
    }
}

// bash loads what it takes for a builtin.
const char* const bashHelp[] = {"The plug-in.", nullptr};
int bashPlugin(BashWords*) {
    return 0;
}

}  // namespace

void Hosts::count(int signalNumber) {
    __atomic_fetch_add(&counters[signalNumber], 1U, __ATOMIC_RELAXED);
}

void Hosts::countWithInformation(int signalNumber, siginfo_t*, void*) {
    count(signalNumber);
}

extern "C" {
BashBuiltin hosts_plugin_struct = {"hosts_plugin", &bashPlugin,    1,
                                   bashHelp,       "hosts_plugin", nullptr};
}
