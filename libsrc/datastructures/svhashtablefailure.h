// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What the table and its iterator put into every exception of theirs.
#ifndef SORVANE_SVHASHTABLEFAILURE_H
#define SORVANE_SVHASHTABLEFAILURE_H

#include "../support/svfailure.h"

namespace Sorvane {

/// The failure of a table or iterator operation. Parameters: line, the fixed number of its site.
constexpr SVFailure svhashtableFailure(const char* message, unsigned int line,
                                       svexceptiontype type) noexcept {
    return SVFailure(message, "libsrc/include/../datastructures/svhashtable", line, type, 0);
}

}  // namespace Sorvane

#endif
