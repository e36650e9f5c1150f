// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Plug-ins that do harm, each in one way. The harness has to find it.

#include <unistd.h>

#include <cstring>

#include "plugin.h"

namespace {

// What a plug-in gets wrong. FAULT is one of these.
enum Fault { ignored, no_restart, lost, held_back, swallowed, wrong_mask, silent, stuck };
constexpr Fault fault = FAULT;

constexpr int signalCount = sizeof(Hosts::signals) / sizeof(Hosts::signals[0]);
struct sigaction before[signalCount];

// All but one are careful: they call the host's handler, have its mask and flags, and leave alone
// what nobody handles.
void callHost(int signalNumber, siginfo_t* information, void* context) {
    Hosts::count(signalNumber);
    for (int index = 0; index < signalCount; ++index) {
        if (Hosts::signals[index] != signalNumber || fault == lost) {
            continue;
        }
        if ((before[index].sa_flags & SA_SIGINFO) != 0) {
            before[index].sa_sigaction(signalNumber, information, context);
        } else {
            before[index].sa_handler(signalNumber);
        }
    }
}

bool handledByHostQ(const struct sigaction& action) {
    return action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
}

void endQuietly(int) {
    _exit(0);
}

}  // namespace

void Hosts::beginIdle() {}

void Hosts::beginHandling() {
    if (fault == silent) {
        return;
    }
    for (int index = 0; index < signalCount; ++index) {
        struct sigaction& host = before[index];
        sigaction(signals[index], nullptr, &host);
        if (fault == swallowed && signals[index] == SIGSEGV) {
            struct sigaction ending = {};
            ending.sa_handler = &endQuietly;
            sigaction(SIGSEGV, &ending, nullptr);
        } else if (handledByHostQ(host)) {
            struct sigaction own = host;
            own.sa_sigaction = &callHost;
            own.sa_flags |= SA_SIGINFO;
            if (fault == no_restart) {
                own.sa_flags &= ~SA_RESTART;
            }
            sigaction(signals[index], &own, nullptr);
        }
    }
    if (fault == held_back) {
        sigset_t one;
        sigemptyset(&one);
        sigaddset(&one, SIGWINCH);
        pthread_sigmask(SIG_BLOCK, &one, nullptr);
    }
}

void Hosts::changeAll() {}

void Hosts::end() {
    while (fault == stuck) {
        pause();
    }
    for (int index = 0; index < signalCount && fault != silent; ++index) {
        struct sigaction current;
        sigaction(signals[index], nullptr, &current);
        if (current.sa_sigaction == &callHost || current.sa_handler == &endQuietly) {
            if (fault == wrong_mask) {
                sigemptyset(&before[index].sa_mask);
            }
            sigaction(signals[index], &before[index], nullptr);
        }
    }
    if (fault == ignored) {
        std::signal(SIGUSR2, SIG_IGN);
    }
}
