// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What a program may have defined before it includes the library's headers: Qt's words, and what
// some platforms call functions. The standard's own headers come first, as they do there.
#ifndef SORVANE_MACROS_OF_OTHERS_H
#define SORVANE_MACROS_OF_OTHERS_H

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <limits>
#include <list>
#include <ostream>
#include <string>
#include <type_traits>

#define signals public
#define slots
#define emit
#define forever for (;;)
#define foreach(variable, container) for (variable : container)
#define min(one, other) ((one) < (other) ? (one) : (other))
#define max(one, other) ((one) > (other) ? (one) : (other))
#define check(condition) ((void)(condition))
#define major(number) (number)
#define minor(number) (number)

#endif
