// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The manager's operations that the tests step through, and what a signal must find before and
// after each.
#ifndef SORVANE_TESTS_STEPPED_OPERATIONS_H
#define SORVANE_TESTS_STEPPED_OPERATIONS_H

#include <iosfwd>
#include <string>
#include <vector>

#include "stepped/arrivals.h"
#include "stepped/state_picture.h"

/// By whom an operation is done, and for which signal.
struct Setting {
    bool locking;
    int signalNumber;
};

struct Operation {
    const char* name;
    void (*prepare)();
    void (*operate)();
    States states;  ///< of an ordinary signal
    Detail detail = Detail::layout;
};

/// For the operations' functions, which have no parameters.
void useSetting(const Setting& setting);

/// All of them, or the one of a name.
const std::vector<Operation>& operations();
const Operation& operationNamed(const std::string& name);

std::ostream& operator<<(std::ostream& stream, const Operation& operation);

#endif
