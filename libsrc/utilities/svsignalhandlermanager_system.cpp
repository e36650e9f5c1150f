// The manager's only traffic with the operating system's signal table.

#include <cerrno>
#include <csignal>

#include "svmanagerfailure.h"
#include "svregistry.h"
#include "svsignalhandlermanager.h"
#include "svwalk.h"

namespace Sorvane {

namespace {

constexpr unsigned int lineSigactionFailed = 346;

}  // namespace

SVSignalHandler SVSignalHandlerManager::installHandlerInSystem(SVSignalHandler& handler) {
    const int signalNumber = handler.getSignalNumber();
    const struct sigaction wanted = handler.getOSStruct();
    struct sigaction previous;
    if (sigaction(signalNumber, &wanted, &previous) != 0) {
        // Read before the exception is made: that may ask for memory, and fail, and change it.
        const int code = errno;
        throw managerFailure("installHandlerInSystem caught an error from sigaction.",
                             lineSigactionFailed, svexceptionOperatingSystemCallFailed, code);
    }
    return SVSignalHandler(signalNumber, previous, true, true, true);
}

// No disposition is asked: what was taken over when a signal was allowed is put back even if it is
// forbidden by now.
void SVSignalHandlerManager::restorePreviouslyExistingHandlers() {
    SVMutex scope;
    scope.setHandle(lockHandle());
    const SVRegistryPin pin;
    forEachPreexisting(pin, [this](SVSignalHandler& record) {
        installHandlerInSystem(record);
        return true;
    });
}

}  // namespace Sorvane
