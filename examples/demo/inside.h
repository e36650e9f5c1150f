// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Signals that this process makes itself.
#ifndef DEMO_INSIDE_H
#define DEMO_INSIDE_H

#include "calls.h"

namespace demo {

/// Has a timer send a signal, after the shortest time that there is.
Sent startTimer(int signalNumber, int value);

/// Writes to a page, and says what is sent if that is forbidden. Comes back only if a handler has
/// changed that.
Sent writeToPage(char* page, char letter);

}  // namespace demo

#endif
