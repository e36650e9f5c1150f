// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What leaves the library. It is compiled with hidden visibility, and these are the exceptions from
// that.
#ifndef SORVANE_SVEXPORT_H
#define SORVANE_SVEXPORT_H

// A module that contains the static library keeps it to itself: it neither shows its copy to other
// modules nor takes theirs for its own. There, what is exported to be found by its plain name is
// protected. The classes themselves are not hidden there, because then a user's class that holds
// one would have to be hidden as well, and compilers warn of that; so what a user makes of them in
// a module of default visibility may be shown.
#ifdef SORVANE_SIGNALS_STATIC
#define SORVANE_API
#define SORVANE_PLAIN_API __attribute__((visibility("protected")))
#else
#define SORVANE_API __attribute__((visibility("default")))
#define SORVANE_PLAIN_API __attribute__((visibility("default")))
#endif

#endif
