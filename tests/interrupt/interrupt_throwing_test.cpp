// A signal at every instruction of an operation, with a handler that throws. The exception leaves
// the dispatch, is caught where the signal was raised, and the operation goes on.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <cstddef>
#include <cstring>

#include "interrupt/counted_handlers.h"
#include "interrupt/stepper.h"
#include "support/standard_library.h"

// The C++ run-time library would take the exception's storage from the heap, which the signal may
// have interrupted. Here there is never more than one exception at a time.
extern "C" void* __cxa_allocate_exception(std::size_t) noexcept {
    constexpr std::size_t headerAndObject = 512;
    alignas(std::max_align_t) static unsigned char storage[2 * headerAndObject];
    std::memset(storage, 0, sizeof(storage));
    return storage + headerAndObject;
}

extern "C" void __cxa_free_exception(void*) noexcept {}

namespace {

using Manager = Sorvane::SVSignalHandlerManager;

Manager* manager;

void throwing(int) {
    ++calls[0];
    throw 1;
}

// The throwing handler alone: which of the others come before it is the tables' choice.
void prepare() {
    manager = new Manager(true);
    manager->setHandlerFromFunction(SIGUSR1, throwing);
    for (std::size_t i = 1; i < 5; ++i) {
        manager->setHandlerFromFunction(SIGUSR2, handlerOf[i]);
    }
    manager->startHandlingSignals();
}

void stepThroughThrowing(const Scenario& scenario) {
    if (builtWithLibcxx) {
        GTEST_SKIP() << "libc++abi takes no storage for exceptions but its own, which is the heap";
    }
    stepThrough(scenario);
}

void stepThroughThrowing(void (*operate)()) {
    stepThroughThrowing({.prepare = prepare, .operate = operate, .everyTime = {0}, .throws = true});
}

TEST(InterruptedByAThrowingHandler, SetHandlerForTheSameSignal) {
    stepThroughThrowing({.prepare = prepare,
                         .operate = [] { manager->setHandlerFromFunction(SIGUSR1, handlerOf[5]); },
                         .everyTime = {0},
                         .atMostOnce = {5},
                         .throws = true});
}

TEST(InterruptedByAThrowingHandler, SetHandlerThatGrowsAnotherTable) {
    stepThroughThrowing([] {
        manager->setHandlerFromFunction(SIGUSR2, handlerOf[5]);
        manager->setHandlerFromFunction(SIGUSR2, handlerOf[6]);
    });
}

TEST(InterruptedByAThrowingHandler, ClearHandler) {
    stepThroughThrowing([] { manager->clearHandlerWithFunction(SIGUSR2, handlerOf[4]); });
}

TEST(InterruptedByAThrowingHandler, HandleSignalOfAnotherSignal) {
    stepThroughThrowing([] { manager->handleSignal(SIGUSR2); });
}

TEST(InterruptedByAThrowingHandler, CallHandlers) {
    stepThroughThrowing([] { manager->callHandlers(SIGUSR2, nullptr, nullptr); });
}

TEST(InterruptedByAThrowingHandler, FurtherManager) {
    stepThroughThrowing([] { const Manager further(true); });
}

}  // namespace
