// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Runs under a sanitizer that has handlers of its own, has some itself, and ends with an error that
// the sanitizer reports.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "plugin_of_host.h"

namespace {

volatile std::sig_atomic_t called = 0;

void onSignal(int) {
    called = called + 1;
}

void raiseAll() {
    for (const int signalNumber : {SIGUSR1, SIGTERM, SIGHUP}) {
        called = 0;
        std::raise(signalNumber);
        std::printf("signal %d: called %d\n", signalNumber, static_cast<int>(called));
    }
    std::fflush(stdout);
}

}  // namespace

int main(int count, char** arguments) {
    for (const int signalNumber : {SIGUSR1, SIGTERM, SIGHUP}) {
        std::signal(signalNumber, &onSignal);
    }
    loadPlugin();
    raiseAll();
    if (count > 1 && std::strcmp(arguments[1], "fault") == 0) {
        volatile int* volatile nowhere = nullptr;
        *nowhere = 1;
    }
    unloadPlugin();
    takeSnapshot("later");
    raiseAll();
    return 0;
}
