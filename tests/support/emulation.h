// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Whether a test is run by an emulator or by valgrind, for the few tests that these cannot go along
// with.
#ifndef SORVANE_TESTS_SUPPORT_EMULATION_H
#define SORVANE_TESTS_SUPPORT_EMULATION_H

#include <csignal>
#include <cstdlib>
#include <cstring>

#ifdef SORVANE_TESTS_EMULATED
constexpr bool emulated = true;
#else
constexpr bool emulated = false;
#endif

inline bool underValgrindQ() {
    const char* const preloaded = std::getenv("LD_PRELOAD");
    return preloaded != nullptr && std::strstr(preloaded, "vgpreload") != nullptr;
}

/// Whether a signal is treated unlike the kernel does. Both keep the last one for themselves;
/// valgrind accepts the default action of those that nobody may handle, and ends itself when a
/// SIGSYS is queued.
inline bool treatedUnlikeByTheKernelQ(int signalNumber) {
    constexpr int lastSignal = 64;
    return (signalNumber == lastSignal && (emulated || underValgrindQ())) ||
           ((signalNumber == SIGKILL || signalNumber == SIGSTOP || signalNumber == SIGSYS) &&
            underValgrindQ());
}

#endif
