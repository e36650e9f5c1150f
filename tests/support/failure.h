// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The exception that an operation throws, caught, and what a test expects of it.
#ifndef SORVANE_TESTS_SUPPORT_FAILURE_H
#define SORVANE_TESTS_SUPPORT_FAILURE_H

#include <sorvane/svsignalhandlermanager.h>

#include <optional>

using Failure = std::optional<Sorvane::SVException>;

/// Does something, and catches its failure. Needs no memory.
template <typename Operation>
Failure failureOf(Operation operation) {
    try {
        operation();
    } catch (const Sorvane::SVException& exception) {
        return exception;
    }
    return std::nullopt;
}

/// The failures of the manager and of the tables, as they are to be.
void expectSigactionFailure(const Failure& failure, int code);
void expectNoTableForHandler(const Failure& failure);
void expectNoTableForSignal(const Failure& failure);
void expectNoSpaceForLargerTable(const Failure& failure);
void expectNoSpaceForCopyOfTable(const Failure& failure);

#endif
