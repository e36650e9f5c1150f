// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Answers that the kernel gives to a thread's system calls as those who set up a sandbox want them.
#ifndef SORVANE_TESTS_SUPPORT_SYSTEM_CALL_FILTER_H
#define SORVANE_TESTS_SUPPORT_SYSTEM_CALL_FILTER_H

#include <cstdint>
#include <initializer_list>

/// Leaves a test, as skipped, where the kernel can't be told how to answer.
#define SKIP_WITHOUT_SYSTEM_CALL_FILTERS()                        \
    do {                                                          \
        if (const char* const reason = reasonForNotFiltering()) { \
            GTEST_SKIP() << reason;                               \
        }                                                         \
    } while (false)

/// Null where the kernel can be told, otherwise why it can't.
const char* reasonForNotFiltering() noexcept;

/// What the lower half of an argument of a system call must be, or must not be.
struct ArgumentTest {
    unsigned int index;
    bool equal;
    std::uint32_t value;
};

/// From now on, for good, this thread and those that it starts get an answer of seccomp's to a
/// system call whose arguments stand all the tests. Any context. Result: whether it is so.
bool answerSystemCall(long number, std::initializer_list<ArgumentTest> tests, std::uint32_t answer);

/// The same: it fails.
bool refuseSystemCall(long number, std::initializer_list<ArgumentTest> tests, int error);

/// No action is installed for the signal; what is installed can be asked for all the same.
bool refuseInstallation(int signalNumber, int error);

#endif
