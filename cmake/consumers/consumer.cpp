// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Exits with 0 if a signal arrives at a handler that was registered with the library.
#include <sorvane/svhashtable.h>
#include <sorvane/svsignalhandlermanager.h>
#include <csignal>

namespace {

volatile std::sig_atomic_t deliveries = 0;

void countDelivery(int) {
    deliveries = deliveries + 1;
}

}  // namespace

int main() {
    Sorvane::SVSignalHandlerManager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, countDelivery);
    manager.startHandlingSignals();
    std::raise(SIGUSR1);
    return deliveries == 1 ? 0 : 1;
}
