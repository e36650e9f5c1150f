// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What leaves the library. It is compiled with hidden visibility, and these are the exceptions from
// that.
#ifndef SORVANE_SVEXPORT_H
#define SORVANE_SVEXPORT_H

// A module that contains the static library keeps it to itself: it neither shows its copy to other
// modules nor takes theirs for its own. There, what is exported to be found by its plain name is
// protected.
#ifdef SORVANE_SIGNALS_STATIC
#define SORVANE_API
#define SORVANE_PLAIN_API __attribute__((visibility("protected")))
#else
#define SORVANE_API __attribute__((visibility("default")))
#define SORVANE_PLAIN_API __attribute__((visibility("default")))
#endif

#endif
