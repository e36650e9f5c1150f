// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A plug-in that is the only user of the library in its process.
#include <sorvane/svsignalhandlermanager.h>
#include <csignal>

#define PLUG_IN_API extern "C" __attribute__((visibility("default")))

namespace {

Sorvane::SVSignalHandlerManager* manager = nullptr;
volatile std::sig_atomic_t deliveries = 0;

void countDelivery(int) {
    deliveries = deliveries + 1;
}

}  // namespace

PLUG_IN_API void plugInBegin() {
    manager = new Sorvane::SVSignalHandlerManager(true);
    manager->setHandlerFromFunction(SIGTERM, countDelivery);
    manager->startHandlingSignals();
}

PLUG_IN_API int plugInCalls() {
    return deliveries;
}

PLUG_IN_API void plugInEnd() {
    manager->clearHandlerWithFunction(SIGTERM, countDelivery);
    delete manager;
}
