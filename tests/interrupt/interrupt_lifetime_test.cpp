// A signal at every instruction of making and destroying managers, the first and the last one
// included.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include "interrupt/counted_handlers.h"
#include "interrupt/stepper.h"

namespace {

using Manager = Sorvane::SVSignalHandlerManager;

Manager* manager;
Manager* other;

constexpr std::size_t host = 7;

void handle(bool locking) {
    manager = new Manager(locking);
    for (std::size_t i = 0; i < 3; ++i) {
        manager->setHandlerFromFunction(SIGUSR1, handlerOf[i]);
    }
    manager->startHandlingSignals();
}

void makeAndDestroyFurther(bool locking) {
    stepThrough({.prepare = [] { handle(true); },
                 .operate = [locking] { const Manager further(locking); },
                 .everyTime = {0, 1, 2}});
}

TEST(InterruptedFurtherManager, ThatLocks) {
    makeAndDestroyFurther(true);
}

TEST(InterruptedFurtherManager, ThatDoesNotLock) {
    makeAndDestroyFurther(false);
}

TEST(InterruptedFurtherManager, ThatMakesTheLock) {
    stepThrough({.prepare = [] { handle(false); },
                 .operate = [] { other = new Manager(true); },
                 .everyTime = {0, 1, 2}});
}

// Leaves the tables of a manager that is gone, and the signal taken over.
void leaveTables() {
    handle(false);
    manager->stopHandlingSignals();
    manager->handleSignal(SIGUSR1);
    delete manager;
}

void makeFirstWithTables(bool locking) {
    stepThrough({.prepare = leaveTables,
                 .operate = [locking] { manager = new Manager(locking); },
                 .everyTime = {0, 1, 2}});
}

TEST(InterruptedFirstManager, ThatLocksAndFindsTables) {
    makeFirstWithTables(true);
}

TEST(InterruptedFirstManager, ThatDoesNotLockAndFindsTables) {
    makeFirstWithTables(false);
}

// The signal is still taken over when the tables are gone.
void makeFirstWithoutTables(bool locking) {
    stepThrough({.prepare =
                     [] {
                         handle(false);
                         delete manager;
                     },
                 .operate = [locking] { manager = new Manager(locking); },
                 .never = {0, 1, 2}});
}

TEST(InterruptedFirstManager, ThatLocksAndMakesTables) {
    makeFirstWithoutTables(true);
}

TEST(InterruptedFirstManager, ThatDoesNotLockAndMakesTables) {
    makeFirstWithoutTables(false);
}

void destroyLastNotHandling(bool locking) {
    stepThrough({.prepare =
                     [locking] {
                         handle(locking);
                         manager->stopHandlingSignals();
                         manager->handleSignal(SIGUSR1);
                     },
                 .operate = [] { delete manager; },
                 .everyTime = {0, 1, 2}});
}

TEST(InterruptedLastManager, ThatLocksWhileNotHandling) {
    destroyLastNotHandling(true);
}

TEST(InterruptedLastManager, ThatDoesNotLockWhileNotHandling) {
    destroyLastNotHandling(false);
}

void destroyLastWhileHandling(int signalNumber, bool locking) {
    const bool fatal = signalNumber == SIGSEGV;
    stepThrough({.signalNumber = signalNumber,
                 .prepare =
                     [signalNumber, locking] {
                         std::signal(signalNumber, handlerOf[host]);
                         manager = new Manager(locking);
                         manager->setHandlerFromFunction(signalNumber, handlerOf[0]);
                         manager->setHandlerFromFunction(signalNumber, handlerOf[1]);
                         manager->setHandlerFromFunction(SIGUSR2, handlerOf[2]);
                         manager->startHandlingSignals();
                     },
                 .operate = [] { delete manager; },
                 .everyTime = {host},
                 .atMostOnce = {0, 1},
                 .never = {2},
                 .alike = {0, 1},
                 .also = [fatal] { return !fatal || calls[0] == 0; }});
}

TEST(InterruptedLastManager, ThatLocksWhileHandling) {
    destroyLastWhileHandling(SIGUSR1, true);
}

TEST(InterruptedLastManager, ThatDoesNotLockWhileHandling) {
    destroyLastWhileHandling(SIGUSR1, false);
}

TEST(InterruptedLastManager, BySegmentationFaultOfAHostWhileHandling) {
    destroyLastWhileHandling(SIGSEGV, true);
}

void startHandling(int) {
    Manager inner(false);
    inner.startHandlingSignals();
}

// A signal that comes later still makes an empty registry.
bool noTable() {
    return Manager::handlerTables == nullptr || Manager::handlerTables->used == 0;
}

// Whichever of the two goes last finds signals being handled and tears everything down.
TEST(InterruptedLastManager, ByAHandlerThatStartsHandling) {
    stepThrough({.prepare =
                     [] {
                         handle(false);
                         manager->setHandlerFromFunction(SIGUSR1, startHandling);
                         manager->stopHandlingSignals();
                         manager->handleSignal(SIGUSR1);
                     },
                 .operate = [] { delete manager; },
                 .atMostOnce = {0, 1, 2},
                 .alike = {0, 1, 2},
                 .endsAs = EndsAs::alsoSaysTheWholeTruth,
                 .also =
                     [] {
                         return Manager::numberOfManagers == 0 &&
                                (calls[0] == 0 ||
                                 (!Manager::currentlyHandlingSignals && noTable()));
                     }});
}

// A signal that arrives when the tables are gone already makes them anew, empty.
TEST(InterruptedLastManager, WithoutAHostsHandlerWhileHandling) {
    stepThrough({.prepare = [] { handle(true); },
                 .operate = [] { delete manager; },
                 .atMostOnce = {0, 1, 2},
                 .alike = {0, 1, 2},
                 .detail = Detail::records});
}

}  // namespace
