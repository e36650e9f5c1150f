// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Compares the library's shared state, the operating system's actions and the calls of handlers
// with the model of them.
#ifndef SORVANE_FUZZ_MANAGER_COMPARISON_H
#define SORVANE_FUZZ_MANAGER_COMPARISON_H

#include <sorvane/svsignalhandlermanager.h>

#include <string>

#include "fuzz/manager_model.h"
#include "support/failure.h"

/// Where the process and the model disagree about the state, the system or the calls that were
/// made; empty when they don't.
std::string differenceFrom(ManagerModel& model);

/// Where a record is not the model's.
std::string differenceFrom(const ModelRecord& expected, Sorvane::SVSignalHandler record);

/// Where what was thrown, if anything was, is not what was to be.
std::string differenceFrom(const std::optional<ModelFailure>& expected, const Failure& failure);

/// The dump that the model's state is to have.
std::string expectedDump(const ManagerModel& model);

/// The library's record for one of the model's.
Sorvane::SVSignalHandler realRecord(const ModelRecord& record);

#endif
