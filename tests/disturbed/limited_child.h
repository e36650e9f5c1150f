// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A child process that may not take for ever: what waits for what never comes is ended, and the
// test fails.
#ifndef SORVANE_TESTS_DISTURBED_LIMITED_CHILD_H
#define SORVANE_TESTS_DISTURBED_LIMITED_CHILD_H

#include <chrono>
#include <functional>

#include "support/child_process.h"

/// Long enough for a busy machine; what is waited for here takes no more than a second or two.
constexpr std::chrono::seconds childPatience{10};

/// Runs a body in a child process, which has every signal's default action and holds none back,
/// whoever started the tests. One that has not ended in time is killed, and counts as a failure.
ChildEnd inLimitedChild(const std::function<void()>& body,
                        std::chrono::milliseconds patience = childPatience);

/// Expects the body to come to its end there, with all its expectations met.
void expectToGoOn(const std::function<void()>& body,
                  std::chrono::milliseconds patience = childPatience);

/// The same as inLimitedChild() for a child that has been started already.
ChildEnd waitLimited(ChildProcess& child, std::chrono::milliseconds patience = childPatience);

/// For the beginning of a child's body: the child ends with the thread that made it.
void endWithParent();

#endif
