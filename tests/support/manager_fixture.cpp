// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "support/manager_fixture.h"

#include <csignal>

#include "support/fresh_process.h"
#include "support/stack_growth.h"

// Whoever starts the tests may have left signals ignored or blocked.
ManagerTest::ManagerTest() {
    const sigset_t none = setOf({});
    pthread_sigmask(SIG_SETMASK, &none, &m_formerMask);
    // For a handler with SA_ONSTACK, valgrind does not let the stack grow.
    growStack();
    resetSystemActions();
    forgetCalls();
}

ManagerTest::~ManagerTest() {
    resetSystemActions();
    forgetSharedState();
    pthread_sigmask(SIG_SETMASK, &m_formerMask, nullptr);
}

OneManagerTest::~OneManagerTest() noexcept = default;
