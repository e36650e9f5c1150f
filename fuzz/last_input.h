// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Keeps what a fuzzer is just trying where it outlives the process: the library may end that
// without a word, and then the fuzzer has written nothing down.
#ifndef SORVANE_FUZZ_LAST_INPUT_H
#define SORVANE_FUZZ_LAST_INPUT_H

#include <cstddef>
#include <cstdint>

/// Puts an input into the file that the environment's SORVANE_FUZZ_LAST_INPUT names, if it does.
void keepLastInput(const std::uint8_t* data, std::size_t size);

#endif
