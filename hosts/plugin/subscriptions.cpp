// The plug-in with subscriptions: two for each signal.

#include <sorvane/svsignalsubscription.h>

#include <optional>

#include "plugin.h"

namespace {

using Sorvane::SVSignalSubscription;

struct Pair {
    std::optional<SVSignalSubscription> simple;
    std::optional<SVSignalSubscription> withInformation;
};

constexpr int signalCount = sizeof(Hosts::signals) / sizeof(Hosts::signals[0]);
// The plug-in ends with the destructors of modules, after those of objects.
Pair* const subscriptions = new Pair[signalCount];

void subscribe(int index) {
    const int signalNumber = Hosts::signals[index];
    subscriptions[index].simple.emplace(signalNumber, &Hosts::count);
    subscriptions[index].withInformation.emplace(signalNumber, &Hosts::countWithInformation);
}

}  // namespace

// Has had all of them.
void Hosts::beginIdle() {
    beginHandling();
    end();
}

void Hosts::beginHandling() {
    for (int index = 0; index < signalCount; ++index) {
        subscribe(index);
    }
}

// Mostly somebody has a signal, sometimes nobody, and they come and go in any order.
void Hosts::changeAll() {
    for (int index = 0; index < signalCount; ++index) {
        subscriptions[index].simple.reset();
        subscriptions[index].simple.emplace(signals[index], &count);
        subscriptions[index].withInformation.reset();
        subscriptions[index].simple.reset();
        subscribe(index);
    }
}

void Hosts::end() {
    for (int index = 0; index < signalCount; ++index) {
        subscriptions[index].simple.reset();
        subscriptions[index].withInformation.reset();
    }
}
