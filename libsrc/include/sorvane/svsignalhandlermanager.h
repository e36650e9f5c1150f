// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Everything a user of the signal handler manager needs: the manager, handler records, the
// disposition set, and the exception that reports failures.
#ifndef SORVANE_PUBLIC_SVSIGNALHANDLERMANAGER_H
#define SORVANE_PUBLIC_SVSIGNALHANDLERMANAGER_H

#include "../../utilities/svsignalhandlermanager.h"
#include "svversion.h"

#endif
