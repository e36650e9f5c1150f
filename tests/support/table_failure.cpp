// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "support/table_failure.h"

#include <gtest/gtest.h>

void expectTableFailure(const Failure& failure, const char* message, unsigned int line,
                        Sorvane::svexceptiontype type) {
    ASSERT_TRUE(failure.has_value()) << "nothing was thrown; expected: " << message;
    EXPECT_STREQ(failure->getMessage(), message);
    EXPECT_STREQ(failure->getFile(), "libsrc/include/../datastructures/svhashtable");
    EXPECT_EQ(failure->getLine(), line);
    EXPECT_EQ(failure->getType(), type);
    EXPECT_EQ(failure->getCode(), 0);
}
