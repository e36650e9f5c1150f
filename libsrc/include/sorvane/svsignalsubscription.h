// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Everything a guest needs that wants one signal for a while: the subscription, the way out of a
// handler by the default action, and the exception that reports failures.
#ifndef SORVANE_PUBLIC_SVSIGNALSUBSCRIPTION_H
#define SORVANE_PUBLIC_SVSIGNALSUBSCRIPTION_H

#include "../../utilities/svdefaultaction.h"
#include "../../utilities/svsignalsubscription.h"
#include "svversion.h"

#endif
