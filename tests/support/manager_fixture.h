// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The fixture of all tests of the manager.
#ifndef SORVANE_TESTS_SUPPORT_MANAGER_FIXTURE_H
#define SORVANE_TESTS_SUPPORT_MANAGER_FIXTURE_H

#include <gtest/gtest.h>

#include "support/observed_handlers.h"
#include "support/shared_state.h"
#include "support/system_actions.h"

/// Leaves the process behind as a new one would be, as far as signals and the shared state go.
/// CTest gives each test a process of its own anyway; this is for those who run a test program by
/// hand.
class ManagerTest : public ::testing::Test {
protected:
    ManagerTest();
    ~ManagerTest() override;

private:
    sigset_t m_formerMask;
};

/// For tests that need no more than one manager, which locks.
class OneManagerTest : public ManagerTest {
protected:
    // Declared, because the manager's own may throw, which a fixture's may not.
    ~OneManagerTest() noexcept override;

    Manager m_manager{true};
};

#endif
