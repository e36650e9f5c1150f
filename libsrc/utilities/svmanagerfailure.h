// What the manager puts into every exception of its own.
#ifndef SORVANE_SVMANAGERFAILURE_H
#define SORVANE_SVMANAGERFAILURE_H

#include "../support/svfailure.h"

namespace Sorvane {

/// A failure of the manager's. Parameters: line, the fixed number of its site.
constexpr SVFailure svmanagerFailure(const char* message, unsigned int line, svexceptiontype type,
                                     int code) noexcept {
    return SVFailure(message, "libsrc/utilities/svsignalhandlermanager", line, type, code);
}

/// That there is no memory for a signal's table.
constexpr SVFailure svnoTableFailure(unsigned int line) noexcept {
    return svmanagerFailure("Unable to allocate new table", line, svexceptionAllocationFailed, 0);
}

}  // namespace Sorvane

#endif
