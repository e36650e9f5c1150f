// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "support/failure.h"

#include <gtest/gtest.h>

namespace {

using Sorvane::svexceptiontype;

constexpr const char* managerFile = "libsrc/utilities/svsignalhandlermanager";
constexpr const char* tableFile = "libsrc/include/../datastructures/svhashtable";

void expectFailure(const Failure& failure, const char* message, const char* file, unsigned int line,
                   int type, int code) {
    ASSERT_TRUE(failure.has_value()) << "nothing was thrown";
    EXPECT_STREQ(failure->getMessage(), message);
    EXPECT_STREQ(failure->getFile(), file);
    EXPECT_EQ(failure->getLine(), line);
    EXPECT_EQ(failure->getType(), static_cast<svexceptiontype>(type));
    EXPECT_EQ(failure->getCode(), code);
}

}  // namespace

void expectSigactionFailure(const Failure& failure, int code) {
    expectFailure(failure, "installHandlerInSystem caught an error from sigaction.", managerFile,
                  346, 4, code);
}

void expectNoTableForHandler(const Failure& failure) {
    expectFailure(failure, "Unable to allocate new table", managerFile, 144, 5, 0);
}

void expectNoTableForSignal(const Failure& failure) {
    expectFailure(failure, "Unable to allocate new table", managerFile, 302, 5, 0);
}

void expectNoSpaceForLargerTable(const Failure& failure) {
    expectFailure(failure, "Unable to allocate space for new table.", tableFile, 666, 5, 0);
}

void expectNoSpaceForCopyOfTable(const Failure& failure) {
    expectFailure(failure, "Unable to allocate space for new table.", tableFile, 651, 5, 0);
}
