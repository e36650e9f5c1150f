// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The way out of a handler that wants its signal to end the process after all.
#ifndef SORVANE_SVDEFAULTACTION_H
#define SORVANE_SVDEFAULTACTION_H

#include "../support/svexport.h"

namespace Sorvane {

/// For a handler that has reported a crash, which is to look like one: installs the signal's
/// default action, lets the signal in on this thread, and raises it for this thread. Returns if the
/// default action does not end the process, and does nothing for numbers that no handler can be
/// installed for.
/// Leaves errno alone.
/// Threads: any. Signal context: any context.
SORVANE_API void endByDefaultAction(int signalNumber) noexcept;

}  // namespace Sorvane

#endif
