// A dispatch of a signal on another thread, while the signal changes hands: what its end installs
// and puts back is not what has been decided meanwhile.

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>

#include "disturbed/limited_child.h"
#include "disturbed/other_dispatch.h"
#include "disturbed/stretched_sigaction.h"
#include "disturbed/waiting.h"
#include "support/joining_thread.h"
#include "support/observed_handlers.h"
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

TEST(DispatchBesideHandBacks, LeavesTheLastOneDoneIfItWasThereBefore) {
    expectToGoOn([] {
        hostInstalls(theSignal, hosts);
        Manager locking(true);
        locking.handleSignal(theSignal);
        Record host(theSignal, hosts, true, true, true);
        std::atomic<bool> aboutToInstall{false};
        std::atomic<bool> handsBackAgain{false};
        OtherDispatch other(theSignal, When::before, [&](unsigned int installations) {
            if (installations == 1) {
                aboutToInstall = true;
                await(handsBackAgain);
            }
        });
        OtherDispatch::letGo();
        await(aboutToInstall);
        unsigned int installations = 0;
        bool moment = false;
        {
            const StretchedSigaction stretched(theSignal, When::before, [&] {
                if (++installations == 2) {
                    handsBackAgain = true;
                    moment = waitUpTo(childPatience, [] { return takenOverQ(theSignal); });
                }
            });
            locking.clearHandler(host);
            locking.stopHandlingSignal(theSignal);
        }
        other.join();
        EXPECT_TRUE(moment) << "the moment did not come";
        EXPECT_TRUE(ignoredInSystemQ(theSignal)) << "nobody had the signal any more";
    });
}

TEST(DispatchBesideHandBacks, PutsBackWhatTheHostHasInstalledSince) {
    expectToGoOn([] {
        hostInstalls(theSignal, hosts);
        Manager locking(true);
        locking.handleSignal(theSignal);
        bool installed = false;
        OtherDispatch other(theSignal, When::after, [&installed](unsigned int) {
            installed = installed || takenOverQ(theSignal);
        });
        locking.stopHandlingSignal(theSignal);
        hostInstalls(theSignal, otherHostHandler);
        other.join();
        EXPECT_TRUE(installed) << "the moment did not come";
        EXPECT_TRUE(hasQ(addressOf(otherHostHandler)));
    });
}

TEST(DispatchBesideHandBacks, LeavesWhatTheHostInstallsJustBeforeItPutsBack) {
    expectToGoOn([] {
        hostInstalls(theSignal, hosts);
        Manager locking(true);
        locking.handleSignal(theSignal);
        OtherDispatch other(theSignal, When::before, [](unsigned int installations) {
            if (installations == 2) {
                hostInstalls(theSignal, otherHostHandler);
            }
        });
        locking.stopHandlingSignal(theSignal);
        other.join();
        EXPECT_TRUE(hasQ(addressOf(otherHostHandler)));
    });
}

// --- A take-over between a dispatch's installation and its last look ---------------------------

TEST(TakeOverBesideADispatch, TakesWhatTheSignalWasHandedBackToForTheHosts) {
    expectToGoOn([] {
        hostInstalls(theSignal, hosts);
        Manager locking(true);
        locking.handleSignal(theSignal);
        Record host(theSignal, hosts, true, true, true);
        std::atomic<bool> installed{false};
        std::atomic<bool> takenOver{false};
        OtherDispatch other(theSignal, When::after, [&](unsigned int installations) {
            if (installations == 1) {
                installed = true;
                await(takenOver);
            }
        });
        locking.clearHandler(host);
        OtherDispatch::letGo();
        await(installed);
        locking.handleSignal(theSignal);
        takenOver = true;
        other.join();
        EXPECT_TRUE(takenOverQ(theSignal));
        locking.stopHandlingSignal(theSignal);
        EXPECT_TRUE(hasQ(addressOf(hosts)));
    });
}

TEST(TakeOverBesideADispatch, KeepsWhatTheHostHasInstalledSinceTheHandBack) {
    expectToGoOn([] {
        hostInstalls(theSignal, hosts);
        Manager locking(true);
        locking.handleSignal(theSignal);
        std::atomic<bool> installed{false};
        std::atomic<bool> takenOver{false};
        OtherDispatch other(theSignal, When::after, [&](unsigned int installations) {
            if (installations == 1) {
                installed = true;
                await(takenOver);
            }
        });
        locking.stopHandlingSignal(theSignal);
        hostInstalls(theSignal, otherHostHandler);
        OtherDispatch::letGo();
        await(installed);
        locking.handleSignal(theSignal);
        takenOver = true;
        other.join();
        raise(theSignal);
        EXPECT_EQ(callsOf(otherHostHandler), 1U) << "it is on record";
    });
}

// The dispatch has read the count before the signal was handed back, and displaces what the host
// had before the take-over does.
TEST(TakeOverBesideADispatch, DoesNotKeepAgainWhatWasClearedBefore) {
    expectToGoOn([] {
        hostInstalls(theSignal, hosts);
        Manager locking(true);
        locking.handleSignal(theSignal);
        Record host(theSignal, hosts, true, true, true);
        std::atomic<bool> aboutToInstall{false};
        std::atomic<bool> takesOver{false};
        OtherDispatch other(theSignal, When::before, [&](unsigned int installations) {
            if (installations == 1) {
                aboutToInstall = true;
                await(takesOver);
            }
        });
        OtherDispatch::letGo();
        await(aboutToInstall);
        locking.clearHandler(host);
        hostInstalls(theSignal, SIG_DFL);
        bool moment = false;
        {
            const StretchedSigaction stretched(theSignal, When::before, [&] {
                hostInstalls(theSignal, hosts);
                takesOver = true;
                moment = waitUpTo(childPatience, [] { return takenOverQ(theSignal); });
            });
            locking.handleSignal(theSignal);
        }
        other.join();
        EXPECT_TRUE(moment) << "the moment did not come";
        EXPECT_TRUE(takenOverQ(theSignal));
        EXPECT_FALSE(locking.hasPreexistingOrExternalHandlerQ(theSignal));
    });
}

}  // namespace
