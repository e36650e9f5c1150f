// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "disturbed/stretched_sigaction.h"

#include <dlfcn.h>

#include <cerrno>
#include <csignal>
#include <utility>

namespace {

using When = StretchedSigaction::When;
using Sigaction = int(int, const struct sigaction*, struct sigaction*);

// In the program itself, so that a signal handler may read it.
constinit thread_local const StretchedSigaction* current = nullptr;

constinit Sigaction* systems = nullptr;

// Before a handler may need it.
[[gnu::constructor]] void findSystems() {
    systems = reinterpret_cast<Sigaction*>(dlsym(RTLD_NEXT, "sigaction"));
}

void actIfMeant(int signalNumber, When when) {
    const StretchedSigaction* const stretched = current;
    if (stretched == nullptr || !stretched->meantQ(signalNumber, when)) {
        return;
    }
    const int errnoBefore = errno;
    current = nullptr;
    stretched->act();
    current = stretched;
    errno = errnoBefore;
}

}  // namespace

extern "C" int sigaction(int signalNumber, const struct sigaction* wanted,
                         struct sigaction* previous) noexcept {
    if (systems == nullptr) {
        findSystems();
    }
    if (wanted != nullptr) {
        actIfMeant(signalNumber, When::before);
    }
    const int result = systems(signalNumber, wanted, previous);
    if (wanted != nullptr) {
        actIfMeant(signalNumber, When::after);
    }
    return result;
}

StretchedSigaction::StretchedSigaction(int signalNumber, When when, std::function<void()> act)
    : m_signalNumber(signalNumber), m_when(when), m_act(std::move(act)) {
    current = this;
}

StretchedSigaction::~StretchedSigaction() {
    current = nullptr;
}
