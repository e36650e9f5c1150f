// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Uses the parent's library. Exits with 0 if a signal arrives there.
#include "parent.h"

#include <csignal>

int main() {
    const parent::Reminders reminders;
    std::raise(SIGUSR1);
    return parent::reminders() == 1 ? 0 : 1;
}
