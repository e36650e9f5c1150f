// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What comes between the installations of an operation, or instead of one: the host's own, and the
// kernel's refusal.

#include <../registry/svgate.h>
#include <../registry/svownership.h>
#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "disturbed/stretched_sigaction.h"
#include "support/failure.h"
#include "support/joining_thread.h"
#include "support/manager_fixture.h"
#include "support/sanitizers.h"
#include "support/system_call_filter.h"
#include "support/watched_lock.h"

namespace {

using When = StretchedSigaction::When;

constexpr int theSignal = SIGUSR1;

// --- The host replaces its handler just before it is displaced ---------------------------------

class HostInMidTakeOver : public OneManagerTest {
protected:
    ~HostInMidTakeOver() noexcept override = default;

    void takeOverWhileHostInstalls(void (*handler)(int)) {
        const StretchedSigaction stretched(theSignal, When::before,
                                           [handler] { hostInstalls(theSignal, handler); });
        m_manager.handleSignal(theSignal);
    }
};

TEST_F(HostInMidTakeOver, ReplacesTheRecordOfItsHandler) {
    hostInstalls(theSignal, hostHandler);
    takeOverWhileHostInstalls(otherHostHandler);
    EXPECT_TRUE(takenOverQ(theSignal));
    EXPECT_EQ(recordOf(theSignal, hostHandler), nullptr);
    const Record* const record = recordOf(theSignal, otherHostHandler);
    ASSERT_NE(record, nullptr);
    EXPECT_TRUE(record->preExistsQ());
    EXPECT_EQ(recordCount(theSignal), 1U);
}

TEST_F(HostInMidTakeOver, HasTheFlagsOfItsNewHandler) {
    hostInstalls(theSignal, hostHandler, SA_RESTART);
    const StretchedSigaction stretched(theSignal, When::before, [] {
        if (systemHandler(theSignal) == addressOf(hostHandler)) {
            hostInstalls(theSignal, otherHostHandler, SA_NODEFER);
        }
    });
    m_manager.handleSignal(theSignal);
    EXPECT_TRUE(takenOverQ(theSignal));
    EXPECT_NE(systemAction(theSignal).sa_flags & SA_NODEFER, 0);
}

TEST_F(HostInMidTakeOver, TakesNoRecordAwayThatWasThereBefore) {
    hostInstalls(theSignal, hostHandler);
    m_manager.setHandlerFromFunction(theSignal, hostHandler);
    takeOverWhileHostInstalls(otherHostHandler);
    EXPECT_NE(recordOf(theSignal, hostHandler), nullptr);
    EXPECT_NE(recordOf(theSignal, otherHostHandler), nullptr);
}

TEST_F(HostInMidTakeOver, LeavesARecordThatItsNewHandlerHasAlready) {
    hostInstalls(theSignal, hostHandler);
    m_manager.setHandlerFromFunction(theSignal, otherHostHandler);
    takeOverWhileHostInstalls(otherHostHandler);
    EXPECT_EQ(recordOf(theSignal, hostHandler), nullptr);
    const Record* const record = recordOf(theSignal, otherHostHandler);
    ASSERT_NE(record, nullptr);
    EXPECT_FALSE(record->preExistsQ());
}

// --- Switching on and off ----------------------------------------------------------------------

class Switching : public OneManagerTest {
protected:
    ~Switching() noexcept override = default;
};

TEST_F(Switching, InstallsOnceForASignalEachTime) {
    hostInstalls(theSignal, hostHandler);
    m_manager.setHandlerFromFunction(theSignal, userHandler);
    unsigned int installations = 0;
    {
        const StretchedSigaction stretched(theSignal, When::after,
                                           [&installations] { ++installations; });
        m_manager.startHandlingSignals();
    }
    EXPECT_EQ(installations, 1U);
    {
        const StretchedSigaction stretched(theSignal, When::after,
                                           [&installations] { ++installations; });
        m_manager.stopHandlingSignals();
    }
    EXPECT_EQ(installations, 2U);
}

// It is taken over at the end of the start, because its turn has passed.
TEST_F(Switching, TakesWhatWasRegisteredMeanwhileOverInsideTheGateWithSignalsHeldBack) {
    m_manager.setHandlerFromFunction(SIGTERM, userHandler);
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    bool first = true;
    log->onFree = [&] {
        if (std::exchange(first, false)) {
            JoiningThread([] {
                Manager(true).setHandlerFromFunction(theSignal, userHandler);
            }).join();
        }
    };
    bool closed = false;
    bool heldBack = false;
    {
        const StretchedSigaction stretched(theSignal, When::before, [&] {
            sigset_t mask;
            pthread_sigmask(SIG_BLOCK, nullptr, &mask);
            closed = Sorvane::SVGate::closedByThisThreadQ();
            heldBack = sigismember(&mask, SIGUSR2) == 1;
        });
        m_manager.startHandlingSignals();
    }
    log->onFree = nullptr;
    EXPECT_TRUE(takenOverQ(theSignal));
    EXPECT_TRUE(closed);
    EXPECT_TRUE(heldBack || builtWithThreadSanitizer) << "which keeps the mask to itself";
}

// --- The kernel refuses ------------------------------------------------------------------------

// On a thread of its own, because the kernel goes on refusing.
class RefusedInstallation : public OneManagerTest {
protected:
    void SetUp() override { SKIP_WITHOUT_SYSTEM_CALL_FILTERS(); }
    ~RefusedInstallation() noexcept override = default;

    static void expectRefusal(const std::function<void()>& operation) {
        Failure failure;
        JoiningThread([&] { failure = failureOf([&] { operation(); }); }).join();
        expectSigactionFailure(failure, EPERM);
        EXPECT_TRUE(lockIsFree());
    }
    static void refuse(int signalNumber) { EXPECT_TRUE(refuseInstallation(signalNumber, EPERM)); }
};

TEST_F(RefusedInstallation, OfATakeOverLeavesNoRecordOfTheHostsHandler) {
    hostInstalls(theSignal, hostHandler);
    const Sorvane::SVOwnership::Count before = Sorvane::SVOwnership::count(theSignal);
    expectRefusal([this] {
        refuse(theSignal);
        m_manager.handleSignal(theSignal);
    });
    EXPECT_EQ(systemHandler(theSignal), addressOf(hostHandler));
    EXPECT_EQ(recordCount(theSignal), 0U);
    EXPECT_EQ(Sorvane::SVOwnership::count(theSignal), before);
}

TEST_F(RefusedInstallation, OfATakeOverLeavesARecordThatWasThereBefore) {
    hostInstalls(theSignal, hostHandler);
    m_manager.setHandlerFromFunction(theSignal, hostHandler);
    expectRefusal([this] {
        refuse(theSignal);
        m_manager.handleSignal(theSignal);
    });
    EXPECT_NE(recordOf(theSignal, hostHandler), nullptr);
}

// Which is no handler that the host had, and has a record all the same.
TEST_F(RefusedInstallation, OfATakeOverLeavesAUsersRecordOfTheDefaultAction) {
    m_manager.setHandlerFromFunction(theSignal, SIG_DFL);
    expectRefusal([this] {
        refuse(theSignal);
        m_manager.handleSignal(theSignal);
    });
    EXPECT_EQ(recordCount(theSignal), 1U);
}

TEST_F(RefusedInstallation, OfAHandBackOfWhatTheHostHasLeavesItTheHosts) {
    makeTableOf(m_manager, theSignal);
    expectRefusal([this] {
        refuse(theSignal);
        m_manager.stopHandlingSignal(theSignal);
    });
    EXPECT_TRUE(defaultInSystemQ(theSignal));
    EXPECT_FALSE(Sorvane::SVOwnership::librarysQ(theSignal));
}

TEST_F(RefusedInstallation, OfAHandBackLeavesTheSignalTakenOver) {
    hostInstalls(theSignal, hostHandler);
    m_manager.handleSignal(theSignal);
    expectRefusal([this] {
        refuse(theSignal);
        m_manager.stopHandlingSignal(theSignal);
    });
    EXPECT_TRUE(takenOverQ(theSignal));
    EXPECT_TRUE(Sorvane::SVOwnership::librarysQ(theSignal));
    raise(theSignal);
    EXPECT_EQ(callsOf(hostHandler), 1U);
    EXPECT_TRUE(takenOverQ(theSignal));
}

TEST_F(RefusedInstallation, OfASignalThatCameBackDuringAStopEndsTheStop) {
    for (const int signalNumber : {SIGUSR1, SIGTERM}) {
        m_manager.setHandlerFromFunction(signalNumber, userHandler);
    }
    m_manager.startHandlingSignals();
    const std::shared_ptr<LockLog> log = WatchedLock::putInPlace();
    bool first = true;
    log->onFree = [&] {
        // Both have had their turns.
        if (!takenOverQ(SIGTERM) && std::exchange(first, false)) {
            std::thread([] {
                Manager other(true);
                other.setHandlerFromFunction(SIGUSR1, userHandler);
                other.setHandlerFromFunction(SIGTERM, userHandler);
            }).join();
            refuse(SIGUSR1);
        }
    };
    expectRefusal([this] { m_manager.stopHandlingSignals(); });
    log->onFree = nullptr;
    EXPECT_FALSE(first) << "the moment did not come";
    EXPECT_TRUE(takenOverQ(SIGUSR1));
    EXPECT_TRUE(takenOverQ(SIGTERM)) << "it comes after the one that failed";
    EXPECT_TRUE(Manager::currentlyHandlingSignals);
    m_manager.stopHandlingSignals();
    EXPECT_FALSE(takenOverQ(SIGTERM));
}

}  // namespace
