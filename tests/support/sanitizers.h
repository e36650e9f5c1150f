// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Which sanitizer a test is built with, for the few tests that one cannot go along with.
#ifndef SORVANE_TESTS_SUPPORT_SANITIZERS_H
#define SORVANE_TESTS_SUPPORT_SANITIZERS_H

#if defined(__has_feature)
#define SORVANE_TESTS_HAVE_FEATURE(feature) __has_feature(feature)
#else
#define SORVANE_TESTS_HAVE_FEATURE(feature) 0
#endif

#if defined(__SANITIZE_THREAD__) || SORVANE_TESTS_HAVE_FEATURE(thread_sanitizer)
constexpr bool builtWithThreadSanitizer = true;
#else
constexpr bool builtWithThreadSanitizer = false;
#endif

#if defined(__SANITIZE_ADDRESS__) || SORVANE_TESTS_HAVE_FEATURE(address_sanitizer)
constexpr bool builtWithAddressSanitizer = true;
#else
constexpr bool builtWithAddressSanitizer = false;
#endif

/// Ends a test that needs real faults.
#define SKIP_WITHOUT_FAULTS()                                             \
    do {                                                                  \
        if (builtWithAddressSanitizer || builtWithThreadSanitizer) {      \
            GTEST_SKIP() << "a sanitizer has its own opinion of a fault"; \
        }                                                                 \
    } while (false)

#endif
