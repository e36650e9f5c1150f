// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "support/stack_growth.h"

#include <cstddef>

namespace {

constexpr std::size_t pageSize = 4096;

}  // namespace

[[gnu::noinline]] void growStack() noexcept {
    volatile char room[64 * pageSize];
    for (std::size_t i = 0; i < sizeof(room); i += pageSize) {
        room[i] = 0;
    }
}
