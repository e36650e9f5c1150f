// The walks that several operations of the manager make.
#ifndef SORVANE_SVWALK_H
#define SORVANE_SVWALK_H

#include "svregistry.h"
#include "svsignalhandlermanager.h"

namespace Sorvane {

/// Does something for every signal that any walk covers, in increasing order.
template <typename Action>
void forEachSignal(Action action) {
    for (int signalNumber = 1; signalNumber <= SVSignalHandlerManager::maxSignalHandlerNumber;
         ++signalNumber) {
        action(signalNumber);
    }
}

/// Does something for every valid pre-existing record, signal by signal in slot order, until it
/// answers that it wants no more.
template <typename Action>
void forEachPreexisting(const SVRegistryPin& pin, Action action) {
    bool more = true;
    forEachSignal([&](int signalNumber) {
        const SVSignalHandlerTable* const table = pin.tableOf(signalNumber);
        if (table == nullptr) {
            return;
        }
        for (auto position = table->begin(); more && position != table->end(); position++) {
            SVSignalHandler record(position.GetValue());
            if (record.preExistsQ() && record.validQ()) {
                more = action(record);
            }
        }
    });
}

}  // namespace Sorvane

#endif
