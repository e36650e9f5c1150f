// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Puts the process into the state of a new one, as far as signals and the shared state go.
#ifndef SORVANE_TESTS_SUPPORT_FRESH_PROCESS_H
#define SORVANE_TESTS_SUPPORT_FRESH_PROCESS_H

/// Gives every signal its default action.
void resetSystemActions();

/// Takes all records out of the tables, also those that no manager could put back.
void emptyTables();

/// Takes the shared state down, whatever is left in it and whoever is still counted.
void forgetSharedState();

#endif
