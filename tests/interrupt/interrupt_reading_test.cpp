// A signal at every instruction of the operations that only read.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <sstream>

#include "interrupt/counted_handlers.h"
#include "interrupt/stepper.h"

namespace {

using Manager = Sorvane::SVSignalHandlerManager;

Manager* manager;
bool answer;

constexpr std::size_t host = 7;

void prepare() {
    std::signal(SIGUSR1, handlerOf[host]);
    manager = new Manager(true);
    manager->setHandlerFromFunction(SIGUSR1, handlerOf[0]);
    manager->setHandlerFromFunction(SIGUSR1, handlerOf[1]);
    manager->setHandlerFromFunction(SIGUSR2, handlerOf[2]);
    manager->startHandlingSignals();
}

TEST(InterruptedCallHandlers, OfAnotherSignal) {
    stepThrough({.prepare = prepare,
                 .operate = [] { manager->callHandlers(SIGUSR2, nullptr, nullptr); },
                 .everyTime = {host, 0, 1},
                 .also = [] { return calls[2] == 1; }});
}

// The operation's own call of each record comes on top of those of the deliveries.
TEST(InterruptedCallHandlers, OfTheSameSignal) {
    stepThrough({.prepare = prepare,
                 .operate = [] { manager->callHandlers(SIGUSR1, nullptr, nullptr); },
                 .also =
                     [] {
                         return calls[0] == deliveries() + 1 && calls[1] == deliveries() + 1 &&
                                calls[host] == deliveries() + 1;
                     }});
}

TEST(InterruptedCallOnlyPreexistingHandlers, OfTheSameSignal) {
    stepThrough(
        {.prepare = prepare,
         .operate =
             [] { manager->callOnlyPreexistingOrExternalHandlers(SIGUSR1, nullptr, nullptr); },
         .everyTime = {0, 1},
         .also = [] { return calls[host] == deliveries() + 1; }});
}

TEST(InterruptedHasPreexistingHandlerQ, Yes) {
    stepThrough({.prepare = prepare,
                 .operate = [] { answer = manager->hasPreexistingOrExternalHandlerQ(SIGUSR1); },
                 .everyTime = {host, 0, 1},
                 .also = [] { return answer; }});
}

TEST(InterruptedHasPreexistingHandlerQ, No) {
    stepThrough({.prepare = prepare,
                 .operate = [] { answer = manager->hasPreexistingOrExternalHandlerQ(SIGUSR2); },
                 .everyTime = {host, 0, 1},
                 .also = [] { return !answer; }});
}

// The text is that of the undisturbed state, but for the managers: no temporary one is alive when
// their number is written.
TEST(InterruptedPrint, OfOneSignal) {
    static std::string expected;
    static std::ostringstream stream;
    stepThrough({.prepare =
                     [] {
                         manager = new Manager(true);
                         manager->setHandlerFromFunction(SIGUSR1, handlerOf[0]);
                         manager->startHandlingSignals();
                         std::ostringstream undisturbed;
                         manager->print(undisturbed);
                         expected = undisturbed.str();
                     },
                 .operate = [] { manager->print(stream); },
                 .everyTime = {0},
                 .also = [] { return stream.str() == expected; }});
}

}  // namespace
