// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// libFuzzer's target for the histories of tables.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/last_input.h"
#include "fuzz/table_body.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    keepLastInput(data, size);
    const std::string disagreement = playTable(data, size);
    if (!disagreement.empty()) {
        std::fprintf(stderr, "%s\n", disagreement.c_str());
        std::abort();
    }
    return 0;
}
