// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Signal handling as a process finds it at its start, for the length of a scope.
#ifndef SORVANE_FUZZ_FRESH_SIGNALS_H
#define SORVANE_FUZZ_FRESH_SIGNALS_H

#include <csignal>

#include "support/system_actions.h"

/// Whoever runs the bodies may have handlers of its own, a fuzzer for one; it has them back
/// afterwards. The library's shared state is forgotten on both sides.
class FreshSignals {
public:
    FreshSignals();
    FreshSignals(const FreshSignals&) = delete;
    FreshSignals& operator=(const FreshSignals&) = delete;
    ~FreshSignals();

private:
    struct sigaction m_actions[lastSystemSignal + 1] = {};
    sigset_t m_mask = {};
};

#endif
