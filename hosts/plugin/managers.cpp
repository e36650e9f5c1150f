// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The plug-in with managers: one that locks and one that doesn't.

#include <sorvane/svsignalhandlermanager.h>

#include "plugin.h"

namespace {

using Sorvane::SVSignalHandlerManager;

// The plug-in ends with the destructors of modules, after those of objects.
SVSignalHandlerManager* locking = nullptr;
SVSignalHandlerManager* unlocked = nullptr;

constexpr int count = sizeof(Hosts::signals) / sizeof(Hosts::signals[0]);

void registerAll() {
    for (const int signalNumber : Hosts::signals) {
        locking->setHandlerFromFunction(signalNumber, &Hosts::count);
        unlocked->setHandlerFromFunction(signalNumber, &Hosts::countWithInformation);
    }
}

// In the reverse order, so that all are found.
void clearAll() {
    for (int index = count - 1; index >= 0; --index) {
        unlocked->clearHandlerWithFunction(Hosts::signals[index], &Hosts::countWithInformation);
        locking->clearHandlerWithFunction(Hosts::signals[index], &Hosts::count);
    }
}

}  // namespace

void Hosts::beginIdle() {
    locking = new SVSignalHandlerManager(true);
    unlocked = new SVSignalHandlerManager(false);
}

void Hosts::beginHandling() {
    beginIdle();
    registerAll();
    locking->startHandlingSignals();
}

// A handler that is the first of its signal is registered before the start.
void Hosts::changeAll() {
    for (const int signalNumber : signals) {
        unlocked->clearHandlerWithFunction(signalNumber, &countWithInformation);
        unlocked->setHandlerFromFunction(signalNumber, &countWithInformation);
    }
    unlocked->stopHandlingSignals();
    clearAll();
    registerAll();
    const SVSignalHandlerManager another(true);
    locking->startHandlingSignals();
}

void Hosts::end() {
    locking->stopHandlingSignals();
    clearAll();
    delete unlocked;
    delete locking;
}
