// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// One history of several managers, as a byte string tells it.
#ifndef SORVANE_FUZZ_MANAGER_BODY_H
#define SORVANE_FUZZ_MANAGER_BODY_H

#include <cstddef>
#include <cstdint>
#include <string>

/// What happened in histories, so that a test can see that agreement meant something.
struct ManagerEvents {
    unsigned steps = 0;
    unsigned calls = 0;
    unsigned refusedInstallations = 0;
    unsigned failedTeardowns = 0;
    unsigned endedProcesses = 0;
    unsigned outerGrowths = 0;
    unsigned innerGrowths = 0;
    unsigned innerCleans = 0;
    unsigned unreachableCopies = 0;
};

/// Plays every public operation, the host's own installations, and deliveries of real signals, in
/// any order. After each the process must agree with the model about everything.
/// What happened is added to the events. Result: the first disagreement; empty when there is none.
std::string playManagers(const std::uint8_t* data, std::size_t size, ManagerEvents& events);
std::string playManagers(const std::uint8_t* data, std::size_t size);

#endif
