// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// One history of one table, as a byte string tells it.
#ifndef SORVANE_FUZZ_TABLE_BODY_H
#define SORVANE_FUZZ_TABLE_BODY_H

#include <cstddef>
#include <cstdint>
#include <string>

/// Plays a history of an outer or of an inner table, as the first byte says.
/// Result: the first disagreement with the model; empty when there is none.
std::string playTable(const std::uint8_t* data, std::size_t size);

#endif
