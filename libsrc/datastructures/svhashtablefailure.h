// What the table and its iterator put into every exception of theirs.
#ifndef SORVANE_SVHASHTABLEFAILURE_H
#define SORVANE_SVHASHTABLEFAILURE_H

#include "../support/svexception.h"

namespace Sorvane {

/// Makes the exception of a failed table or iterator operation.
/// Parameters: message; line, the fixed number of the throw's site; type, the kind.
/// Ownership: the message is copied. Result: the exception, to be thrown. Errors: none.
/// Guarantee: no exception. Threads: any. Signal context: normal context only.
inline SVException svhashtableFailure(const char* message, unsigned int line,
                                      svexceptiontype type) noexcept {
    return SVException(message, "libsrc/include/../datastructures/svhashtable", line, type, 0);
}

}  // namespace Sorvane

#endif
