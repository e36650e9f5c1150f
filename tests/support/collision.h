// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Handlers whose addresses get in each other's way in a signal's table.
#ifndef SORVANE_TESTS_SUPPORT_COLLISION_H
#define SORVANE_TESTS_SUPPORT_COLLISION_H

#include "support/observed_handlers.h"

/// Three handlers that find their slots in this order, the last one by a walk that passes the slot
/// of the middle one. Once that is deleted, the last one can't be found any more.
struct Collision {
    SimpleHandler first;
    SimpleHandler middle;
    SimpleHandler last;
};

/// Looks for one among the numbered handlers. Their addresses are the linker's choice, but they are
/// aligned, so that nearly any three of them collide.
Collision findCollision();

#endif
