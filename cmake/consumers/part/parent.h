// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A library of somebody else's whose interface shows the use of the library.
#ifndef CONSUMERS_PARENT_H
#define CONSUMERS_PARENT_H

#include <sorvane/svsignalsubscription.h>

namespace parent {

void onReminder(int);
int reminders();

class Reminders {
    Sorvane::SVSignalSubscription m_subscription{SIGUSR1, onReminder};
};

}  // namespace parent

#endif
