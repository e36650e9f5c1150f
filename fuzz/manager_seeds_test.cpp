// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Managers against their model: long histories from fixed seeds.

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "fuzz/byte_source.h"
#include "fuzz/manager_body.h"

namespace {

void expectThatEverythingHappened(const ManagerEvents& events) {
    EXPECT_GT(events.steps, 0U);
    EXPECT_GT(events.calls, 0U);
    EXPECT_GT(events.refusedInstallations, 0U);
    EXPECT_GT(events.failedTeardowns, 0U);
    EXPECT_GT(events.endedProcesses, 0U);
    EXPECT_GT(events.outerGrowths, 0U);
    EXPECT_GT(events.innerGrowths, 0U);
    // Cleaned tables and unreachable copies depend on where the handlers were loaded. The histories
    // of the tables, whose keys are made up, demand them.
}

class ManagerModelHistories : public testing::TestWithParam<unsigned> {};

// Many short ones rather than one: every history begins without any manager.
TEST_P(ManagerModelHistories, AgreeAfterEveryStep) {
    constexpr unsigned histories = 50;
    constexpr std::size_t bytesInHistory = 2000;
    ManagerEvents events;
    for (unsigned i = 0; i < histories; ++i) {
        const Bytes bytes = bytesFromSeed(GetParam() + i, bytesInHistory);
        ASSERT_EQ(playManagers(bytes.data(), bytes.size(), events), "")
            << "with seed " << GetParam() + i;
    }
    expectThatEverythingHappened(events);
}

INSTANTIATE_TEST_SUITE_P(Histories, ManagerModelHistories,
                         testing::Values(1000U, 20000U, 300000U, 4000000U),
                         [](const testing::TestParamInfo<unsigned>& seed) {
                             return "FromSeed" + std::to_string(seed.param);
                         });

}  // namespace
