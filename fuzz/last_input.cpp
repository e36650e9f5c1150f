// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "fuzz/last_input.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

[[noreturn]] void fail(const char* path) {
    std::perror(path);
    std::exit(2);
}

int openOrFail(const char* path) {
    const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (file < 0) {
        fail(path);
    }
    return file;
}

}  // namespace

void keepLastInput(const std::uint8_t* data, std::size_t size) {
    static const char* const path = std::getenv("SORVANE_FUZZ_LAST_INPUT");
    if (path == nullptr) {
        return;
    }
    static const int file = openOrFail(path);
    if (pwrite(file, data, size, 0) != static_cast<ssize_t>(size) ||
        ftruncate(file, static_cast<off_t>(size)) != 0) {
        fail(path);
    }
}
