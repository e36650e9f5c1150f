// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The version of Sorvane signals, kept here and nowhere else: the build reads these three lines.
#ifndef SORVANE_SVVERSION_H
#define SORVANE_SVVERSION_H

#define SORVANE_SIGNALS_VERSION_MAJOR 1
#define SORVANE_SIGNALS_VERSION_MINOR 0
#define SORVANE_SIGNALS_VERSION_PATCH 0

#endif
