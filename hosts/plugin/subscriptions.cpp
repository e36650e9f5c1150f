// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The plug-in with subscriptions: two for each signal.

#include <sorvane/svsignalsubscription.h>

#include "plugin.h"

namespace {

using Sorvane::SVSignalSubscription;

constexpr int signalCount = sizeof(Hosts::signals) / sizeof(Hosts::signals[0]);

// The plug-in begins before the constructors of objects and ends after their destructors.
SVSignalSubscription* simple[signalCount] = {};
SVSignalSubscription* withInformation[signalCount] = {};

// Without a handler of the host's, these end the process, and as they would without the plug-in.
void endIfFatal(int signalNumber) {
    if (signalNumber == SIGSEGV || signalNumber == SIGBUS || signalNumber == SIGHUP) {
        Sorvane::endByDefaultAction(signalNumber);
    }
}

void onSignal(int signalNumber) {
    Hosts::count(signalNumber);
    endIfFatal(signalNumber);
}

void onSignalWithInformation(int signalNumber, siginfo_t* information, void* context) {
    Hosts::countWithInformation(signalNumber, information, context);
    endIfFatal(signalNumber);
}

void end(SVSignalSubscription*& subscription) {
    delete subscription;
    subscription = nullptr;
}

void beginSimple(int index) {
    simple[index] = new SVSignalSubscription(Hosts::signals[index], &onSignal);
}

void beginWithInformation(int index) {
    withInformation[index] =
        new SVSignalSubscription(Hosts::signals[index], &onSignalWithInformation);
}

}  // namespace

// Has had all of them.
void Hosts::beginIdle() {
    beginHandling();
    end();
}

void Hosts::beginHandling() {
    for (int index = 0; index < signalCount; ++index) {
        beginSimple(index);
        beginWithInformation(index);
    }
}

// Mostly somebody has a signal, sometimes nobody, and they come and go in any order.
void Hosts::changeAll() {
    for (int index = 0; index < signalCount; ++index) {
        ::end(simple[index]);
        beginSimple(index);
        ::end(withInformation[index]);
        ::end(simple[index]);
        beginSimple(index);
        beginWithInformation(index);
    }
}

void Hosts::end() {
    for (int index = 0; index < signalCount; ++index) {
        ::end(simple[index]);
        ::end(withInformation[index]);
    }
}
