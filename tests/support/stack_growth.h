// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Makes the stack as large as a test needs it, for where it can't grow later.
#ifndef SORVANE_TESTS_SUPPORT_STACK_GROWTH_H
#define SORVANE_TESTS_SUPPORT_STACK_GROWTH_H

/// Uses 256 kilobytes of the calling thread's stack, and returns.
void growStack() noexcept;

#endif
