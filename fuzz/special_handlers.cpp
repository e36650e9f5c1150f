// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "fuzz/special_handlers.h"

#include <csignal>

#include "support/observed_handlers.h"

void resettingHandler(int signalNumber) {
    noteCall(addressOf(&resettingHandler), signalNumber);
    struct sigaction none = {};
    none.sa_handler = SIG_DFL;
    sigaction(signalNumber, &none, nullptr);
}

ModelRecord neverCalledRecord(int signalNumber, std::uintptr_t address, bool external) {
    struct sigaction action = {};
    action.sa_handler = reinterpret_cast<void (*)(int)>(address);
    return {signalNumber, actionOfFunction(action), false, external, false};
}
