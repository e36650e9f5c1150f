// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Everything a user of the hash tables needs: the table, its entry, its hash function and its
// iterator.
#ifndef SORVANE_PUBLIC_SVHASHTABLE_H
#define SORVANE_PUBLIC_SVHASHTABLE_H

#include "../../datastructures/svhashtable.h"

#endif
