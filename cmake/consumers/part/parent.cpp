// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "parent.h"

#include <csignal>

namespace parent {

namespace {

volatile std::sig_atomic_t count = 0;

}  // namespace

void onReminder(int) {
    count = count + 1;
}

int reminders() {
    return count;
}

}  // namespace parent
