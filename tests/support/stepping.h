// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Something that happens on a thread after each single instruction of what the thread is doing, in
// a handler of SIGTRAP.
#ifndef SORVANE_TESTS_SUPPORT_STEPPING_H
#define SORVANE_TESTS_SUPPORT_STEPPING_H

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <functional>

/// Leaves a test, as skipped, where nothing can be stepped.
#define SKIP_WITHOUT_STEPS()                                   \
    do {                                                       \
        if (const char* const reason = reasonForNotStepping()) \
            GTEST_SKIP() << reason;                            \
    } while (false)

/// Null where an operation can be stepped, otherwise why it can't.
const char* reasonForNotStepping() noexcept;

/// Where a stepped thread stands.
struct Standing {
    std::uintptr_t next;       ///< the instruction that comes next
    const sigset_t& heldBack;  ///< the signals that the thread holds back
};

/// Comes after each instruction; no signal but SIGTRAP is held back for it. Result: whether to go
/// on with it; otherwise the rest of the operation runs undisturbed.
using AfterEach = std::function<bool(const Standing&)>;

/// Runs an operation on this thread instruction by instruction. Signal handlers that interrupt it
/// are not stepped. Several threads may step at once.
void step(const std::function<void()>& operation, const AfterEach& afterEach);

/// Runs an operation on this thread, and does something else after one of its instructions, which
/// are counted from 0. Result: whether the operation has so many.
bool disturb(const std::function<void()>& operation, unsigned int instruction,
             const std::function<void()>& disturbance);

/// Calls an attempt with 0, 1, 2..., as long as it says that the operation has such an instruction,
/// and the test has not failed. Result: how many there were.
template <typename Attempt>
unsigned int atEachInstruction(Attempt attempt) {
    unsigned int instruction = 0;
    for (bool reached = true; reached && !testing::Test::HasFailure();) {
        SCOPED_TRACE(testing::Message() << "at instruction " << instruction);
        reached = attempt(instruction);
        instruction += reached ? 1U : 0U;
    }
    return instruction;
}

#endif
