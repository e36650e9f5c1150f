// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Which standard library a test is built with, for the few tests that one cannot go along with.
#ifndef SORVANE_TESTS_SUPPORT_STANDARD_LIBRARY_H
#define SORVANE_TESTS_SUPPORT_STANDARD_LIBRARY_H

#include <cstddef>

#ifdef _LIBCPP_VERSION
constexpr bool builtWithLibcxx = true;
#else
constexpr bool builtWithLibcxx = false;
#endif

/// Leaves a test, as skipped, that needs several exceptions at once while there is no memory.
#define SKIP_WITHOUT_RESERVE_FOR_EXCEPTIONS()                                                \
    do {                                                                                     \
        if (builtWithLibcxx) {                                                               \
            GTEST_SKIP() << "the reserve of libc++abi, 512 bytes, is too small for so many " \
                            "exceptions at once";                                            \
        }                                                                                    \
    } while (false)

#endif
