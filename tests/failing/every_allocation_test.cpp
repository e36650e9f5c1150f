// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Every allocation of a scenario fails in its turn: the first, the second, the third, until there
// is none left. Each time what was thrown, the whole state and the lock are as they are to be, the
// scenario goes on from there to its end, and a fresh one succeeds.

#include <gtest/gtest.h>

#include <cstddef>
#include <optional>
#include <string>

#include "failing/allocations.h"
#include "failing/scenario.h"
#include "support/emulation.h"

namespace {

using Allocations::Failing;

// A need for memory that a header's comment names: alone, or it and all after it.
constexpr unsigned int mostNeeds = 12;

// An allocation is the operation's own or one that nobody was promised. So either nothing is to be
// seen of its failure, or the operation failed as one does whose own need was not met.
bool agreesWithSomeNeedUnmetQ(ManagerPair& pair, const Step& step, const Failure& failure) {
    const ManagerModel before = pair.model;
    for (unsigned int need = 0; need < mostNeeds; ++need) {
        for (const unsigned int unmet : {0U, 1U << need, ~0U << need}) {
            pair.model = before;
            pair.model.unmetNeeds = unmet;
            const std::optional<ModelFailure> expected = pair.performModelled(step, pair.model);
            pair.model.unmetNeeds = 0;
            if (pair.differences(pair.model, expected, failure).empty()) {
                return true;
            }
        }
    }
    pair.model = before;
    return false;
}

class EveryAllocation : public testing::TestWithParam<Failing> {
protected:
    void SetUp() override {
        if (underValgrindQ()) {
            GTEST_SKIP() << "valgrind has the heap to itself";
        }
    }

    // Whether the allocation was reached; without a problem, or with the first one in m_problem.
    bool runWithFailing(std::size_t number) {
        ManagerPair pair;
        std::size_t allocationsBefore = 0;
        bool reached = false;
        for (const StepMaker& maker : scenarioWith(ordinaryScenarioSignals())) {
            const Step step = maker(pair);
            const std::size_t own = number > allocationsBefore ? number - allocationsBefore : 0;
            allocationsBefore += perform(pair, step, reached ? 0 : own, reached);
            if (!m_problem.empty()) {
                break;
            }
        }
        return reached;
    }

    std::string m_problem;

private:
    std::size_t perform(ManagerPair& pair, const Step& step, std::size_t number, bool& reached) {
        Failure failure;
        std::size_t count = 0;
        bool failed = false;
        {
            const Allocations::Watch watch(number, GetParam());
            failure = pair.performReal(step);
            count = watch.count();
            failed = watch.failedQ();
        }
        reached = reached || failed;
        judge(pair, step, failure, failed);
        return count;
    }

    void judge(ManagerPair& pair, const Step& step, const Failure& failure, bool failed) {
        if (failed && agreesWithSomeNeedUnmetQ(pair, step, failure)) {
            m_problem = pair.differenceInLock();
        } else {
            const std::optional<ModelFailure> expected = pair.performModelled(step, pair.model);
            m_problem = pair.differences(pair.model, expected, failure);
        }
        if (!m_problem.empty()) {
            m_problem =
                "after " + step.name + (failed ? ", in which it failed: " : ": ") + m_problem;
        }
    }
};

TEST_P(EveryAllocation, ThatFailsIsReportedOrWithoutConsequence) {
    std::size_t number = 0;
    do {
        ++number;
        const bool reached = runWithFailing(number);
        EXPECT_EQ(m_problem, "") << "with allocation " << number << " failing";
        m_problem.clear();
        ASSERT_EQ(runFreshScenario(), "") << "after allocation " << number << " had failed";
        if (!reached) {
            break;
        }
    } while (true);
    EXPECT_GT(number, 30U);
}

TEST_P(EveryAllocation, ThatFailsLeavesNothingBehind) {
    // What is kept for good is kept by then.
    constexpr int roundsToGetReady = 3;
    for (int i = 0; i < roundsToGetReady; ++i) {
        runFreshScenario();
    }
    for (std::size_t number = 1; runWithFailing(number); ++number) {
        m_problem.clear();
        const std::ptrdiff_t before = Allocations::blocksHeld();
        runWithFailing(number);
        m_problem.clear();
        runFreshScenario();
        ASSERT_EQ(Allocations::blocksHeld(), before) << "with allocation " << number;
    }
}

INSTANTIATE_TEST_SUITE_P(Failing, EveryAllocation,
                         testing::Values(Failing::once, Failing::fromThenOn),
                         [](const testing::TestParamInfo<Failing>& mode) {
                             return mode.param == Failing::once ? "Once" : "FromThenOn";
                         });

}  // namespace
