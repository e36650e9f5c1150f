// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What a handler does to the records of its own signal while these are being called.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <utility>
#include <vector>

#include "support/manager_fixture.h"

namespace {

class LiveWalk : public ManagerTest {};

// Handlers of which the one that comes first does to the others what is tested, and the others do
// nothing. Which one that is depends on their addresses.
bool actedQ = false;

template <void (*act)(int, SimpleHandler), std::size_t number>
void acting(int signalNumber) {
    const SimpleHandler self = &acting<act, number>;
    noteCall(addressOf(self), signalNumber);
    if (!std::exchange(actedQ, true)) {
        act(signalNumber, self);
    }
}

constexpr std::size_t actors = 5;  // as many as a table has room for without a rebuild
std::array<SimpleHandler, actors> present;

template <void (*act)(int, SimpleHandler), std::size_t... numbers>
void makePresent(std::index_sequence<numbers...>) {
    present = {&acting<act, numbers>...};
}

template <void (*act)(int, SimpleHandler)>
void handleActors(Manager& manager) {
    makePresent<act>(std::make_index_sequence<actors>());
    actedQ = false;
    for (const SimpleHandler handler : present) {
        manager.setHandlerFromFunction(SIGUSR1, handler);
    }
    manager.startHandlingSignals();
}

void expectEachCalledOnce() {
    for (const SimpleHandler handler : present) {
        EXPECT_EQ(callsOf(handler), 1U);
    }
}

template <typename Action>
void forEachOther(SimpleHandler self, Action action) {
    for (const SimpleHandler handler : present) {
        if (handler != self) {
            action(handler);
        }
    }
}

// --- In the slots that are there ---------------------------------------------------------------

SimpleHandler added = nullptr;

void addAnother(int signalNumber, SimpleHandler) {
    Manager inHandler(false);
    inHandler.setHandlerFromFunction(signalNumber, added);
}

// Whether another one comes later depends on both addresses, so several are tried, each pair with a
// table of its own.
TEST_F(LiveWalk, HandlerThatIsAddedIsCalledAtOnceExactlyIfItComesAfterTheOneThatAdds) {
    Manager manager(true);
    manager.startHandlingSignals();
    makePresent<addAnother>(std::make_index_sequence<actors>());
    unsigned int later = 0;
    for (std::size_t i = 0; i < 4 * actors; ++i) {
        const int signalNumber = SIGRTMIN + 1 + static_cast<int>(i);
        added = numberedHandlers[i];
        manager.setHandlerFromFunction(signalNumber, present[i % actors]);
        actedQ = false;
        raise(signalNumber);
        const bool comesLater = functionsInSlotOrder(signalNumber).back() == addressOf(added);
        EXPECT_EQ(callsOf(added), comesLater ? 1U : 0U) << i;
        later += comesLater ? 1U : 0U;
    }
    EXPECT_GT(later, 0U) << "nothing was tested";
}

void makeOthersInvalid(int signalNumber, SimpleHandler self) {
    Manager inHandler(false);
    forEachOther(self, [&](SimpleHandler other) {
        Record invalid(signalNumber, other, false, false, false);
        inHandler.setHandler(invalid);
    });
}

TEST_F(LiveWalk, HandlersThatBecomeInvalidBeforeTheirTurnAreNotCalled) {
    Manager manager(true);
    handleActors<makeOthersInvalid>(manager);
    raise(SIGUSR1);
    EXPECT_EQ(callCount(), 1U);
    EXPECT_EQ(recordCount(SIGUSR1), actors);
}

void clearOthers(int signalNumber, SimpleHandler self) {
    Manager inHandler(false);
    forEachOther(self, [&](SimpleHandler other) {
        inHandler.clearHandlerWithFunction(signalNumber, other);
    });
}

// One that stands behind a deleted slot is not found, and so stays.
void expectThoseThatStayedCalledOnceAndTheClearedOnesNot(std::size_t recordsBefore) {
    const std::vector<void*> stayed = functionsInSlotOrder(SIGUSR1);
    EXPECT_LT(stayed.size(), recordsBefore) << "nothing was tested";
    forEachOther(reinterpret_cast<SimpleHandler>(callAt(0).function), [&](SimpleHandler handler) {
        const bool stayedQ =
            std::find(stayed.begin(), stayed.end(), addressOf(handler)) != stayed.end();
        EXPECT_EQ(callsOf(handler), stayedQ ? 1U : 0U);
    });
}

TEST_F(LiveWalk, HandlersThatAreClearedBeforeTheirTurnAreNotCalled) {
    Manager manager(true);
    handleActors<clearOthers>(manager);
    raise(SIGUSR1);
    expectThoseThatStayedCalledOnceAndTheClearedOnesNot(actors);
}

// Each makes the walk go on with another version; the last but one has the last one not called.
template <std::size_t number>
void replacing(int signalNumber);
constexpr std::array<SimpleHandler, 4> replacingHandlers = {&replacing<0>, &replacing<1>,
                                                            &replacing<2>, &replacing<3>};
template <std::size_t number>
void replacing(int signalNumber) {
    noteCall(addressOf(&replacing<number>), signalNumber);
    Manager inHandler(false);
    Record itself = userRecord(signalNumber, &replacing<number>);
    inHandler.setHandler(itself);
    if (callCount() == replacingHandlers.size() - 1) {
        for (const SimpleHandler handler : replacingHandlers) {
            Record invalid(signalNumber, handler, false, false, false);
            inHandler.setHandler(invalid);
        }
    }
}

template <std::size_t count>
void registerAndRaise(const std::array<SimpleHandler, count>& handlers) {
    Manager manager(true);
    for (const SimpleHandler handler : handlers) {
        manager.setHandlerFromFunction(SIGUSR1, handler);
    }
    manager.startHandlingSignals();
    raise(SIGUSR1);
}

TEST_F(LiveWalk, FollowsOneChangeAfterTheOther) {
    registerAndRaise(replacingHandlers);
    EXPECT_EQ(callCount(), replacingHandlers.size() - 1);
    for (const SimpleHandler handler : replacingHandlers) {
        EXPECT_LE(callsOf(handler), 1U);
    }
}

// --- After a rebuild ---------------------------------------------------------------------------

// A sixth record needs a rebuild, which moves the others to other slots.
void addASixth(int signalNumber, SimpleHandler) {
    Manager inHandler(false);
    inHandler.setHandlerFromFunction(signalNumber, userHandler);
}

TEST_F(LiveWalk, WhoseTableIsRebuiltCallsEachThatWasThereOnceAndNotTheNewOne) {
    Manager manager(true);
    handleActors<addASixth>(manager);
    raise(SIGUSR1);
    expectEachCalledOnce();
    EXPECT_EQ(callsOf(userHandler), 0U);
    EXPECT_EQ(recordCount(SIGUSR1), actors + 1);
}

// The registration for another signal makes a version that shares this signal's table.
void changeAnotherSignalAndAddASixth(int signalNumber, SimpleHandler self) {
    Manager inHandler(false);
    inHandler.setHandlerFromFunction(SIGUSR2, otherUserHandler);
    addASixth(signalNumber, self);
}

TEST_F(LiveWalk, WhoseTableIsRebuiltAfterAnotherSignalsDoesTheSame) {
    Manager manager(true);
    handleActors<changeAnotherSignalAndAddASixth>(manager);
    raise(SIGUSR1);
    expectEachCalledOnce();
    EXPECT_EQ(callsOf(userHandler), 0U);
    EXPECT_EQ(recordCount(SIGUSR1), actors + 1);
}

// The first one makes the walk go on with another version. The second one has that displaced, and
// its memory used for other tables if nobody reads it.
template <std::size_t number>
void movingOn(int signalNumber);
constexpr std::array<SimpleHandler, actors> movingHandlers = {
    &movingOn<0>, &movingOn<1>, &movingOn<2>, &movingOn<3>, &movingOn<4>};
template <std::size_t number>
void movingOn(int signalNumber) {
    noteCall(addressOf(&movingOn<number>), signalNumber);
    Manager inHandler(false);
    if (callCount() == 1) {
        inHandler.setHandlerFromFunction(signalNumber, &movingOn<number>);
    } else if (callCount() == 2) {
        inHandler.setHandlerFromFunction(signalNumber, userHandler);
        for (int other = SIGRTMIN; other < SIGRTMIN + 10; ++other) {
            inHandler.setHandlerFromFunction(other, otherUserHandler);
        }
    }
}

TEST_F(LiveWalk, KeepsTheTableThatItHasFollowedTo) {
    registerAndRaise(movingHandlers);
    EXPECT_EQ(callCount(), movingHandlers.size());
    for (const SimpleHandler handler : movingHandlers) {
        EXPECT_EQ(callsOf(handler), 1U);
    }
}

void addASixthAndClearOthers(int signalNumber, SimpleHandler self) {
    addASixth(signalNumber, self);
    clearOthers(signalNumber, self);
}

TEST_F(LiveWalk, HandlersThatAreClearedAfterARebuildAreNotCalled) {
    Manager manager(true);
    handleActors<addASixthAndClearOthers>(manager);
    raise(SIGUSR1);
    expectThoseThatStayedCalledOnceAndTheClearedOnesNot(actors + 1);
}

TEST_F(LiveWalk, WhoseTableIsRebuiltPassesOverWhatIsNotValid) {
    Manager manager(true);
    handleActors<addASixth>(manager);
    auto* const last = reinterpret_cast<SimpleHandler>(functionsInSlotOrder(SIGUSR1).back());
    Record invalid(SIGUSR1, last, false, false, false);
    manager.setHandler(invalid);
    raise(SIGUSR1);
    EXPECT_EQ(callsOf(last), 0U);
    EXPECT_EQ(callCount(), actors - 1);
    EXPECT_EQ(recordCount(SIGUSR1), actors + 1);
}

std::vector<void*> slotsBefore;

void addASixthAndClearTheThird(int signalNumber, SimpleHandler self) {
    addASixth(signalNumber, self);
    Manager(false).clearHandlerWithFunction(signalNumber,
                                            reinterpret_cast<SimpleHandler>(slotsBefore.at(2)));
}

// The one between is not called, so nothing changes before the turn of the one that is cleared.
TEST_F(LiveWalk, HandlerThatIsClearedAfterARebuildIsNotCalledBehindOneThatIsNotValid) {
    Manager manager(true);
    handleActors<addASixthAndClearTheThird>(manager);
    slotsBefore = functionsInSlotOrder(SIGUSR1);
    Record invalid(SIGUSR1, reinterpret_cast<SimpleHandler>(slotsBefore.at(1)), false, false,
                   false);
    manager.setHandler(invalid);
    raise(SIGUSR1);
    EXPECT_EQ(recordCount(SIGUSR1), actors) << "one more, and one less";
    EXPECT_EQ(callsOfAddress(slotsBefore.at(2)), 0U);
    EXPECT_EQ(callCount(), actors - 2);
}

// So aligned, they all belong in the first slot of a small table.
[[gnu::aligned(64)]] void clearedInTheFirstSlot(int) {}
[[gnu::aligned(64)]] void addManyOthers(int signalNumber) {
    noteCall(addressOf(&addManyOthers), signalNumber);
    Manager inHandler(false);
    for (std::size_t i = 0; i < 6; ++i) {
        inHandler.setHandlerFromFunction(signalNumber, numberedHandlers.at(i));
    }
}

bool deletedSlotHoldsQ(int signalNumber, SimpleHandler handler) {
    const HandlerTable& table = *tableOf(signalNumber);
    bool foundQ = false;
    for (unsigned int i = 0; i <= table.mask; ++i) {
        foundQ = foundQ || (table.table[i].state == Sorvane::svslotDeleted &&
                            table.table[i].key == addressOf(handler));
    }
    return foundQ;
}

// A record that is cleared stays in its slot, and the same handler may stand in another one.
TEST_F(LiveWalk, WhoseTableIsRebuiltPassesOverSlotsThatAreCleared) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, clearedInTheFirstSlot);
    manager.setHandlerFromFunction(SIGUSR1, addManyOthers);
    manager.clearHandlerWithFunction(SIGUSR1, clearedInTheFirstSlot);
    manager.clearHandlerWithFunction(SIGUSR1, addManyOthers);
    manager.setHandlerFromFunction(SIGUSR1, addManyOthers);
    ASSERT_TRUE(deletedSlotHoldsQ(SIGUSR1, addManyOthers));
    manager.handleSignal(SIGUSR1);
    raise(SIGUSR1);
    EXPECT_EQ(callCount(), 1U);
    EXPECT_FALSE(deletedSlotHoldsQ(SIGUSR1, addManyOthers)) << "it was not rebuilt";
}

HandlerTable* takenOut = nullptr;

void addASixthAndTakeTheTableOut(int signalNumber, SimpleHandler self) {
    addASixth(signalNumber, self);
    takenOut = tableOf(signalNumber);
    Manager::handlerTables->remove(signalNumber - 1);
}

// By hand, past the manager.
TEST_F(LiveWalk, HandlersWhoseTableIsTakenOutAfterARebuildAreNotCalled) {
    Manager manager(true);
    handleActors<addASixthAndTakeTheTableOut>(manager);
    raise(SIGUSR1);
    EXPECT_EQ(callCount(), 1U);
    Manager::handlerTables->insert(SIGUSR1 - 1, takenOut);
}

// --- After the end of the registry -------------------------------------------------------------

Manager* theOnlyManager = nullptr;
Manager* nextManager = nullptr;

void registerAnother(int signalNumber) {
    Manager(false).setHandlerFromFunction(signalNumber, userHandler);
}

// A table that did not count them would be full of them one day, and a search in it without an end.
TEST_F(LiveWalk, TableThatAHandlerChangesStillCountsItsDeletedSlots) {
    Manager manager(true);
    manager.setHandlerFromFunction(SIGUSR1, registerAnother);
    for (std::size_t i = 0; i < 3; ++i) {
        manager.setHandlerFromFunction(SIGUSR1, numberedHandlers.at(i));
    }
    for (std::size_t i = 0; i < 3; ++i) {
        manager.clearHandlerWithFunction(SIGUSR1, numberedHandlers.at(i));
    }
    manager.handleSignal(SIGUSR1);
    raise(SIGUSR1);
    const auto* const table = tableOf(SIGUSR1);
    unsigned int notEmpty = 0;
    for (unsigned int i = 0; i <= table->mask; ++i) {
        notEmpty += table->table[i].state != Sorvane::svslotEmpty ? 1U : 0U;
    }
    EXPECT_EQ(table->fill, notEmpty);
}

template <void (*act)(int, SimpleHandler)>
void callThroughTheOnlyManager() {
    theOnlyManager = new Manager(false);
    handleActors<act>(*theOnlyManager);
    theOnlyManager->callHandlers(SIGUSR1, nullptr, nullptr);
}

void destroyTheOnlyManager(int, SimpleHandler) {
    delete theOnlyManager;
}

TEST_F(LiveWalk, HandlersAreCalledAlthoughTheLastManagerGoes) {
    callThroughTheOnlyManager<destroyTheOnlyManager>();
    EXPECT_EQ(Manager::handlerTables, nullptr);
    expectEachCalledOnce();
}

void replaceTheOnlyManager(int signalNumber, SimpleHandler) {
    delete theOnlyManager;
    nextManager = new Manager(false);
    nextManager->setHandlerFromFunction(signalNumber, userHandler);
}

void replaceTheOnlyManagerAndForbidTheHandlers(int signalNumber, SimpleHandler) {
    delete theOnlyManager;
    nextManager = new Manager(false);
    for (const SimpleHandler handler : present) {
        Record notToBeCalled(signalNumber, handler, false, false, false);
        nextManager->setHandler(notToBeCalled);
    }
}

// The new records stand in the same slots.
TEST_F(LiveWalk, HandlersAreCalledWhateverTheNextManagerSaysOfThem) {
    callThroughTheOnlyManager<replaceTheOnlyManagerAndForbidTheHandlers>();
    EXPECT_EQ(recordCount(SIGUSR1), actors);
    expectEachCalledOnce();
    delete nextManager;
}

TEST_F(LiveWalk, HandlersAreCalledAlthoughTheNextManagerBeginsWithoutThem) {
    callThroughTheOnlyManager<replaceTheOnlyManager>();
    EXPECT_EQ(functionsInSlotOrder(SIGUSR1), std::vector<void*>{addressOf(userHandler)});
    expectEachCalledOnce();
    EXPECT_EQ(callsOf(userHandler), 0U);
    delete nextManager;
}

}  // namespace
