// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Handlers that are more than a note of their call.
#ifndef SORVANE_FUZZ_SPECIAL_HANDLERS_H
#define SORVANE_FUZZ_SPECIAL_HANDLERS_H

#include <cstdint>

#include "fuzz/manager_model.h"

/// Gives its signal the default action, as many handlers do out of habit.
void resettingHandler(int signalNumber);

/// A record that is not valid, and so never called: its address may be any, while those of real
/// functions mostly begin their search at the same slot.
ModelRecord neverCalledRecord(int signalNumber, std::uintptr_t address, bool external);

#endif
