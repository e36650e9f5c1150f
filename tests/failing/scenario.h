// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// One life of several managers, in steps: registrations with growth of both tables, start,
// deliveries, stop, teardown. Each step is done to the library and to the model of it.
#ifndef SORVANE_TESTS_FAILING_SCENARIO_H
#define SORVANE_TESTS_FAILING_SCENARIO_H

#include <functional>
#include <string>
#include <vector>

#include "fuzz/manager_pair.h"

/// A step is made when its turn comes, because it may depend on what the model has come to.
using StepMaker = std::function<Step(ManagerPair&)>;

/// The steps, with signals of the caller's choice, at least seven, in the order of their numbers.
std::vector<StepMaker> scenarioWith(const std::vector<int>& signals);

/// Seven signals that the operating system lets everybody handle.
std::vector<int> ordinaryScenarioSignals();

/// Goes through all steps, none of which is to fail.
/// Result: the first disagreement with the model; empty when there is none.
std::string runFreshScenario();

#endif
