// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What a test expects of a failure of a table or of an iterator.
#ifndef SORVANE_TESTS_SUPPORT_TABLE_FAILURE_H
#define SORVANE_TESTS_SUPPORT_TABLE_FAILURE_H

#include "support/failure.h"

/// Expects a failure of the table's source, with code 0, and with all the rest as given.
void expectTableFailure(const Failure& failure, const char* message, unsigned int line,
                        Sorvane::svexceptiontype type);

#endif
