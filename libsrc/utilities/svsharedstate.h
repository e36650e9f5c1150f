// What the manager's operations share: the registry on the manager's own tables, and how its shared
// members are read while other threads change them.
#ifndef SORVANE_SVSHAREDSTATE_H
#define SORVANE_SVSHAREDSTATE_H

#include <atomic>

#include "../registry/svgate.h"
#include "../registry/svpin.h"
#include "../registry/svregistry.h"
#include "../support/svatomicref.h"
#include "svsignalhandlermanager.h"

namespace Sorvane {

/// Changes the published tables. Signal context: inside the gate.
extern constinit SVRegistry svregistry;

/// How many of the managers are not a dispatch's own. Threads: any. Signal context: any context.
extern constinit std::atomic<unsigned int> svmanagersOutsideDispatch;

/// The shared members that others change meanwhile.
/// Threads: any. Signal context: any context.
inline SVAtomicRef<unsigned int> svnumberOfManagers() noexcept {
    return SVAtomicRef<unsigned int>(SVSignalHandlerManager::numberOfManagers);
}
inline SVAtomicRef<bool> svcurrentlyHandlingSignals() noexcept {
    return SVAtomicRef<bool>(SVSignalHandlerManager::currentlyHandlingSignals);
}
inline SVAtomicRef<SVSignalTable*> svhandlerTables() noexcept {
    return SVAtomicRef<SVSignalTable*>(SVSignalHandlerManager::handlerTables);
}
inline SVAtomicRef<SVMutexHandle*> svhandlerTableLock() noexcept {
    return SVAtomicRef<SVMutexHandle*>(SVSignalHandlerManager::handlerTableLock);
}

/// A pin on the manager's tables.
class SVTablesPin : public SVPin {
public:
    SVTablesPin() noexcept : SVPin(SVSignalHandlerManager::handlerTables) {}
};

/// Does something for every signal that any walk covers, in increasing order.
template <typename Action>
void svforEachSignal(Action action) {
    for (int signalNumber = 1; signalNumber <= SVSignalHandlerManager::maxSignalHandlerNumber;
         ++signalNumber) {
        action(signalNumber);
    }
}

}  // namespace Sorvane

#endif
