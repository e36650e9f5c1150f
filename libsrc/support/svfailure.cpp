#include "svfailure.h"

namespace Sorvane {

void SVFailure::throwIt() const {
    throw exception();
}

}  // namespace Sorvane
