// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Every installation of a scenario fails in its turn. One of the scenario's signals is one that
// the operating system, or the C library, lets nobody handle; it is allowed in the dispositions.

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "failing/scenario.h"
#include "support/emulation.h"

namespace {

constexpr std::size_t signalCount = 7;

// A refused signal at a position, in the order of the numbers, among ordinary ones.
std::vector<int> signalsWith(int refused, std::size_t position) {
    const std::vector<int> below = {SIGHUP, SIGINT, SIGQUIT, SIGILL, SIGTRAP, SIGABRT};
    const std::vector<int> above = {34, 35, 36, 40, 50, 60};
    std::vector<int> signals(below.begin(), below.begin() + static_cast<std::ptrdiff_t>(position));
    signals.push_back(refused);
    signals.insert(signals.end(), above.begin() + static_cast<std::ptrdiff_t>(position),
                   above.end());
    return signals;
}

class EveryInstallation : public testing::TestWithParam<int> {
protected:
    void SetUp() override {
        if (treatedUnlikeByTheKernelQ(GetParam())) {
            GTEST_SKIP() << "valgrind lets anybody give the signal its default action";
        }
    }

    // Lets the signal be handled in the given one of the steps that then fail, counted from 1, and
    // in no other one of them. Result: how many failed.
    std::size_t runWithFailing(std::size_t number, std::size_t position) {
        ManagerPair pair;
        std::size_t failures = 0;
        for (const StepMaker& maker : scenarioWith(signalsWith(GetParam(), position))) {
            if (pair.overQ() || !m_problem.empty()) {
                break;
            }
            failures += perform(pair, maker(pair), number, failures);
        }
        return failures;
    }

    std::string m_problem;

private:
    std::size_t perform(ManagerPair& pair, const Step& step, std::size_t number,
                        std::size_t failuresBefore) {
        allow(pair, failuresBefore < number);
        const bool fails = failsQ(pair, step);
        if (fails && failuresBefore + 1 != number) {
            allow(pair, false);
        }
        m_problem += pair.perform(step);
        m_problem += fails ? pair.differenceInLock() : "";
        if (!m_problem.empty()) {
            m_problem = "after " + step.name + ": " + m_problem;
        }
        return fails ? 1 : 0;
    }

    void allow(ManagerPair& pair, bool allowed) {
        for (std::size_t place = 0; place < ManagerPair::placeCount; ++place) {
            if (pair.aliveQ(place)) {
                m_problem += pair.perform(pair.setDisposition(place, GetParam(), allowed));
                return;
            }
        }
    }

    static bool failsQ(ManagerPair& pair, const Step& step) {
        ManagerModel tried = pair.model;
        return pair.performModelled(step, tried).has_value();
    }
};

TEST_P(EveryInstallation, ThatFailsIsReportedAndLeavesTheRestAsItWas) {
    for (std::size_t position = 0; position < signalCount; ++position) {
        std::size_t number = 0;
        do {
            ++number;
            const std::size_t failures = runWithFailing(number, position);
            ASSERT_EQ(m_problem, "") << "failure " << number << " of position " << position;
            ASSERT_EQ(runFreshScenario(), "") << "after failure " << number;
            if (failures < number) {
                break;
            }
        } while (true);
        EXPECT_GT(number, 5U) << "position " << position;
    }
}

INSTANTIATE_TEST_SUITE_P(Refused, EveryInstallation, testing::Values(SIGKILL, SIGSTOP, 32, 33),
                         [](const testing::TestParamInfo<int>& refused) {
                             return "Signal" + std::to_string(refused.param);
                         });

}  // namespace
