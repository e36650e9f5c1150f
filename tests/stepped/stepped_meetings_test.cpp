// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Two operations that meet: one thread stands between two instructions of the one, and meanwhile
// the other one is done, as far as it gets: by another thread, or by a handler on the same one.
// Each meeting has a process of its own.

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <optional>

#include "stepped/other_thread.h"
#include "stepped/places.h"
#include "stepped/report.h"
#include "support/child_process.h"
#include "support/gate_waiter.h"
#include "support/observed_handlers.h"
#include "support/shared_state.h"
#include "support/stepping.h"
#include "support/system_actions.h"

namespace {

// --- The means

struct Meeting {
    std::function<void()> prepare;
    std::function<void()> operation;
    std::function<void()> meanwhile;
    std::function<void()> expect;  ///< of the state after both
};

const Meeting* meeting;
OtherThread other;
Selection selection;

void doTheOther(std::size_t) {
    meeting->meanwhile();
}

void doTheOtherInAHandler(int) {
    meeting->meanwhile();
}

void doOnAnotherThread() {
    other.begin();
    other.tell(doTheOther, 0);
    other.waitUntilDoneOrAsleep();
}

void doInAHandler() {
    hostInstalls(SIGURG, doTheOtherInAHandler);
    raise(SIGURG);
}

// Inside the gate all places are alike for whoever waits for it.
bool selectedQ(const Standing& standing) {
    static unsigned long inside = 0;
    constexpr unsigned long distance = 16;
    return selection.selectsQ(standing) && forksQ(standing) &&
           (!gateClosedQ() || everyInstructionQ() || ++inside % distance == 0);
}

// Runs an operation, and the other one in a child at each place. False in such a child.
bool stepThrough(void (*doTheOtherOne)(), bool insideTheGate) {
    bool disturbed = false;
    step(meeting->operation, [&](const Standing& standing) {
        ++report().instructions;
        if (!selectedQ(standing) || (gateClosedQ() && !insideTheGate)) {
            return true;
        }
        ++report().visited;
        disturbed = goOnInChild(standing.next);
        if (disturbed) {
            doTheOtherOne();
        }
        return !disturbed;
    });
    return !disturbed;
}

void runMeetings(void (*doTheOtherOne)(), bool insideTheGate) {
    { const Manager preparesForFork(true); }
    meeting->prepare();
    if (stepThrough(doTheOtherOne, insideTheGate)) {
        meeting->meanwhile();
    }
    other.waitUntilDone();
    meeting->expect();
}

void meetOnAnotherThread(const Meeting& given) {
    SKIP_WITHOUT_STEPS();
    meeting = &given;
    clearReport();
    runInChild([] { runMeetings(doOnAnotherThread, true); });
    expectNothingWrong("meetings of threads");
}

// What does the other one must not lock.
void meetOnBoth(const Meeting& given) {
    meetOnAnotherThread(given);
    clearReport();
    runInChild([] { runMeetings(doInAHandler, false); });
    expectNothingWrong("meetings with a handler");
}

// --- Who takes part: none of the managers lies in the heap, which both threads would use.

std::optional<Manager> manager;
std::optional<Manager> otherManager;

void handleSignalsOfHosts(bool locking) {
    hostInstalls(SIGUSR1, hostHandler);
    hostInstalls(SIGINT, otherHostHandler);
    manager.emplace(locking);
    manager->setHandlerFromFunction(SIGUSR1, userHandler);
    manager->startHandlingSignals();
}

void prepareHandling() {
    handleSignalsOfHosts(true);
}

void prepareStopped() {
    handleSignalsOfHosts(true);
    manager->setHandlerFromFunction(SIGINT, otherUserHandler);
    manager->stopHandlingSignals();
}

void destroy() {
    manager.reset();
}

void registerForInterrupt() {
    Manager(false).setHandlerFromFunction(SIGINT, otherUserHandler);
}

void registerOther() {
    Manager(false).setHandlerFromFunction(SIGUSR1, otherUserHandler);
}

void expectBothRegistered() {
    EXPECT_NE(recordOf(SIGUSR1, userHandler), nullptr);
    EXPECT_NE(recordOf(SIGUSR1, otherUserHandler), nullptr);
    EXPECT_NE(recordOf(SIGUSR1, hostHandler), nullptr);
    EXPECT_EQ(recordCount(SIGUSR1), 3U);
    EXPECT_EQ(Manager::numberOfManagers, 1U);
}

// --- Registration and clearing

TEST(MeetingOfARegistration, AnotherOneForTheSameSignalIsThereToo) {
    meetOnBoth({.prepare =
                    [] {
                        hostInstalls(SIGUSR1, hostHandler);
                        manager.emplace(true);
                        manager->handleSignal(SIGUSR1);
                    },
                .operation = [] { manager->setHandlerFromFunction(SIGUSR1, userHandler); },
                .meanwhile = registerOther,
                .expect = expectBothRegistered});
}

TEST(MeetingOfARegistration, TheSameOneIsThereOnce) {
    meetOnBoth({.prepare = prepareHandling,
                .operation = [] { manager->setHandlerFromFunction(SIGUSR1, otherUserHandler); },
                .meanwhile = registerOther,
                .expect = expectBothRegistered});
}

TEST(MeetingOfARegistration, AStopGivesTheHostItsSignals) {
    meetOnBoth({.prepare = prepareHandling,
                .operation = [] { manager->setHandlerFromFunction(SIGUSR1, otherUserHandler); },
                .meanwhile = [] { Manager(false).stopHandlingSignals(); },
                .expect = [] { EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler)); }});
}

TEST(MeetingOfARegistration, AStartTakesItsSignalOver) {
    meetOnBoth({.prepare =
                    [] {
                        handleSignalsOfHosts(true);
                        manager->stopHandlingSignals();
                    },
                .operation = [] { manager->setHandlerFromFunction(SIGINT, otherUserHandler); },
                .meanwhile = [] { Manager(false).startHandlingSignals(); },
                .expect = [] { EXPECT_TRUE(takenOverQ(SIGINT)); }});
}

TEST(MeetingOfAClearing, ARegistrationIsNotCutOff) {
    meetOnBoth({.prepare =
                    [] {
                        hostInstalls(SIGUSR1, hostHandler);
                        manager.emplace(true);
                        manager->handleSignal(SIGUSR1);
                        manager->startHandlingSignals();
                    },
                .operation =
                    [] {
                        Record record = hostRecord(SIGUSR1, hostHandler);
                        manager->clearHandler(record);
                    },
                .meanwhile = registerOther,
                .expect =
                    [] {
                        EXPECT_TRUE(takenOverQ(SIGUSR1));
                        EXPECT_NE(recordOf(SIGUSR1, otherUserHandler), nullptr);
                        EXPECT_EQ(recordOf(SIGUSR1, hostHandler), nullptr);
                    }});
}

// --- Taking over and handing back

// Either the signal is handed back before it is taken over, and then it is the library's; or after
// that, and then the host's.
TEST(MeetingOfAHandBack, ATakeOverLeavesTheSignalToOneOfTheTwo) {
    meetOnBoth({.prepare =
                    [] {
                        hostInstalls(SIGUSR1, hostHandler);
                        manager.emplace(true);
                        manager->setHandlerFromFunction(SIGUSR1, userHandler);
                    },
                .operation = [] { manager->stopHandlingSignal(SIGUSR1); },
                .meanwhile = [] { Manager(false).handleSignal(SIGUSR1); },
                .expect =
                    [] {
                        const bool kept = recordOf(SIGUSR1, hostHandler) != nullptr;
                        EXPECT_TRUE(takenOverQ(SIGUSR1) ||
                                    (kept && systemHandler(SIGUSR1) == addressOf(hostHandler)));
                    }});
}

TEST(MeetingOfAStart, ARegistrationIsTakenOver) {
    meetOnBoth({.prepare =
                    [] {
                        handleSignalsOfHosts(true);
                        manager->stopHandlingSignals();
                    },
                .operation = [] { manager->startHandlingSignals(); },
                .meanwhile = registerForInterrupt,
                .expect =
                    [] {
                        EXPECT_TRUE(Manager::currentlyHandlingSignals);
                        EXPECT_TRUE(takenOverQ(SIGINT));
                        EXPECT_TRUE(takenOverQ(SIGUSR1));
                    }});
}

TEST(MeetingOfAStart, AStartAndAStopLeaveTheSignalsAsTheFlagSays) {
    meetOnBoth({.prepare = prepareStopped,
                .operation = [] { manager->startHandlingSignals(); },
                .meanwhile =
                    [] {
                        Manager inner(false);
                        inner.startHandlingSignals();
                        inner.stopHandlingSignals();
                    },
                .expect =
                    [] {
                        const bool handling = Manager::currentlyHandlingSignals;
                        EXPECT_EQ(takenOverQ(SIGINT), handling);
                        EXPECT_EQ(takenOverQ(SIGUSR1), handling);
                    }});
}

TEST(MeetingOfAStop, ARegistrationLeavesNothingTakenOver) {
    meetOnBoth({.prepare = prepareHandling,
                .operation = [] { manager->stopHandlingSignals(); },
                .meanwhile = registerForInterrupt,
                .expect =
                    [] {
                        EXPECT_FALSE(Manager::currentlyHandlingSignals);
                        EXPECT_FALSE(takenOverQ(SIGINT));
                        EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
                    }});
}

// --- The first manager and the last one

TEST(MeetingOfTheFirstManager, AnAnswerOfAnotherOneCounts) {
    meetOnBoth({.prepare = [] {},
                .operation = [] { manager.emplace(true); },
                .meanwhile =
                    [] {
                        otherManager.emplace(false);
                        otherManager->setSignalDisposition(SIGINT, false);
                    },
                .expect =
                    [] {
                        EXPECT_FALSE(mayHandleQ(SIGINT));
                        EXPECT_EQ(Manager::numberOfManagers, 2U);
                    }});
}

TEST(MeetingOfTheLastManager, AnotherOneTakesOver) {
    meetOnBoth({.prepare = prepareHandling,
                .operation = destroy,
                .meanwhile =
                    [] {
                        otherManager.emplace(false);
                        otherManager->setHandlerFromFunction(SIGUSR1, otherUserHandler);
                        otherManager->handleSignal(SIGUSR1);
                        otherManager->startHandlingSignals();
                    },
                .expect =
                    [] {
                        EXPECT_EQ(Manager::numberOfManagers, 1U);
                        forgetCalls();
                        raise(SIGUSR1);
                        EXPECT_EQ(callsOf(hostHandler), 1U);
                        EXPECT_EQ(callsOf(otherUserHandler), 1U);
                        otherManager.reset();
                        EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
                    }});
}

// No handler can come there, so the other meetings leave these places out.
TEST(MeetingOfTheLastManager, AnotherOneThatComesJustAfterItsEndWasCountedKeepsTheSignal) {
    SKIP_WITHOUT_STEPS();
    const Meeting justAfter = {.prepare = prepareHandling,
                               .operation = destroy,
                               .meanwhile = [] { otherManager.emplace(false); },
                               .expect =
                                   [] {
                                       EXPECT_EQ(Manager::numberOfManagers, 1U);
                                       EXPECT_TRUE(Manager::currentlyHandlingSignals);
                                       EXPECT_TRUE(takenOverQ(SIGUSR1));
                                   }};
    meeting = &justAfter;
    constexpr int noSuchPlace = 77;
    const unsigned int places = atEachInstruction([](unsigned int wanted) {
        const ChildEnd end = inChild([wanted] {
            bool met = false;
            unsigned int place = 0;
            meeting->prepare();
            step(meeting->operation, [&](const Standing& standing) {
                if (!met && Manager::numberOfManagers == 0 && gateWord() == 0 &&
                    Manager::currentlyHandlingSignals && beginsThreadsQ(standing) &&
                    place++ == wanted) {
                    met = true;
                    doOnAnotherThread();
                }
                return true;
            });
            other.waitUntilDone();
            if (!met) {
                _exit(noSuchPlace);
            }
            meeting->expect();
        });
        const bool met = !end.exitedWithQ(noSuchPlace);
        EXPECT_TRUE(!met || end.wentOnQ()) << end;
        return met;
    });
    EXPECT_GT(places, 1U);
}

TEST(MeetingOfTheLastManager, AnotherOneComesAndGoesAndTheHostInstallsAnother) {
    meetOnBoth({.prepare = prepareHandling,
                .operation = destroy,
                .meanwhile =
                    [] {
                        otherManager.emplace(false);
                        otherManager->startHandlingSignals();
                        otherManager.reset();
                        if (systemHandler(SIGUSR1) == addressOf(hostHandler)) {
                            hostInstalls(SIGUSR1, otherHostHandler);
                        }
                    },
                .expect =
                    [] {
                        EXPECT_FALSE(takenOverQ(SIGUSR1));
                        EXPECT_EQ(Manager::numberOfManagers, 0U);
                        forgetCalls();
                        raise(SIGUSR1);
                        EXPECT_EQ(callCount(), 1U);
                    }});
}

// The very answer that the manager that goes had given, too.
TEST(MeetingOfTheLastManager, AnAnswerOfAnotherOneCounts) {
    meetOnBoth({.prepare =
                    [] {
                        prepareHandling();
                        manager->setSignalDisposition(SIGINT, false);
                        manager->setSignalDisposition(SIGQUIT, false);
                    },
                .operation = destroy,
                .meanwhile =
                    [] {
                        otherManager.emplace(false);
                        otherManager->setSignalDisposition(SIGINT, false);
                    },
                .expect = [] { EXPECT_FALSE(mayHandleQ(SIGINT)); }});
}

// --- A dispatch

unsigned int callsInThisProcess = 0;

void countCall(int) {
    ++callsInThisProcess;
}

void prepareHandlingOfNobodysSignal() {
    manager.emplace(false);
    manager->setHandlerFromFunction(SIGUSR1, countCall);
    manager->startHandlingSignals();
}

void dispatchByHand() {
    actualSignalHandler(SIGUSR1, nullptr, nullptr);
}

// It comes before the end, and calls what is there and takes that down at last; or after it, and
// has made the state afresh.
void expectTheStateOfOneOfTheTwo() {
    EXPECT_EQ(Manager::numberOfManagers, 0U);
    EXPECT_FALSE(Manager::currentlyHandlingSignals);
    EXPECT_EQ(callsInThisProcess, Manager::handlerTables == nullptr ? 1U : 0U);
}

TEST(MeetingOfADispatch, NothingIsTakenDownUnderIt) {
    meetOnBoth({.prepare = prepareHandlingOfNobodysSignal,
                .operation = dispatchByHand,
                .meanwhile = destroy,
                .expect = expectTheStateOfOneOfTheTwo});
}

TEST(MeetingOfTheLastManager, ADispatchComesBeforeItsEndOrAfterIt) {
    meetOnBoth({.prepare = prepareHandlingOfNobodysSignal,
                .operation = destroy,
                .meanwhile = dispatchByHand,
                .expect = expectTheStateOfOneOfTheTwo});
}

// --- The lock

bool lockFreeQ() {
    Sorvane::SVMutexHandle* const handle = Manager::handlerTableLock;
    const bool free = handle != nullptr && handle->tryLock();
    if (free) {
        handle->unlock();
    }
    return free;
}

TEST(MeetingOfTheLastManager, TheLockGoesWithTheLastOfTwoThatGoAtOnce) {
    meetOnAnotherThread({.prepare =
                             [] {
                                 manager.emplace(true);
                                 otherManager.emplace(true);
                             },
                         .operation = destroy,
                         .meanwhile = [] { otherManager.reset(); },
                         .expect = [] { EXPECT_EQ(Manager::handlerTableLock, nullptr); }});
}

TEST(MeetingOfTheLastManager, TheLockIsThereForAnotherOneThatComes) {
    meetOnAnotherThread({.prepare = [] { manager.emplace(true); },
                         .operation = destroy,
                         .meanwhile = [] { otherManager.emplace(true); },
                         .expect =
                             [] {
                                 EXPECT_TRUE(lockFreeQ());
                                 otherManager.reset();
                                 EXPECT_EQ(Manager::handlerTableLock, nullptr);
                             }});
}

}  // namespace
