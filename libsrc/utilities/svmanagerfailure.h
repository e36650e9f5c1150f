// What the manager puts into every exception of its own.
#ifndef SORVANE_SVMANAGERFAILURE_H
#define SORVANE_SVMANAGERFAILURE_H

#include "../support/svexception.h"

namespace Sorvane {

/// Makes an exception of the manager's.
/// Parameters: message; line, the fixed number of the throw's site; type, the kind; code.
/// Ownership: the message is copied. Result: the exception, to be thrown. Errors: none.
inline SVException managerFailure(const char* message, unsigned int line, svexceptiontype type,
                                  int code) noexcept {
    return SVException(message, "libsrc/utilities/svsignalhandlermanager", line, type, code);
}

}  // namespace Sorvane

#endif
