// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Signals that come to the library although they have just been handed back: another dispatch has
// installed it again, and not yet looked whose the signal is. They go on to the host, once.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>

#include "disturbed/limited_child.h"
#include "disturbed/other_dispatch.h"
#include "disturbed/stretched_sigaction.h"
#include "support/system_actions.h"

namespace {

using Manager = Sorvane::SVSignalHandlerManager;
using When = StretchedSigaction::When;

constexpr int realTime = 40;

void (*const hosts)(int, siginfo*, void*) = OtherDispatch::hostsHandler;

// As the system would, or somebody who says so, to this thread.
void sendWithCode(int signalNumber, int code) {
    siginfo information = {};
    information.si_signo = signalNumber;
    information.si_code = code;
    ASSERT_EQ(
        syscall(SYS_rt_tgsigqueueinfo, getpid(), syscall(SYS_gettid), signalNumber, &information),
        0);
}

// Does something on this thread at the moment when the library is installed and the signal is the
// host's; then the other dispatch ends.
template <typename Act>
void whileTheLibraryIsInstalledLate(int signalNumber, Act act) {
    hostInstalls(signalNumber, hosts);
    Manager locking(true);
    locking.handleSignal(signalNumber);
    OtherDispatchAtItsInstallation other(signalNumber, When::after);
    locking.stopHandlingSignal(signalNumber);
    other.letCome();
    EXPECT_TRUE(takenOverQ(signalNumber)) << "the moment did not come";
    act();
    other.join();
}

void expectReceivedAndHandedBack(int signalNumber, unsigned int calls) {
    EXPECT_EQ(OtherDispatch::received(), calls);
    EXPECT_EQ(systemHandler(signalNumber), reinterpret_cast<void*>(hosts));
}

TEST(LateArrival, ReachesTheHostOnce) {
    expectToGoOn([] {
        whileTheLibraryIsInstalledLate(SIGUSR1, [] {
            raise(SIGUSR1);
            expectReceivedAndHandedBack(SIGUSR1, 1);
        });
        expectReceivedAndHandedBack(SIGUSR1, 1);
    });
}

// The thread that would put the host's action back is not there.
TEST(LateArrival, ReachesTheHostOnceAlsoInAForkedChildAndLeavesTheStopDone) {
    expectToGoOn([] {
        whileTheLibraryIsInstalledLate(SIGUSR1, [] {
            const ChildEnd end = inChild([] {
                for (unsigned int delivery = 1; delivery <= 2; ++delivery) {
                    raise(SIGUSR1);
                    expectReceivedAndHandedBack(SIGUSR1, delivery);
                }
            });
            EXPECT_TRUE(end.wentOnQ()) << end;
        });
        expectReceivedAndHandedBack(SIGUSR1, 0);
    });
}

TEST(LateArrival, LeavesWhatTheHostInstallsMeanwhile) {
    expectToGoOn([] {
        whileTheLibraryIsInstalledLate(SIGUSR1, [] {
            raise(SIGUSR1);
            hostInstalls(SIGUSR1, SIG_IGN);
        });
        EXPECT_TRUE(ignoredInSystemQ(SIGUSR1));
    });
}

TEST(LateArrival, OfAFaultThatWasSentReachesTheHostOnce) {
    expectToGoOn([] {
        whileTheLibraryIsInstalledLate(SIGSEGV, [] { raise(SIGSEGV); });
        expectReceivedAndHandedBack(SIGSEGV, 1);
    });
}

// The instruction runs again and brings it again; here there is none.
TEST(LateArrival, OfAFaultOfAnInstructionIsNotSentOn) {
    expectToGoOn([] {
        whileTheLibraryIsInstalledLate(SIGBUS, [] { sendWithCode(SIGBUS, BUS_ADRERR); });
        expectReceivedAndHandedBack(SIGBUS, 0);
    });
}

TEST(LateArrival, OfADefectOfMemoryThatNobodyTouchedReachesTheHostOnce) {
    expectToGoOn([] {
        whileTheLibraryIsInstalledLate(SIGBUS, [] { sendWithCode(SIGBUS, BUS_MCEERR_AO); });
        expectReceivedAndHandedBack(SIGBUS, 1);
    });
}

TEST(LateArrival, ReachesTheHostOnceAlsoIfTheQueueIsFull) {
    expectToGoOn([] {
        whileTheLibraryIsInstalledLate(realTime, [] {
            const StretchedSigaction fullBeforeItIsSentOn(realTime, When::before, [] {
                const rlimit none = {0, 0};
                setrlimit(RLIMIT_SIGPENDING, &none);
            });
            raise(realTime);
            expectReceivedAndHandedBack(realTime, 1);
        });
        expectReceivedAndHandedBack(realTime, 1);
    });
}

// --- The library called by hand ----------------------------------------------------------------

unsigned int chained = 0;

void chains(int signalNumber, siginfo* information, void* context) {
    ++chained;
    actualSignalHandler(signalNumber, information, context);
}

unsigned int dispatched = 0;

void countDispatch(int) {
    ++dispatched;
}

// It can't be told from a late arrival at first.
TEST(HandlerOfTheHostsThatCallsTheLibraryByHand, HasItsCallDispatchedAfterOneMoreDelivery) {
    expectToGoOn([] {
        hostInstalls(SIGUSR1, chains);
        Manager locking(true);
        locking.handleSignal(SIGUSR1);
        locking.stopHandlingSignal(SIGUSR1);
        Sorvane::SVSignalHandler host(SIGUSR1, chains, true, true, true);
        locking.clearHandler(host);
        hostInstalls(SIGUSR1, chains);
        locking.setHandlerFromFunction(SIGUSR1, countDispatch);
        raise(SIGUSR1);
        EXPECT_EQ(chained, 2U);
        EXPECT_EQ(dispatched, 1U);
    });
}

}  // namespace
