// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The committed corpus: short histories that a fuzzer found worth keeping, each played once.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/byte_source.h"
#include "fuzz/manager_body.h"
#include "fuzz/table_body.h"

namespace {

std::vector<std::filesystem::path> filesOf(const std::string& body) {
    const std::filesystem::directory_iterator folder(std::filesystem::path(SORVANE_CORPUS_DIR) /
                                                     body);
    std::vector<std::filesystem::path> files;
    for (const std::filesystem::directory_entry& entry : folder) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

Bytes contentOf(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(stream)),
                           std::istreambuf_iterator<char>());
    return Bytes(text.begin(), text.end());
}

void replay(const std::string& body, std::string (*play)(const std::uint8_t*, std::size_t)) {
    const std::vector<std::filesystem::path> files = filesOf(body);
    ASSERT_FALSE(files.empty()) << "the corpus has no file for " << body;
    for (const std::filesystem::path& file : files) {
        const Bytes bytes = contentOf(file);
        ASSERT_FALSE(bytes.empty()) << file;
        ASSERT_EQ(play(bytes.data(), bytes.size()), "") << file;
    }
}

TEST(Corpus, OfTablesAgreesWithTheModel) {
    replay("table", playTable);
}

TEST(Corpus, OfManagersAgreesWithTheModel) {
    replay("manager", playManagers);
}

}  // namespace
