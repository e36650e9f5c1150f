// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A signal after every single instruction of a piece of code.
#ifndef SORVANE_TESTS_SUPPORT_SINGLE_STEPS_H
#define SORVANE_TESTS_SUPPORT_SINGLE_STEPS_H

#if defined(__x86_64__) || defined(__i386__)

#include <x86intrin.h>

/// While one of these lives, the processor raises SIGTRAP after each instruction of its thread.
class SingleSteps {
public:
    SingleSteps() { __writeeflags(__readeflags() | trapFlag); }
    SingleSteps(const SingleSteps&) = delete;
    SingleSteps& operator=(const SingleSteps&) = delete;
    ~SingleSteps() { __writeeflags(__readeflags() & ~trapFlag); }

private:
    using Flags = decltype(__readeflags());

    static constexpr Flags trapFlag = 0x100;
};

#endif

#endif
