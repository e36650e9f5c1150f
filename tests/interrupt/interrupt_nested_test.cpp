// A signal at every instruction of an operation, with a handler that uses the component itself,
// through a manager that does not lock. Both changes must be there at the end.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <cstddef>
#include <vector>

#include "interrupt/counted_handlers.h"
#include "interrupt/stepper.h"

namespace {

using Manager = Sorvane::SVSignalHandlerManager;
using Record = Sorvane::SVSignalHandler;

Manager* manager;
Manager* kept;

constexpr std::size_t host = 7;
constexpr std::size_t otherHost = 8;

bool hasRecord(int signalNumber, SimpleHandler handler) {
    const auto* const tables = Manager::handlerTables;
    const auto* const table = tables == nullptr ? nullptr : tables->get(signalNumber - 1);
    return table != nullptr && table->value->has_key(reinterpret_cast<void*>(handler));
}

std::function<void()> handlingWith(SimpleHandler nested) {
    return [nested] {
        manager = new Manager(true);
        for (std::size_t i = 0; i < 4; ++i) {
            manager->setHandlerFromFunction(SIGUSR1, handlerOf[i]);
        }
        manager->setHandlerFromFunction(SIGUSR1, nested);
        manager->startHandlingSignals();
    };
}

// --- What handlers do -----------------------------------------------------------------------

void changeOtherSignal(int) {
    Manager inner(false);
    inner.setHandlerFromFunction(SIGUSR2, handlerOf[5]);
    inner.clearHandlerWithFunction(SIGUSR2, handlerOf[5]);
    inner.setHandlerFromFunction(SIGUSR2, handlerOf[6]);
}

void registerForSameSignal(int) {
    Manager inner(false);
    inner.setHandlerFromFunction(SIGUSR1, handlerOf[6]);
}

void clearOfSameSignal(int) {
    Manager inner(false);
    inner.clearHandlerWithFunction(SIGUSR1, handlerOf[3]);
}

void replaceOfSameSignal(int) {
    Manager inner(false);
    Record record(SIGUSR1, handlerOf[2], false, true, true);
    inner.setHandler(record);
}

void takeOverOtherSignal(int) {
    Manager inner(false);
    inner.handleSignal(SIGUSR2);
}

void handBackSameSignal(int) {
    Manager inner(false);
    inner.stopHandlingSignal(SIGUSR1);
}

void handBackOtherSignal(int) {
    Manager inner(false);
    inner.stopHandlingSignal(SIGUSR2);
}

void stopHandling(int) {
    Manager inner(false);
    inner.stopHandlingSignals();
}

bool sawFifth = false;

// A change completes what it interrupts, so that it can be told afterwards whether the record is
// there.
void clearFifthIfThere(int) {
    Manager inner(false);
    inner.setHandlerFromFunction(SIGUSR2, handlerOf[6]);
    sawFifth = sawFifth || hasRecord(SIGUSR1, handlerOf[5]);
    inner.clearHandlerWithFunction(SIGUSR1, handlerOf[5]);
}

void keepManager(int) {
    if (kept == nullptr) {
        kept = new Manager(false);
        kept->setHandlerFromFunction(SIGUSR2, handlerOf[6]);
    }
}

// --- Interrupting registration --------------------------------------------------------------

void registerFifth() {
    manager->setHandlerFromFunction(SIGUSR1, handlerOf[5]);
}

TEST(InterruptedSetHandlerByAHandler, ThatChangesAnotherSignal) {
    stepThrough({.prepare = handlingWith(changeOtherSignal),
                 .operate = registerFifth,
                 .everyTime = {0, 1, 2, 3},
                 .atMostOnce = {5},
                 .never = {6},
                 .endsAs = EndsAs::deliveredAfterwards,
                 .detail = Detail::records});
}

TEST(InterruptedSetHandlerByAHandler, ThatRegistersForTheSameSignal) {
    stepThrough({.prepare = handlingWith(registerForSameSignal),
                 .operate = registerFifth,
                 .everyTime = {0, 1, 2, 3},
                 .atMostOnce = {5, 6},
                 .endsAs = EndsAs::deliveredAfterwards,
                 .detail = Detail::records});
}

TEST(InterruptedSetHandlerByAHandler, ThatRegistersTheSameFunction) {
    stepThrough({.prepare = handlingWith(registerForSameSignal),
                 .operate = [] { manager->setHandlerFromFunction(SIGUSR1, handlerOf[6]); },
                 .everyTime = {0, 1, 2, 3},
                 .atMostOnce = {6},
                 .endsAs = EndsAs::deliveredAfterwards,
                 .detail = Detail::records});
}

// The sixth record is registered last, and the one that is cleared may stand before it on the walk
// to its slot; so only the records are compared that can still be found.
TEST(InterruptedSetHandlerByAHandler, ThatClearsOfTheSameSignal) {
    stepThrough({.prepare = handlingWith(clearOfSameSignal),
                 .operate = registerFifth,
                 .everyTime = {0, 1, 2},
                 .atMostOnce = {3, 5},
                 .endsAs = EndsAs::deliveredAfterwards,
                 .detail = Detail::records});
}

TEST(InterruptedSetHandlerByAHandler, ThatReplacesOfTheSameSignal) {
    stepThrough({.prepare = handlingWith(replaceOfSameSignal),
                 .operate = registerFifth,
                 .everyTime = {0, 1, 2, 3},
                 .atMostOnce = {5},
                 .endsAs = EndsAs::deliveredAfterwards,
                 .detail = Detail::records});
}

TEST(InterruptedSetHandlerByAHandler, ThatTakesAnotherSignalOver) {
    stepThrough({.prepare =
                     [] {
                         std::signal(SIGUSR2, handlerOf[host]);
                         handlingWith(takeOverOtherSignal)();
                     },
                 .operate = registerFifth,
                 .everyTime = {0, 1, 2, 3},
                 .atMostOnce = {5},
                 .endsAs = EndsAs::deliveredAfterwards,
                 .detail = Detail::records});
}

// The dispatch takes the signal over again after its handler has handed it back.
TEST(InterruptedSetHandlerByAHandler, ThatHandsTheSameSignalBack) {
    stepThrough({.prepare = handlingWith(handBackSameSignal),
                 .operate = registerFifth,
                 .everyTime = {0, 1, 2, 3},
                 .atMostOnce = {5},
                 .endsAs = EndsAs::deliveredAfterwards,
                 .detail = Detail::records});
}

// What is registered and cleared is not registered once more.
TEST(InterruptedSetHandlerByAHandler, ThatClearsTheSameFunction) {
    stepThrough({.prepare = handlingWith(clearFifthIfThere),
                 .operate = registerFifth,
                 .everyTime = {0, 1, 2, 3},
                 .atMostOnce = {5},
                 .endsAs = EndsAs::alsoSaysTheWholeTruth,
                 .also = [] { return hasRecord(SIGUSR1, handlerOf[5]) != sawFifth; }});
}

// --- Interrupting the other operations ------------------------------------------------------

// A record that stands behind a deleted slot is not found, and stored once more. So whether the
// record that the handler registers and the one that is cleared keep clear of each other depends on
// the addresses; these are two that do.
std::size_t registered = 0;
std::size_t cleared = 0;

void registerTheOne(int) {
    Manager(false).setHandlerFromFunction(SIGUSR1, handlerOf.at(registered));
}

// Whether the one is registered only once, though it is registered again after the other has been
// cleared, and was perhaps registered before.
bool keepClearQ(bool registeredBefore) {
    handlingWith(registerTheOne)();
    if (registeredBefore) {
        registerTheOne(SIGUSR1);
    }
    manager->clearHandlerWithFunction(SIGUSR1, handlerOf.at(cleared));
    registerTheOne(SIGUSR1);
    registerTheOne(SIGUSR1);
    const bool onceQ = Manager::handlerTables->get(SIGUSR1 - 1)->value->used == 5;
    delete manager;
    return onceQ;
}

bool chooseTwoThatKeepClear() {
    for (registered = 5; registered < countedHandlers; ++registered) {
        for (cleared = 0; cleared < 4; ++cleared) {
            if (keepClearQ(false) && keepClearQ(true)) {
                return true;
            }
        }
    }
    return false;
}

TEST(InterruptedClearHandlerByAHandler, ThatRegistersForTheSameSignal) {
    ASSERT_TRUE(chooseTwoThatKeepClear());
    std::vector<std::size_t> others = {0, 1, 2, 3};
    others.erase(others.begin() + static_cast<std::ptrdiff_t>(cleared));
    stepThrough(
        {.prepare = handlingWith(registerTheOne),
         .operate = [] { manager->clearHandlerWithFunction(SIGUSR1, handlerOf.at(cleared)); },
         .everyTime = others,
         .atMostOnce = {cleared, registered},
         .endsAs = EndsAs::deliveredAfterwards,
         .detail = Detail::records});
}

TEST(InterruptedClearHandlerByAHandler, ThatClearsTheSameRecord) {
    stepThrough({.prepare = handlingWith(clearOfSameSignal),
                 .operate = [] { manager->clearHandlerWithFunction(SIGUSR1, handlerOf[3]); },
                 .everyTime = {0, 1, 2},
                 .atMostOnce = {3},
                 .endsAs = EndsAs::deliveredAfterwards,
                 .detail = Detail::records});
}

// The signals of the host's own handler, before the take-over, do not reach the nested one.
TEST(InterruptedHandleSignalByAHandler, ThatRegistersForTheSameSignal) {
    stepThrough({.prepare =
                     [] {
                         std::signal(SIGUSR1, handlerOf[host]);
                         manager = new Manager(true);
                         manager->setHandlerFromFunction(SIGUSR1, handlerOf[0]);
                         manager->setHandlerFromFunction(SIGUSR1, registerForSameSignal);
                     },
                 .operate = [] { manager->handleSignal(SIGUSR1); },
                 .everyTime = {host},
                 .atMostOnce = {0, 6},
                 .mayBeSentAgain = true,
                 .endsAs = EndsAs::alsoSaysTheWholeTruth,
                 .also =
                     [] {
                         return hasRecord(SIGUSR1, handlerOf[host]) &&
                                hasRecord(SIGUSR1, handlerOf[6]) == (calls[0] != 0) &&
                                Manager::numberOfManagers == 1;
                     }});
}

TEST(InterruptedHandleSignalByAHandler, ThatChangesAnotherSignal) {
    stepThrough({.prepare = handlingWith(changeOtherSignal),
                 .operate = [] { manager->handleSignal(SIGUSR1); },
                 .everyTime = {0, 1, 2, 3},
                 .never = {5, 6},
                 .mayBeSentAgain = true,
                 .endsAs = EndsAs::deliveredAfterwards,
                 .detail = Detail::records});
}

// Another signal than the one that is being taken over.
TEST(InterruptedHandleSignalByAHandler, ThatTakesTheSameSignalOver) {
    stepThrough({.prepare =
                     [] {
                         std::signal(SIGUSR2, handlerOf[host]);
                         handlingWith(takeOverOtherSignal)();
                     },
                 .operate = [] { manager->handleSignal(SIGUSR2); },
                 .everyTime = {0, 1, 2, 3},
                 .endsAs = EndsAs::deliveredAfterwards,
                 .detail = Detail::records});
}

// Once actualSignalHandler is installed, and before the host's handler is on record, nobody knows
// what to hand back. Handed back before, while it has a table but no record, the signal is ignored,
// and that is what is taken over.
TEST(InterruptedHandleSignalByAHandler, ThatHandsTheSameSignalBack) {
    stepThrough({.prepare =
                     [] {
                         std::signal(SIGUSR2, handlerOf[host]);
                         handlingWith(handBackOtherSignal)();
                     },
                 .operate = [] { manager->handleSignal(SIGUSR2); },
                 .everyTime = {0, 1, 2, 3},
                 .endsAs = EndsAs::alsoSaysTheWholeTruth,
                 .also =
                     [] {
                         std::raise(SIGUSR2);
                         return calls[host] == (hasRecord(SIGUSR2, handlerOf[host]) ? 1U : 0U);
                     }});
}

TEST(InterruptedCallHandlersByAHandler, ThatChangesTheSameSignal) {
    stepThrough({.prepare =
                     [] {
                         handlingWith(changeOtherSignal)();
                         for (const std::size_t i : {host, otherHost, otherHost + 1}) {
                             manager->setHandlerFromFunction(SIGUSR2, handlerOf[i]);
                         }
                     },
                 .operate = [] { manager->callHandlers(SIGUSR2, nullptr, nullptr); },
                 .everyTime = {0, 1, 2, 3},
                 .never = {5},
                 .endsAs = EndsAs::alsoSaysTheWholeTruth,
                 .also =
                     [] {
                         return calls[host] == 1 && calls[otherHost] == 1 &&
                                calls[otherHost + 1] == 1;
                     }});
}

TEST(InterruptedStopHandlingSignalsByAHandler, ThatStopsToo) {
    stepThrough(
        {.prepare =
             [] {
                 std::signal(SIGUSR1, handlerOf[host]);
                 handlingWith(stopHandling)();
             },
         .operate = [] { manager->stopHandlingSignals(); },
         .everyTime = {host},
         .atMostOnce = {0, 1, 2, 3},
         .alike = {0, 1, 2, 3},
         .endsAs = EndsAs::alsoSaysTheWholeTruth,
         .also =
             [] { return !Manager::currentlyHandlingSignals && Manager::numberOfManagers == 1; }});
}

// --- Birth and death ------------------------------------------------------------------------

TEST(InterruptedFirstManagerByAHandler, ThatRegistersForTheSameSignal) {
    stepThrough({.prepare =
                     [] {
                         handlingWith(registerForSameSignal)();
                         manager->stopHandlingSignals();
                         manager->handleSignal(SIGUSR1);
                         delete manager;
                     },
                 .operate = [] { manager = new Manager(true); },
                 .everyTime = {0, 1, 2, 3},
                 .atMostOnce = {6},
                 .endsAs = EndsAs::deliveredAfterwards,
                 .detail = Detail::records});
}

// A manager that a handler makes while the last one goes keeps its own change, whichever comes
// first.
TEST(InterruptedLastManagerByAHandler, ThatMakesAManagerAndKeepsIt) {
    stepThrough({.prepare = handlingWith(keepManager),
                 .operate = [] { delete manager; },
                 .endsAs = EndsAs::alsoSaysTheWholeTruth,
                 .also =
                     [] {
                         if (kept == nullptr) {
                             return Manager::numberOfManagers == 0;
                         }
                         return Manager::numberOfManagers == 1 && hasRecord(SIGUSR2, handlerOf[6]);
                     }});
}

// Whoever of the two puts the hosts' handlers back, they are there at the end.
TEST(InterruptedLastManagerByAHandler, ThatMakesAManagerWhileHostsHandlersArePutBack) {
    stepThrough({.prepare =
                     [] {
                         std::signal(SIGUSR1, handlerOf[host]);
                         std::signal(SIGUSR2, handlerOf[otherHost]);
                         handlingWith(keepManager)();
                         manager->handleSignal(SIGUSR2);
                     },
                 .operate = [] { delete manager; },
                 .everyTime = {host},
                 .endsAs = EndsAs::alsoSaysTheWholeTruth,
                 .also =
                     [] {
                         const bool changed = hasRecord(SIGUSR2, handlerOf[6]);
                         std::raise(SIGUSR2);
                         return changed == (kept != nullptr) && calls[otherHost] == 1 &&
                                Manager::numberOfManagers == (kept == nullptr ? 0U : 1U);
                     }});
}

TEST(InterruptedFurtherManagerByAHandler, ThatChangesAnotherSignal) {
    stepThrough({.prepare = handlingWith(changeOtherSignal),
                 .operate = [] { const Manager further(true); },
                 .everyTime = {0, 1, 2, 3},
                 .never = {5, 6},
                 .endsAs = EndsAs::deliveredAfterwards,
                 .detail = Detail::records});
}

}  // namespace
