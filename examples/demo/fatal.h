// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The three signals that end a process unless its host had a handler for them.
#ifndef DEMO_FATAL_H
#define DEMO_FATAL_H

namespace demo {

/// Shows each of them, in a process of its own.
void showFatalSignals();

}  // namespace demo

#endif
