// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The whole shared state as a text, and with it what the operating system has installed, and whose
// the signals are, so that two runs can be compared.
#ifndef SORVANE_TESTS_STEPPED_STATE_PICTURE_H
#define SORVANE_TESTS_STEPPED_STATE_PICTURE_H

#include <string>

/// How much of the state is compared.
enum class Detail {
    layout,   ///< every slot of every table
    records,  ///< which records there are: a dispatch that comes late makes tables without any, and
              ///< the lock stays when that has the last manager
};

std::string pictureOfState(Detail detail);

#endif
