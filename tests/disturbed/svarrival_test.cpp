// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What becomes of a signal that arrives, or whose dispatch ends, when it belongs to somebody else
// by then: to whom it goes, and whose action the system has afterwards.

#include <../registry/svgate.h>
#include <../registry/svownership.h>
#include <../utilities/svarrival.h>
#include <../utilities/svownaction.h>
#include <../utilities/svsystemactions.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <optional>
#include <utility>

#include "disturbed/stretched_sigaction.h"
#include "support/joining_thread.h"
#include "support/manager_fixture.h"
#include "support/observed_handlers.h"
#include "support/shared_state.h"
#include "support/system_actions.h"

namespace {

namespace SVOwnership = Sorvane::SVOwnership;
using Sorvane::SVArrival;
using Sorvane::SVGate;
using When = StretchedSigaction::When;

constexpr int theSignal = SIGUSR1;

struct sigaction actionOf(void (*handler)(int, siginfo*, void*)) {
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO;
    return action;
}

void take(int signalNumber = theSignal) {
    const SVGate gate;
    SVOwnership::take(signalNumber);
}

// As an operation does it, with the host's action installed in the end.
void handBack(int signalNumber = theSignal) {
    const SVGate gate;
    SVOwnership::beginHandBack(signalNumber, actionOf(hostInformationHandler));
    hostInstalls(signalNumber, hostInformationHandler);
    SVOwnership::endHandBack(signalNumber);
}

void installLibrary(int signalNumber = theSignal) {
    const struct sigaction action = Sorvane::SVOwnAction::of(theSignal);
    sigaction(signalNumber, &action, nullptr);
}

void onAnotherThread(const std::function<void()>& body) {
    JoiningThread(body).join();
}

bool hostsQ(int signalNumber = theSignal) {
    return systemHandler(signalNumber) == addressOf(hostInformationHandler);
}

// --- Sent on -------------------------------------------------------------------------------------

class SentOn : public OneManagerTest {
protected:
    static siginfo informationWith(int signalNumber, int code) {
        siginfo information = {};
        information.si_signo = signalNumber;
        information.si_code = code;
        information.si_pid = getpid();
        information.si_uid = getuid();
        information.si_value.sival_int = 4711;
        return information;
    }

    static bool sendOn(int signalNumber = theSignal, int code = SI_QUEUE) {
        siginfo information = informationWith(signalNumber, code);
        return Sorvane::svsendOn(signalNumber, &information, nullptr);
    }

    // Whether the signal came to this thread again, as it was.
    static bool cameAgainQ(int signalNumber = theSignal, int code = SI_QUEUE) {
        const sigset_t awaited = setOf({signalNumber});
        const timespec atOnce = {0, 0};
        siginfo_t found = {};
        return sigtimedwait(&awaited, &found, &atOnce) == signalNumber && found.si_code == code;
    }
};

TEST_F(SentOn, ComesAgainAsItWas) {
    const BlockedSignals held{theSignal};
    take();
    handBack();
    EXPECT_TRUE(sendOn());
    const sigset_t awaited = setOf({theSignal});
    const timespec atOnce = {0, 0};
    siginfo_t found = {};
    ASSERT_EQ(sigtimedwait(&awaited, &found, &atOnce), theSignal);
    EXPECT_EQ(found.si_code, SI_QUEUE);
    EXPECT_EQ(found.si_value.sival_int, 4711);
    EXPECT_EQ(found.si_pid, getpid());
    EXPECT_TRUE(hostsQ());
    EXPECT_FALSE(SVOwnership::librarysQ(theSignal));
}

TEST_F(SentOn, ComesAgainToNoOtherThread) {
    const BlockedSignals held{theSignal};
    handBack();
    EXPECT_TRUE(sendOn());
    onAnotherThread([] { EXPECT_FALSE(cameAgainQ()); });
    EXPECT_TRUE(cameAgainQ());
}

TEST_F(SentOn, OfASignalThatWasTakenOverAgainIsNone) {
    const BlockedSignals held{theSignal};
    handBack();
    take();
    const SVOwnership::Count before = SVOwnership::count(theSignal);
    EXPECT_FALSE(sendOn());
    EXPECT_FALSE(cameAgainQ());
    EXPECT_EQ(SVOwnership::count(theSignal), before);
}

// Nor does the kernel hold it back while it is handled, then.
TEST_F(SentOn, ComesAgainAlsoIfTheHostsHandlerIsNotToHoldItBack) {
    hostInstalls(theSignal, hostHandler, SA_NODEFER);
    m_manager.handleSignal(theSignal);
    handBack();
    EXPECT_TRUE(sendOn());
    EXPECT_EQ(callsOf(hostInformationHandler), 1U);
    EXPECT_FALSE(SVOwnership::librarysQ(theSignal));
}

// Without the kernel's doing: then it is the library's.
TEST_F(SentOn, OfACallByHandIsNone) {
    handBack();
    EXPECT_FALSE(sendOn());
    EXPECT_TRUE(SVOwnership::librarysQ(theSignal));
    EXPECT_EQ(callCount(), 0U);
}

TEST_F(SentOn, WithoutInformationIsNone) {
    const BlockedSignals held{theSignal};
    handBack();
    EXPECT_FALSE(Sorvane::svsendOn(theSignal, nullptr, nullptr));
    EXPECT_TRUE(SVOwnership::librarysQ(theSignal));
    EXPECT_FALSE(cameAgainQ());
}

TEST_F(SentOn, ComesAgainOnceForEachHandBack) {
    const BlockedSignals held{theSignal};
    for (int round = 0; round < 2; ++round) {
        handBack();
        EXPECT_TRUE(sendOn());
        EXPECT_TRUE(cameAgainQ());
        EXPECT_FALSE(sendOn()) << "somebody has called the library by hand";
        EXPECT_FALSE(cameAgainQ());
        EXPECT_TRUE(SVOwnership::librarysQ(theSignal));
    }
}

// Another dispatch has installed it, and has not looked whose the signal is.
TEST_F(SentOn, PutsTheHostsActionBackWhileAnotherDispatchHasTheLibraryInstalled) {
    const BlockedSignals held{theSignal};
    const SVOwnership::Unsettled byAnotherDispatch(theSignal);
    handBack();
    for (int round = 0; round < 2; ++round) {
        installLibrary();
        EXPECT_TRUE(sendOn());
        EXPECT_TRUE(cameAgainQ());
        EXPECT_TRUE(hostsQ());
        EXPECT_FALSE(SVOwnership::librarysQ(theSignal));
    }
}

// Other dispatches of other signals do not count.
TEST_F(SentOn, IsNoneIfTheLibraryWasInstalledByHand) {
    const BlockedSignals held{theSignal};
    const SVOwnership::Unsettled ofAnotherSignal(SIGUSR2);
    handBack();
    installLibrary();
    EXPECT_FALSE(sendOn());
    EXPECT_FALSE(cameAgainQ());
    EXPECT_TRUE(takenOverQ(theSignal));
    EXPECT_TRUE(SVOwnership::librarysQ(theSignal));
}

TEST_F(SentOn, LeavesWhatTheHostInstallsMeanwhile) {
    const BlockedSignals held{theSignal};
    const SVOwnership::Unsettled byAnotherDispatch(theSignal);
    handBack();
    installLibrary();
    {
        const StretchedSigaction stretched(theSignal, When::before,
                                           [] { hostInstalls(theSignal, otherHostHandler); });
        EXPECT_TRUE(sendOn());
    }
    EXPECT_EQ(systemHandler(theSignal), addressOf(otherHostHandler));
    EXPECT_TRUE(cameAgainQ());
}

TEST_F(SentOn, DoesNotLeaveTheLibraryThatIsInstalledMeanwhile) {
    const BlockedSignals held{theSignal};
    const SVOwnership::Unsettled byAnotherDispatch(theSignal);
    handBack();
    installLibrary();
    {
        const StretchedSigaction stretched(theSignal, When::before, [] {
            struct sigaction action = Sorvane::SVOwnAction::of(theSignal);
            action.sa_flags |= SA_NODEFER;
            sigaction(theSignal, &action, nullptr);
        });
        EXPECT_TRUE(sendOn());
    }
    EXPECT_TRUE(hostsQ());
    EXPECT_TRUE(cameAgainQ());
}

// The instruction runs again.
TEST_F(SentOn, OfAFaultIsNotSentOn) {
    for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE}) {
        const BlockedSignals held{fault};
        for (const int code : {1, static_cast<int>(BUS_MCEERR_AR)}) {
            handBack(fault);
            EXPECT_TRUE(sendOn(fault, code));
            EXPECT_FALSE(cameAgainQ(fault, code)) << fault << ' ' << code;
        }
        for (const int code : {static_cast<int>(SI_USER), static_cast<int>(SI_QUEUE)}) {
            handBack(fault);
            EXPECT_TRUE(sendOn(fault, code));
            EXPECT_TRUE(cameAgainQ(fault, code)) << fault << ' ' << code;
        }
    }
}

TEST_F(SentOn, OfADefectThatIsOnlyReportedIsSentOn) {
    const BlockedSignals held{SIGBUS, SIGSEGV};
    handBack(SIGBUS);
    EXPECT_TRUE(sendOn(SIGBUS, BUS_MCEERR_AO));
    EXPECT_TRUE(cameAgainQ(SIGBUS, BUS_MCEERR_AO));
    handBack(SIGSEGV);
    EXPECT_TRUE(sendOn(SIGSEGV, BUS_MCEERR_AO));
    EXPECT_FALSE(cameAgainQ(SIGSEGV, BUS_MCEERR_AO)) << "the code is another one's";
}

TEST_F(SentOn, ThatIsNoFaultIsSentOnWhateverItsCode) {
    const BlockedSignals held{theSignal};
    for (const int code : {1, static_cast<int>(BUS_MCEERR_AO)}) {
        handBack();
        EXPECT_TRUE(sendOn(theSignal, code));
        EXPECT_TRUE(cameAgainQ(theSignal, code)) << code;
    }
}

TEST_F(SentOn, IsHadByTheHostFromHereIfTheQueueIsFull) {
    const int queued = SIGRTMIN;
    const BlockedSignals held{queued};
    handBack(queued);
    rlimit former = {};
    ASSERT_EQ(getrlimit(RLIMIT_SIGPENDING, &former), 0);
    rlimit none = former;
    none.rlim_cur = 0;
    ASSERT_EQ(setrlimit(RLIMIT_SIGPENDING, &none), 0);
    siginfo information = informationWith(queued, SI_QUEUE);
    int context = 0;
    const bool sent = Sorvane::svsendOn(queued, &information, &context);
    ASSERT_EQ(setrlimit(RLIMIT_SIGPENDING, &former), 0);
    EXPECT_TRUE(sent);
    ASSERT_EQ(callsOf(hostInformationHandler), 1U);
    EXPECT_EQ(lastCall().signalNumber, queued);
    EXPECT_EQ(lastCall().information, &information);
    EXPECT_EQ(lastCall().context, &context);
    EXPECT_FALSE(cameAgainQ(queued));
}

// --- The end of a dispatch -----------------------------------------------------------------------

class EndOfADispatch : public OneManagerTest {
protected:
    EndOfADispatch() {
        makeTableOf(m_manager, theSignal);
        take();
        installLibrary();
    }

    // Does something while the dispatch goes on, and something just before or after it installs
    // the library.
    static void dispatch(const std::function<void()>& meanwhile,
                         std::optional<When> when = std::nullopt,
                         const std::function<void()>& stretch = {}) {
        const SVArrival arrival(theSignal);
        EXPECT_FALSE(arrival.lateQ());
        EXPECT_FALSE(arrival.ownerChangedQ());
        meanwhile();
        if (when) {
            // Another thread waits at the gate for what comes after the first installation.
            bool first = true;
            const StretchedSigaction stretched(theSignal, *when, [&] {
                if (std::exchange(first, false)) {
                    stretch();
                }
            });
            arrival.stayInstalled(nullptr, nullptr, false);
        } else {
            arrival.stayInstalled(nullptr, nullptr, false);
        }
    }

    static void handBackElsewhere() {
        onAnotherThread([] { handBack(); });
    }
    static void takeOverElsewhere() {
        onAnotherThread([] {
            take();
            installLibrary();
        });
    }

    static void expectTheLibrarys() {
        EXPECT_TRUE(takenOverQ(theSignal));
        EXPECT_TRUE(SVOwnership::librarysQ(theSignal));
    }
};

TEST_F(EndOfADispatch, InstallsTheLibraryAgain) {
    dispatch([] { hostInstalls(theSignal, hostHandler); });
    expectTheLibrarys();
    EXPECT_EQ(recordCount(theSignal), 0U);
}

TEST_F(EndOfADispatch, LeavesASignalToTheHostThatWasHandedBackElsewhere) {
    dispatch([] { handBackElsewhere(); });
    EXPECT_TRUE(hostsQ());
    EXPECT_FALSE(SVOwnership::librarysQ(theSignal));
}

TEST_F(EndOfADispatch, TakesASignalBackThatItsOwnThreadHandedBack) {
    dispatch([] { handBack(); });
    expectTheLibrarys();
}

TEST_F(EndOfADispatch, TakesASignalBackAlsoIfAnotherDispatchHasInstalledTheLibrary) {
    dispatch([] {
        handBack();
        installLibrary();
    });
    expectTheLibrarys();
}

TEST_F(EndOfADispatch, TakesASignalBackAlsoIfAnotherDispatchPutsTheHostsActionBack) {
    dispatch([] { handBack(); }, When::after, [] { hostInstalls(theSignal, hostHandler); });
    expectTheLibrarys();
}

// What was sent on meanwhile has met the library once more.
TEST_F(EndOfADispatch, LetsASignalBeSentOnAgain) {
    const BlockedSignals held{theSignal};
    SVOwnership::Count before = 0;
    dispatch([&] {
        handBackElsewhere();
        before = SVOwnership::count(theSignal);
    });
    EXPECT_NE(SVOwnership::count(theSignal), before);
    EXPECT_TRUE(SVOwnership::handedBackQ(SVOwnership::count(theSignal)));
}

TEST_F(EndOfADispatch, LeavesWhatTheHostInstalledAfterTheHandBack) {
    dispatch([] {
        handBackElsewhere();
        hostInstalls(theSignal, otherHostHandler);
    });
    EXPECT_EQ(systemHandler(theSignal), addressOf(otherHostHandler));
}

// What it displaced is older than the hand-back, and is not put back.
TEST_F(EndOfADispatch, LeavesWhatWasHandedBackAfterItHadInstalledTheLibrary) {
    dispatch([] { hostInstalls(theSignal, otherHostHandler); }, When::after,
             [] { handBackElsewhere(); });
    EXPECT_TRUE(hostsQ());
}

TEST_F(EndOfADispatch, LeavesASignalToTheHostThatWasHandedBackJustBefore) {
    dispatch([] {}, When::before, [] { handBackElsewhere(); });
    EXPECT_TRUE(hostsQ());
}

TEST_F(EndOfADispatch, LeavesWhatTheHostInstallsAfterIt) {
    dispatch([] { handBackElsewhere(); }, When::after,
             [] { hostInstalls(theSignal, otherHostHandler); });
    EXPECT_EQ(systemHandler(theSignal), addressOf(otherHostHandler));
}

// Of several dispatches the one that displaced the host's action puts it back.
TEST_F(EndOfADispatch, LeavesTheLibraryToTheDispatchThatInstalledIt) {
    dispatch([] {
        handBackElsewhere();
        installLibrary();
    });
    EXPECT_TRUE(takenOverQ(theSignal));
    EXPECT_FALSE(SVOwnership::librarysQ(theSignal));
}

// It has displaced the library, and the host's action is back by then.
TEST_F(EndOfADispatch, DoesNotPutTheLibraryBack) {
    dispatch(
        [] {
            handBackElsewhere();
            installLibrary();
        },
        When::after, [] { hostInstalls(theSignal, hostInformationHandler); });
    EXPECT_TRUE(hostsQ());
}

TEST_F(EndOfADispatch, PutsBackWhatIsNewerThanWhatAnotherDispatchPutBack) {
    dispatch(
        [] {
            handBackElsewhere();
            hostInstalls(theSignal, otherHostHandler);
        },
        When::after, [] { hostInstalls(theSignal, hostInformationHandler); });
    EXPECT_EQ(systemHandler(theSignal), addressOf(otherHostHandler));
}

TEST_F(EndOfADispatch, LeavesTheLibraryToWhoeverTookTheSignalOverAgain) {
    dispatch([] {
        handBackElsewhere();
        takeOverElsewhere();
    });
    expectTheLibrarys();
    EXPECT_EQ(recordCount(theSignal), 0U);
}

TEST_F(EndOfADispatch, KeepsWhatTheHostInstalledSinceTheSignalWasTakenOverAgain) {
    dispatch([] {
        handBackElsewhere();
        takeOverElsewhere();
        hostInstalls(theSignal, otherHostHandler);
    });
    EXPECT_TRUE(takenOverQ(theSignal));
    const Record* const kept = recordOf(theSignal, otherHostHandler);
    ASSERT_NE(kept, nullptr);
    EXPECT_TRUE(kept->preExistsQ());
}

TEST_F(EndOfADispatch, HasTheFlagsOfWhatItKeeps) {
    dispatch([] {
        handBackElsewhere();
        takeOverElsewhere();
        hostInstalls(theSignal, otherHostHandler, SA_NODEFER);
    });
    EXPECT_TRUE(takenOverQ(theSignal));
    EXPECT_NE(systemAction(theSignal).sa_flags & SA_NODEFER, 0);
}

// Nobody had taken the signal over: the library was installed by hand.
TEST(EndOfADispatchOfNobodysSignal, KeepsNothingThatItsHandlerInstalls) {
    Manager manager(true);
    makeTableOf(manager, SIGUSR2);
    const SVArrival arrival(SIGUSR2);
    take(SIGUSR2);
    hostInstalls(SIGUSR2, otherHostHandler);
    arrival.stayInstalled(nullptr, nullptr, false);
    EXPECT_EQ(recordCount(SIGUSR2), 0U);
    EXPECT_TRUE(takenOverQ(SIGUSR2));
}

TEST_F(EndOfADispatch, InstallsOnlyOnceAlsoIfItsOwnThreadHandedTheSignalBack) {
    unsigned int installations = 0;
    {
        const SVArrival arrival(theSignal);
        handBack();
        const StretchedSigaction stretched(theSignal, When::after, [&] { ++installations; });
        arrival.stayInstalled(nullptr, nullptr, false);
    }
    EXPECT_EQ(installations, 1U);
    expectTheLibrarys();
}

TEST_F(EndOfADispatch, HidesNothingFromATakeOverInAHandlerThatInterruptsIt) {
    dispatch([] { handBackElsewhere(); }, When::after,
             [this] { m_manager.handleSignal(theSignal); });
    EXPECT_NE(recordOf(theSignal, hostInformationHandler), nullptr);
    EXPECT_TRUE(takenOverQ(theSignal));
}

// The one that it is about to install is of some moments ago.
TEST_F(EndOfADispatch, HasTheLibrarysOwnActionAsItHasBecome) {
    dispatch([] {}, When::before,
             [this] {
                 hostInstalls(theSignal, otherHostHandler, SA_NODEFER);
                 onAnotherThread([this] { m_manager.handleSignal(theSignal); });
             });
    EXPECT_TRUE(takenOverQ(theSignal));
    EXPECT_NE(systemAction(theSignal).sa_flags & SA_NODEFER, 0);
}

TEST_F(EndOfADispatch, IsSeenByOthersUntilItHasLooked) {
    bool seen = false;
    dispatch([] {}, When::after, [&] { seen = SVOwnership::Unsettled::anyQ(theSignal); });
    EXPECT_TRUE(seen);
    EXPECT_FALSE(SVOwnership::Unsettled::anyQ(theSignal));
}

TEST_F(EndOfADispatch, IsSeenByOthersUntilItHasPutBackWhatItHasDisplaced) {
    unsigned int installations = 0;
    unsigned int seen = 0;
    {
        const SVArrival arrival(theSignal);
        handBackElsewhere();
        const StretchedSigaction stretched(theSignal, When::before, [&] {
            ++installations;
            seen += SVOwnership::Unsettled::anyQ(theSignal) ? 1U : 0U;
        });
        arrival.stayInstalled(nullptr, nullptr, false);
    }
    EXPECT_EQ(installations, 2U);
    EXPECT_EQ(seen, installations);
    EXPECT_FALSE(SVOwnership::Unsettled::anyQ(theSignal));
    EXPECT_TRUE(hostsQ());
}

TEST_F(EndOfADispatch, KeepsNothingThatIsOlderThanTheHandBack) {
    dispatch([] { hostInstalls(theSignal, otherHostHandler); }, When::after,
             [] {
                 handBackElsewhere();
                 takeOverElsewhere();
             });
    EXPECT_TRUE(takenOverQ(theSignal));
    EXPECT_EQ(recordCount(theSignal), 0U);
}

}  // namespace
