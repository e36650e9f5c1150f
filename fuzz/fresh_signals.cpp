// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "fuzz/fresh_signals.h"

#include <pthread.h>

#include "support/fresh_process.h"
#include "support/observed_handlers.h"
#include "support/stack_growth.h"

FreshSignals::FreshSignals() {
    const sigset_t none = setOf({});
    pthread_sigmask(SIG_SETMASK, &none, &m_mask);
    for (int signalNumber = 1; signalNumber <= lastSystemSignal; ++signalNumber) {
        sigaction(signalNumber, nullptr, &m_actions[signalNumber]);
    }
    // For a handler with SA_ONSTACK, valgrind does not let the stack grow.
    growStack();
    resetSystemActions();
    forgetCalls();
}

FreshSignals::~FreshSignals() {
    forgetSharedState();
    for (int signalNumber = 1; signalNumber <= lastSystemSignal; ++signalNumber) {
        // Fails for the signals that nobody may change, which are then as they were.
        sigaction(signalNumber, &m_actions[signalNumber], nullptr);
    }
    pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
}
