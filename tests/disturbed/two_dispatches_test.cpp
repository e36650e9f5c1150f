// Two dispatches of a signal on two threads, while it is handed back: what the one puts back is not
// what the other, or a later hand-back, has decided meanwhile.

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>

#include "disturbed/limited_child.h"
#include "disturbed/stretched_sigaction.h"
#include "disturbed/waiting.h"
#include "support/joining_thread.h"
#include "support/observed_handlers.h"
#include "support/system_actions.h"

namespace {

using Manager = Sorvane::SVSignalHandlerManager;
using When = StretchedSigaction::When;

constexpr int theSignal = SIGUSR1;

void await(const std::atomic<bool>& moment) {
    waitUpTo(childPatience, [&moment] { return moment.load(); });
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

// --- A signal is handed back twice -------------------------------------------------------------

std::atomic<bool> dispatched;
std::atomic<bool> handsBackAgain;

void installBetweenTwoHandBacks() {
    bool first = true;
    const StretchedSigaction stretched(theSignal, When::before, [&first] {
        if (first) {
            first = false;
            dispatched = true;
            await(handsBackAgain);
        }
    });
    raise(theSignal);
}

TEST(TwoDispatches, OfWhichOneWasThereBeforeTheLastHandBackLeaveThatDone) {
    expectToGoOn([] {
        hostInstalls(theSignal, hostHandler);
        Manager locking(true);
        locking.handleSignal(theSignal);
        Sorvane::SVSignalHandler host(theSignal, hostHandler, true, true, true);
        JoiningThread other(installBetweenTwoHandBacks);
        await(dispatched);
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

}  // namespace
