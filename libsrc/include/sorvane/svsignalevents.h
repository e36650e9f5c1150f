// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Everything that a user of signal events needs.
#ifndef SORVANE_PUBLIC_SVSIGNALEVENTS_H
#define SORVANE_PUBLIC_SVSIGNALEVENTS_H

#include "../../utilities/svsignalevents.h"
#include "svversion.h"

#endif
