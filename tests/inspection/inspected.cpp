// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A process to look into: a handler of the host's, a subscription, and handlers that have no name
// in the dynamic symbol table. It writes its dump, and waits for the end of its input.

#include <sorvane/svsignalhandlermanager.h>
#include <sorvane/svsignalsubscription.h>
#include <unistd.h>

#include <csignal>
#include <iostream>

namespace {

void unnamed(int, siginfo*, void*) {}

void cleared(int) {}

void waitForEndOfInput() {
    char byte = 0;
    while (read(STDIN_FILENO, &byte, sizeof(byte)) > 0) {
    }
}

}  // namespace

static void ofHost(int) {}

static void ofGuest(int) {}

static void onHangup(int) {}

static void onAlarm(int) {}

int main() {
    std::signal(SIGTERM, &ofHost);

    Sorvane::SVSignalHandlerManager quiet(false);
    Sorvane::SVSignalHandlerManager manager(true);
    const Sorvane::SVSignalSubscription subscription(SIGALRM, &onAlarm);
    manager.setSignalDisposition(SIGUSR2, false);
    manager.setHandlerFromFunction(SIGTERM, &ofGuest);
    manager.setHandlerFromFunction(SIGINT, &unnamed);
    manager.setHandlerFromFunction(SIGUSR1, [](int) {});
    manager.setHandlerFromFunction(SIGUSR1, &cleared);
    manager.startHandlingSignals();
    manager.clearHandlerWithFunction(SIGUSR1, &cleared);
    manager.stopHandlingSignal(SIGINT);

    struct sigaction action = {};
    action.sa_handler = &onHangup;
    action.sa_flags = SA_NODEFER;
    sigaddset(&action.sa_mask, SIGALRM);
    sigaddset(&action.sa_mask, SIGRTMIN + 2);
    Sorvane::SVSignalHandler record(SIGHUP, action, false, true, false);
    manager.setHandler(record);

    std::cout << manager << std::flush;
    waitForEndOfInput();
    return 0;
}
