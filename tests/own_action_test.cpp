// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The library's own action: what it has of the action that the host had.

#include <../utilities/svownaction.h>
#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>

#include "support/child_process.h"
#include "support/emulation.h"
#include "support/manager_fixture.h"
#include "support/sanitizers.h"
#include "support/thread_state.h"

namespace {

constexpr int theSignal = SIGUSR1;
constexpr int always = SA_SIGINFO | SA_ONSTACK;

struct sigaction actionWith(void (*handler)(int), int flags,
                            std::initializer_list<int> heldBack = {}) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    action.sa_mask = setOf(heldBack);
    return action;
}

void hostInstallsWith(int signalNumber, void (*handler)(int), int flags,
                      std::initializer_list<int> heldBack = {}) {
    const struct sigaction action = actionWith(handler, flags, heldBack);
    ASSERT_EQ(sigaction(signalNumber, &action, nullptr), 0);
}

std::uint64_t heldBackBy(const struct sigaction& action) {
    std::uint64_t signals = 0;
    for (int signalNumber = 1; signalNumber <= lastSystemSignal; ++signalNumber) {
        if (sigismember(&action.sa_mask, signalNumber) == 1) {
            signals |= heldBackBit(signalNumber);
        }
    }
    return signals;
}

class OwnAction : public OneManagerTest {
protected:
    ~OwnAction() noexcept override = default;

    // What the system has for the signal is the library's, with this.
    static void expectOwn(int flags, std::initializer_list<int> heldBack = {},
                          int signalNumber = theSignal) {
        constexpr int restorer = 0x04000000;
        const struct sigaction action = systemAction(signalNumber);
        std::uint64_t expected = 0;
        for (const int held : heldBack) {
            expected |= heldBackBit(held);
        }
        EXPECT_TRUE(takenOverQ(signalNumber));
        EXPECT_EQ(action.sa_flags & ~restorer, always | flags);
        EXPECT_EQ(heldBackBy(action), expected);
    }
};

// --- What is followed ----------------------------------------------------------------------------

TEST_F(OwnAction, WithoutAHostsHandlerHoldsNothingBackAndRestartsSystemCalls) {
    for (auto* const nobodys : {SIG_DFL, SIG_IGN}) {
        hostInstallsWith(theSignal, nobodys, SA_NODEFER, {SIGUSR2});
        m_manager.handleSignal(theSignal);
        expectOwn(SA_RESTART);
        m_manager.stopHandlingSignal(theSignal);
    }
}

TEST_F(OwnAction, HasTheMaskAndTheFlagsOfTheHosts) {
    for (const int flags : {0, SA_RESTART, SA_NODEFER, SA_NOCLDSTOP, SA_NOCLDWAIT,
                            SA_RESTART | SA_NODEFER | SA_NOCLDSTOP | SA_NOCLDWAIT}) {
        hostInstallsWith(theSignal, hostHandler, flags, {SIGUSR2, SIGALRM, 60});
        m_manager.handleSignal(theSignal);
        expectOwn(flags, {SIGUSR2, SIGALRM, 60});
        m_manager.stopHandlingSignal(theSignal);
    }
}

TEST_F(OwnAction, TakesNoOneShotHandlersPlaceForOneShot) {
    hostInstallsWith(theSignal, hostHandler, static_cast<int>(SA_RESETHAND));
    m_manager.handleSignal(theSignal);
    expectOwn(0);
    for (int delivery = 0; delivery < 3; ++delivery) {
        raise(theSignal);
    }
    EXPECT_EQ(callsOf(hostHandler), 3U);
}

TEST_F(OwnAction, IsWhatTheRecordOperationTells) {
    Record own = m_manager.theSVHandler(theSignal);
    EXPECT_EQ(own.getOSStruct().sa_flags, always | SA_RESTART);
    hostInstallsWith(theSignal, hostHandler, SA_NODEFER, {SIGUSR2});
    m_manager.handleSignal(theSignal);
    own = m_manager.theSVHandler(theSignal);
    EXPECT_EQ(own.getOSStruct().sa_flags, always | SA_NODEFER);
    EXPECT_EQ(heldBackBy(own.getOSStruct()), heldBackBit(SIGUSR2));
}

TEST_F(OwnAction, OfASignalThatDoesNotExistIsThatOfOneThatNobodyHad) {
    for (const int signalNumber : {-1, 0, 65, 1000}) {
        Record own = m_manager.theSVHandler(signalNumber);
        EXPECT_EQ(own.getOSStruct().sa_flags, always | SA_RESTART) << signalNumber;
    }
}

// --- Several handlers of the host's --------------------------------------------------------------

TEST_F(OwnAction, OfSeveralHandlersHasAllThatAnyHoldsBackAndRestartsOnlyIfAllDo) {
    hostInstallsWith(theSignal, hostHandler, SA_RESTART | SA_NOCLDSTOP, {SIGUSR2});
    m_manager.handleSignal(theSignal);
    hostInstallsWith(theSignal, otherHostHandler, SA_NODEFER, {SIGALRM});
    m_manager.handleSignal(theSignal);
    expectOwn(SA_NODEFER | SA_NOCLDSTOP, {SIGUSR2, SIGALRM});
}

// A registration keeps no record of what it displaces.
TEST_F(OwnAction, OfSeveralHandlersCountsOneThatIsNotOnRecord) {
    m_manager.startHandlingSignals();
    hostInstallsWith(theSignal, hostHandler, SA_NOCLDSTOP, {SIGUSR2});
    m_manager.setHandlerFromFunction(theSignal, userHandler);
    hostInstallsWith(theSignal, otherHostHandler, SA_NODEFER, {SIGALRM});
    m_manager.handleSignal(theSignal);
    expectOwn(SA_NODEFER | SA_NOCLDSTOP, {SIGUSR2, SIGALRM});
}

// The first one's record stays over the stop.
TEST_F(OwnAction, OfSeveralHandlersCountsThoseOnRecordWhenItIsTakenOverAnew) {
    hostInstallsWith(theSignal, hostHandler, SA_RESTART, {SIGUSR2});
    m_manager.handleSignal(theSignal);
    m_manager.stopHandlingSignal(theSignal);
    hostInstallsWith(theSignal, otherHostHandler, SA_RESTART, {SIGALRM});
    m_manager.handleSignal(theSignal);
    expectOwn(SA_RESTART, {SIGUSR2, SIGALRM});
}

TEST_F(OwnAction, OfOneHandlerIsAsItWasInstalledLast) {
    hostInstallsWith(theSignal, hostHandler, SA_NODEFER, {SIGUSR2});
    m_manager.handleSignal(theSignal);
    m_manager.stopHandlingSignal(theSignal);
    hostInstallsWith(theSignal, hostHandler, SA_RESTART, {SIGALRM});
    m_manager.handleSignal(theSignal);
    expectOwn(SA_RESTART, {SIGALRM});
}

TEST_F(OwnAction, DoesNotFollowAUsersRecord) {
    struct sigaction users = actionWith(userHandler, SA_NODEFER, {SIGALRM});
    m_manager.setHandlerFromOSStruct(theSignal, users);
    m_manager.handleSignal(theSignal);
    expectOwn(SA_RESTART);
}

// --- How long ------------------------------------------------------------------------------------

TEST_F(OwnAction, StaysOverDispatchesRegistrationsStopsAndStarts) {
    hostInstallsWith(theSignal, hostHandler, SA_NODEFER, {SIGUSR2});
    m_manager.setHandlerFromFunction(theSignal, userHandler);
    m_manager.startHandlingSignals();
    expectOwn(SA_NODEFER, {SIGUSR2});
    raise(theSignal);
    expectOwn(SA_NODEFER, {SIGUSR2});
    m_manager.setHandlerFromFunction(theSignal, otherUserHandler);
    expectOwn(SA_NODEFER, {SIGUSR2});
    m_manager.handleSignal(theSignal);
    expectOwn(SA_NODEFER, {SIGUSR2});
    m_manager.stopHandlingSignals();
    const struct sigaction back = systemAction(theSignal);
    EXPECT_EQ(back.sa_handler, &hostHandler);
    EXPECT_EQ(heldBackBy(back), heldBackBit(SIGUSR2));
    m_manager.startHandlingSignals();
    expectOwn(SA_NODEFER, {SIGUSR2});
}

TEST_F(OwnAction, StaysWhateverAHandlerInstalls) {
    hostInstallsWith(theSignal, [](int) { hostInstallsWith(theSignal, SIG_DFL, 0); }, SA_NODEFER,
                     {SIGUSR2});
    m_manager.handleSignal(theSignal);
    raise(theSignal);
    expectOwn(SA_NODEFER, {SIGUSR2});
}

// Although its handler is not kept.
TEST_F(OwnAction, FollowsTheHostsAlsoIfARegistrationTakesTheSignalOver) {
    m_manager.startHandlingSignals();
    hostInstallsWith(theSignal, hostHandler, SA_NODEFER, {SIGUSR2});
    m_manager.setHandlerFromFunction(theSignal, userHandler);
    expectOwn(SA_NODEFER, {SIGUSR2});
    m_manager.setHandlerFromFunction(theSignal, otherUserHandler);
    expectOwn(SA_NODEFER, {SIGUSR2});
}

// It would take the end of its children away from the host.
TEST_F(OwnAction, DoesNotFollowTheIgnoringThatAStopHasLeft) {
    m_manager.setHandlerFromFunction(SIGCHLD, userHandler);
    m_manager.startHandlingSignals();
    m_manager.stopHandlingSignals();
    ASSERT_TRUE(ignoredInSystemQ(SIGCHLD));
    m_manager.startHandlingSignals();
    EXPECT_EQ(systemAction(SIGCHLD).sa_flags & SA_NOCLDWAIT, 0);
}

TEST_F(OwnAction, DoesNotFollowWhatARegistrationDisplacesLater) {
    m_manager.startHandlingSignals();
    m_manager.setHandlerFromFunction(theSignal, userHandler);
    hostInstallsWith(theSignal, hostHandler, SA_NODEFER, {SIGUSR2});
    m_manager.setHandlerFromFunction(theSignal, otherUserHandler);
    expectOwn(SA_RESTART);
}

TEST_F(OwnAction, ForgetsTheHostsWhenTheSignalIsTakenOverFromNobody) {
    hostInstallsWith(theSignal, hostHandler, SA_NODEFER, {SIGUSR2});
    m_manager.handleSignal(theSignal);
    m_manager.stopHandlingSignal(theSignal);
    m_manager.clearHandlerWithFunction(theSignal, hostHandler);
    hostInstallsWith(theSignal, SIG_DFL, 0);
    m_manager.handleSignal(theSignal);
    expectOwn(SA_RESTART);
}

// --- What the host has of it ---------------------------------------------------------------------

std::uint64_t heldBackInHandler = 0;

void lookWhatIsHeldBack(int signalNumber) {
    noteCall(addressOf(lookWhatIsHeldBack), signalNumber);
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    heldBackInHandler = 0;
    for (int held = 1; held <= lastSystemSignal; ++held) {
        heldBackInHandler |= sigismember(&mask, held) == 1 ? heldBackBit(held) : 0;
    }
}

TEST_F(OwnAction, HoldsBackFromTheHostsHandlerWhatThatAskedForFromTheFirstDeliveryOn) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "signals are delivered one after the other here";
    }
    hostInstallsWith(theSignal, lookWhatIsHeldBack, SA_RESTART, {SIGUSR2, SIGTERM});
    m_manager.handleSignal(theSignal);
    for (int delivery = 0; delivery < 2; ++delivery) {
        raise(theSignal);
        EXPECT_EQ(heldBackInHandler,
                  heldBackBit(theSignal) | heldBackBit(SIGUSR2) | heldBackBit(SIGTERM));
    }
    EXPECT_EQ(callsOf(lookWhatIsHeldBack), 2U);
}

TEST_F(OwnAction, EndsASystemCallThatTheHostsHandlerIsToEnd) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    hostInstallsWith(SIGALRM, hostHandler, 0);
    m_manager.setHandlerFromFunction(SIGALRM, userHandler);
    m_manager.startHandlingSignals();
    itimerval soon = {};
    soon.it_value.tv_usec = 20000;
    soon.it_interval.tv_usec = 20000;
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(setitimer(ITIMER_REAL, &soon, nullptr), 0);
        char none = 0;
        EXPECT_EQ(read(ends[0], &none, 1), -1);
        EXPECT_EQ(errno, EINTR);
        const itimerval never = {};
        setitimer(ITIMER_REAL, &never, nullptr);
    }
    EXPECT_GT(callsOf(hostHandler), 1U);
    close(ends[0]);
    close(ends[1]);
}

// Whether a child that has ended is waited for by nobody, and gone.
bool childrenLeaveNothingQ() {
    const pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    int status = 0;
    pid_t waited = 0;
    while ((waited = waitpid(child, &status, 0)) < 0 && errno == EINTR) {
    }
    return waited < 0 && errno == ECHILD;
}

TEST_F(OwnAction, LeavesNoDeadChildBehindIfTheHostsDoesNot) {
    const auto taken = [this] {
        m_manager.handleSignal(SIGCHLD);
        return childrenLeaveNothingQ();
    };
    hostInstallsWith(SIGCHLD, hostHandler, SA_NOCLDWAIT);
    EXPECT_TRUE(taken());
    m_manager.stopHandlingSignal(SIGCHLD);
    m_manager.clearHandlerWithFunction(SIGCHLD, hostHandler);
    hostInstallsWith(SIGCHLD, SIG_IGN, 0);
    EXPECT_TRUE(taken()) << "who ignores their end";
    hostInstallsWith(SIGCHLD, SIG_DFL, 0);
    m_manager.stopHandlingSignal(SIGCHLD);
    hostInstallsWith(SIGCHLD, SIG_DFL, SA_NOCLDWAIT);
    EXPECT_TRUE(taken()) << "also without a handler";
    m_manager.stopHandlingSignal(SIGCHLD);
    hostInstallsWith(SIGCHLD, SIG_DFL, 0);
    EXPECT_FALSE(taken());
}

unsigned int deepest = 0;
unsigned int depth = 0;

void nests(int signalNumber) {
    ++depth;
    deepest = depth > deepest ? depth : deepest;
    if (depth < 5) {
        raise(signalNumber);
    }
    --depth;
}

TEST_F(OwnAction, LetsTheHostsHandlerBeInterruptedByItsOwnSignalIfItAskedForIt) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "signals are delivered one after the other here";
    }
    hostInstallsWith(theSignal, nests, SA_NODEFER);
    m_manager.handleSignal(theSignal);
    raise(theSignal);
    EXPECT_EQ(deepest, 5U);
    EXPECT_EQ(Manager::numberOfManagers, 1U);
}

}  // namespace
