// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The works as signal-hook-registry does them, which is written in Rust: several handlers for a
// signal, which are called inside its handler.

#include <csignal>
#include <cstddef>

#include "../threads.h"
#include "../works.h"
#include "installed.h"

namespace {

struct alignas(16) Identity {
    unsigned char bytes[64];
};

}  // namespace

extern "C" {
bool signal_hook_register(int signalNumber, Bench::Handler handler, Identity* identity);
bool signal_hook_unregister(const Identity* identity);
std::size_t signal_hook_identity_size();
}

namespace {

constexpr int theSignal = SIGUSR1;

void registerOn(int signalNumber, int count) {
    for (int i = 0; i < count; ++i) {
        Identity identity;
        const Bench::Handler handler = Bench::handlers[static_cast<std::size_t>(i)];
        Bench::expect("registered", signal_hook_register(signalNumber, handler, &identity), 1);
    }
}

int delivered(int records) {
    registerOn(theSignal, records);
    return Bench::serveCounted(records, [] { Bench::raiseOnThisThread(theSignal); });
}

int direct(int records) {
    registerOn(theSignal, records);
    return Bench::serveDirect(theSignal, records);
}

int pair(int others) {
    registerOn(theSignal, others);
    const Bench::Handler last = Bench::handlers.back();
    Identity identity;
    return Bench::serveWork(
        [&] {
            signal_hook_register(theSignal, last, &identity);
            signal_hook_unregister(&identity);
        },
        [&](long) {
            signal_hook_register(theSignal, last, &identity);
            Bench::expectCalls(others + 1, [] { Bench::raiseOnThisThread(theSignal); });
            signal_hook_unregister(&identity);
            Bench::expectCalls(others, [] { Bench::raiseOnThisThread(theSignal); });
        });
}

int raising(int threads) {
    registerOn(SIGUSR1, 1);
    registerOn(SIGUSR2, 1);
    return Bench::serveRaising(threads);
}

}  // namespace

int main(int count, char** arguments) {
    Bench::expect("room for an identity", signal_hook_identity_size() <= sizeof(Identity), 1);
    return Bench::serveNamed(
        count, arguments,
        {{"delivered", &delivered}, {"direct", &direct}, {"pair", &pair}, {"raising", &raising}});
}
