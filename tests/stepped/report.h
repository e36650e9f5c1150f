// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What the processes of a stepping test tell each other, and how they end.
#ifndef SORVANE_TESTS_STEPPED_REPORT_H
#define SORVANE_TESTS_STEPPED_REPORT_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>

/// Lies in memory that the processes share.
struct Report {
    static constexpr std::size_t pictureCapacity = 1U << 16U;
    static constexpr std::size_t reasonCapacity = 240;

    std::atomic<unsigned long> instructions;
    std::atomic<unsigned long> visited;
    std::atomic<unsigned long> waited;  ///< of those visits, how many others waited at the gate
    std::atomic<unsigned long> wrong;
    std::atomic<unsigned int> statesFound;
    std::uintptr_t firstWrongPlace;
    char firstReason[reasonCapacity];
    char picture[pictureCapacity];
};

Report& report();
void clearReport();

/// Notes what is wrong, if it is not null, and at which instruction; the first one in full.
void noteIfWrong(const char* reason, std::uintptr_t place = 0);

/// Runs a body in a child process, to its end, and counts as wrong what ends it before, and an
/// expectation that is not met.
void runInChild(const std::function<void()>& body);

/// Makes a child of this process here. Result: true in the child, which goes on to the end that
/// runInChild() expects; false here, when the child has ended.
bool goOnInChild(std::uintptr_t place);

/// Prints the report, and fails the test if anything was wrong, or if nothing was visited.
void expectNothingWrong(const char* what);

#endif
