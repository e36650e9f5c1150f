// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "support/gate.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

Gate::Gate() {
    if (pipe2(m_ends, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
}

Gate::~Gate() {
    close(m_ends[0]);
    close(m_ends[1]);
}

void Gate::open() noexcept {
    const int saved = errno;
    const char token = 0;
    if (write(m_ends[1], &token, 1) != 1) {
        std::abort();
    }
    errno = saved;
}

void Gate::pass() noexcept {
    char token = 0;
    while (read(m_ends[0], &token, 1) != 1) {
        if (errno != EINTR) {
            std::abort();
        }
    }
}
