// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A dispatch of a signal on another thread, while the signal changes hands: what its end installs
// and puts back is not what has been decided meanwhile.

#include <../registry/svownership.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <vector>

#include "disturbed/limited_child.h"
#include "disturbed/other_dispatch.h"
#include "disturbed/stretched_sigaction.h"
#include "disturbed/waiting.h"
#include "support/gate_waiter.h"
#include "support/joining_thread.h"
#include "support/observed_handlers.h"
#include "support/shared_state.h"
#include "support/system_actions.h"

namespace {

using Manager = Sorvane::SVSignalHandlerManager;
using Record = Sorvane::SVSignalHandler;
using When = StretchedSigaction::When;

constexpr int theSignal = SIGUSR1;

void (*const hosts)(int, siginfo*, void*) = OtherDispatch::hostsHandler;

bool hasQ(void* handler) {
    return systemHandler(theSignal) == handler;
}

// --- A handler hands its own signal back -------------------------------------------------------

Manager* manager;
std::atomic<bool> otherDispatches;
std::atomic<bool> handedBack;
std::atomic<bool> otherPutsBack;
std::atomic<bool> installedAgain;
std::atomic<pthread_t> handingBack;

void handsBackOnOneThread(int) {
    if (!pthread_equal(pthread_self(), handingBack)) {
        otherDispatches = true;
        return;
    }
    await(otherDispatches);
    manager->stopHandlingSignal(theSignal);
    handedBack = true;
    await(otherPutsBack);
}

// The other dispatch is about to install the library when the signal is handed back, and puts the
// host's action back just after the dispatch that handed it back has installed the library.
void dispatchBeside() {
    unsigned int installations = 0;
    const StretchedSigaction stretched(theSignal, When::before, [&installations] {
        if (++installations == 1) {
            await(handedBack);
        } else {
            otherPutsBack = true;
            await(installedAgain);
        }
    });
    raise(theSignal);
}

TEST(TwoDispatches, OfWhichOneHandedBackInItsHandlerLeaveTheSignalTakenOver) {
    expectToGoOn([] {
        hostInstalls(theSignal, hostHandler);
        Manager locking(true);
        manager = &locking;
        locking.setHandlerFromFunction(theSignal, handsBackOnOneThread);
        locking.handleSignal(theSignal);
        handingBack = pthread_self();
        JoiningThread other(dispatchBeside);
        {
            unsigned int installations = 0;
            const StretchedSigaction stretched(theSignal, When::after, [&installations] {
                installedAgain = ++installations == 2;
            });
            raise(theSignal);
        }
        other.join();
        EXPECT_TRUE(otherPutsBack) << "the moment did not come";
        EXPECT_TRUE(takenOverQ(theSignal));
    });
}

// --- What a dispatch has displaced -------------------------------------------------------------

// The signal, which the library has and the host had.
class TakenOver {
public:
    TakenOver() {
        hostInstalls(theSignal, hosts);
        takeOver();
    }

    void takeOver() { manager.handleSignal(theSignal); }
    void stop() { manager.stopHandlingSignal(theSignal); }
    void clearHost() {
        Record host(theSignal, hosts, true, true, true);
        manager.clearHandler(host);
    }

    Manager manager{true};
};

// It must be said before the host's action is installed.
TEST(DispatchBesideHandBacks, DoesNotTakeBackWhatTheHostHasJustGot) {
    expectToGoOn([] {
        TakenOver signal;
        OtherDispatch other(theSignal, When::after, [](unsigned int) {});
        bool moment = false;
        {
            const StretchedSigaction stretched(theSignal, When::after, [&] {
                OtherDispatch::letGo();
                moment = waitUpTo(childPatience, [&other] {
                    return other.doneQ() || (gateWord() & FUTEX_WAITERS) != 0;
                });
            });
            signal.stop();
        }
        other.join();
        EXPECT_TRUE(moment) << "the moment did not come";
        EXPECT_TRUE(hasQ(addressOf(hosts)));
    });
}

TEST(DispatchBesideHandBacks, LeavesTheLastOneDoneIfItWasThereBefore) {
    expectToGoOn([] {
        TakenOver signal;
        OtherDispatchAtItsInstallation other(theSignal, When::before);
        other.letCome();
        unsigned int installations = 0;
        bool moment = false;
        {
            const StretchedSigaction stretched(theSignal, When::before, [&] {
                if (++installations == 2) {
                    other.letGoOn();
                    moment = waitUpTo(childPatience, [] { return takenOverQ(theSignal); });
                }
            });
            signal.clearHost();
            signal.stop();
        }
        other.join();
        EXPECT_TRUE(moment) << "the moment did not come";
        EXPECT_TRUE(ignoredInSystemQ(theSignal)) << "nobody had the signal any more";
    });
}

// It reads the count in the middle of the last one, and displaces what the one before installed.
TEST(DispatchBesideHandBacks, LeavesTheLastOneDoneIfItEndsInItsMidst) {
    expectToGoOn([] {
        TakenOver signal;
        signal.stop();
        hostInstalls(theSignal, otherHostHandler);
        signal.takeOver();
        const std::vector<void*> restored = functionsInSlotOrder(theSignal);
        ASSERT_EQ(restored.size(), 2U);
        OtherDispatch other(theSignal, When::after, [](unsigned int) {});
        unsigned int installations = 0;
        bool moment = false;
        {
            const StretchedSigaction stretched(theSignal, When::before, [&] {
                if (++installations == 2) {
                    OtherDispatch::letGo();
                    moment = waitUpTo(childPatience, [] { return takenOverQ(theSignal); });
                }
            });
            signal.manager.restorePreviouslyExistingHandlers();
        }
        other.join();
        EXPECT_TRUE(moment) << "the moment did not come";
        EXPECT_TRUE(hasQ(restored.back()));
    });
}

TEST(DispatchBesideHandBacks, PutsBackWhatTheHostHasInstalledSince) {
    expectToGoOn([] {
        TakenOver signal;
        bool installed = false;
        OtherDispatch other(theSignal, When::after, [&installed](unsigned int) {
            installed = installed || takenOverQ(theSignal);
        });
        signal.stop();
        hostInstalls(theSignal, otherHostHandler);
        other.join();
        EXPECT_TRUE(installed) << "the moment did not come";
        EXPECT_TRUE(hasQ(addressOf(otherHostHandler)));
    });
}

TEST(DispatchBesideHandBacks, LeavesWhatTheHostInstallsJustBeforeItPutsBack) {
    expectToGoOn([] {
        TakenOver signal;
        OtherDispatch other(theSignal, When::before, [](unsigned int installations) {
            if (installations == 2) {
                hostInstalls(theSignal, otherHostHandler);
            }
        });
        signal.stop();
        other.join();
        EXPECT_TRUE(hasQ(addressOf(otherHostHandler)));
    });
}

// --- A take-over between a dispatch's installation and its last look ---------------------------

TEST(TakeOverBesideADispatch, TakesWhatTheSignalWasHandedBackToForTheHosts) {
    expectToGoOn([] {
        TakenOver signal;
        OtherDispatchAtItsInstallation other(theSignal, When::after);
        signal.clearHost();
        other.letCome();
        signal.takeOver();
        EXPECT_TRUE(signal.manager.hasPreexistingOrExternalHandlerQ(theSignal)) << "at once";
        other.join();
        EXPECT_TRUE(takenOverQ(theSignal));
        signal.stop();
        EXPECT_TRUE(hasQ(addressOf(hosts)));
    });
}

// There is no dispatch, so it is what the host has now.
TEST(TakeOverOfTheLibraryInstalledByHand, KeepsNothingThatTheHostHadBefore) {
    expectToGoOn([] {
        TakenOver signal;
        signal.clearHost();
        hostInstalls(theSignal, actualSignalHandler);
        signal.takeOver();
        EXPECT_TRUE(takenOverQ(theSignal));
        EXPECT_FALSE(signal.manager.hasPreexistingOrExternalHandlerQ(theSignal));
    });
}

// It hides nothing then.
TEST(TakeOverBesideADispatch, OfASignalThatTheLibraryHasKeepsNothingThatTheHostHadBefore) {
    expectToGoOn([] {
        TakenOver signal;
        signal.clearHost();
        hostInstalls(theSignal, SIG_DFL);
        signal.takeOver();
        const Sorvane::SVOwnership::Unsettled byAnotherDispatch(theSignal);
        signal.takeOver();
        EXPECT_FALSE(signal.manager.hasPreexistingOrExternalHandlerQ(theSignal));
    });
}

TEST(TakeOverBesideADispatch, KeepsWhatTheHostHasInstalledSinceTheHandBack) {
    expectToGoOn([] {
        TakenOver signal;
        OtherDispatchAtItsInstallation other(theSignal, When::after);
        signal.stop();
        hostInstalls(theSignal, otherHostHandler);
        other.letCome();
        signal.takeOver();
        other.join();
        raise(theSignal);
        EXPECT_EQ(callsOf(otherHostHandler), 1U) << "it is on record";
    });
}

// The dispatch has read the count before the signal was handed back, and displaces what the host
// had before the take-over does.
TEST(TakeOverBesideADispatch, DoesNotKeepAgainWhatWasClearedBefore) {
    expectToGoOn([] {
        TakenOver signal;
        OtherDispatchAtItsInstallation other(theSignal, When::before);
        other.letCome();
        signal.clearHost();
        hostInstalls(theSignal, SIG_DFL);
        bool moment = false;
        {
            const StretchedSigaction stretched(theSignal, When::before, [&] {
                hostInstalls(theSignal, hosts);
                other.letGoOn();
                moment = waitUpTo(childPatience, [] { return takenOverQ(theSignal); });
            });
            signal.takeOver();
        }
        other.join();
        EXPECT_TRUE(moment) << "the moment did not come";
        EXPECT_TRUE(takenOverQ(theSignal));
        EXPECT_FALSE(signal.manager.hasPreexistingOrExternalHandlerQ(theSignal));
    });
}

}  // namespace
