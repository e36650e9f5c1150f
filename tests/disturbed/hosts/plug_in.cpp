// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A plug-in that brings the library, and with it C++, into a host that knows neither.

#include <sorvane/svsignalhandlermanager.h>

#include <csignal>

#define PLUG_IN_API __attribute__((visibility("default")))

namespace {

using Manager = Sorvane::SVSignalHandlerManager;

Manager* manager = nullptr;
volatile unsigned int calls = 0;

void count(int) {
    calls = calls + 1;
}

// The handler is a user of the library like any other.
void useEverything(int) {
    Manager inner(false);
    for (int signalNumber = SIGRTMIN; signalNumber < SIGRTMIN + 8; ++signalNumber) {
        inner.setHandlerFromFunction(signalNumber, count);
        inner.handleSignal(signalNumber);
        inner.stopHandlingSignal(signalNumber);
        inner.clearHandlerWithFunction(signalNumber, count);
    }
    inner.stopHandlingSignals();
    inner.startHandlingSignals();
    count(0);
}

}  // namespace

extern "C" {

PLUG_IN_API void plugInBegin() {
    manager = new Manager(true);
    manager->setHandlerFromFunction(SIGUSR1, count);
    manager->setHandlerFromFunction(SIGUSR2, useEverything);
    manager->startHandlingSignals();
}

PLUG_IN_API void plugInEnd() {
    manager->clearHandlerWithFunction(SIGUSR2, useEverything);
    manager->clearHandlerWithFunction(SIGUSR1, count);
    delete manager;
    manager = nullptr;
}

// How often its handlers have been called.
PLUG_IN_API unsigned int plugInCalls() {
    return calls;
}
}
