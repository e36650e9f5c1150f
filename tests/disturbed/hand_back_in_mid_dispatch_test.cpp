// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A signal changes hands while a dispatch of it on another thread stands still, at any of its
// instructions: it is called once all the same, by the one or by the other, and a hand-back that
// came last stays done.

#include <gtest/gtest.h>
#include <pthread.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>

#include "disturbed/hands.h"
#include "disturbed/limited_child.h"
#include "disturbed/waiting.h"
#include "support/gate.h"
#include "support/joining_thread.h"
#include "support/stepping.h"
#include "support/system_actions.h"

namespace {

// --- What happens meanwhile --------------------------------------------------------------------

// The signal is the library's at first.
using Change = void (*)(Hands&);

void giveBack(Hands& hands) {
    hands.handBack();
}

void giveBackAndTake(Hands& hands) {
    hands.handBack();
    hands.takeOver();
}

void giveBackTwice(Hands& hands) {
    hands.handBack();
    hands.takeOver();
    hands.handBack();
}

struct KindOfChange {
    const char* name;
    Change change;
    bool handsBackLast;
};

constexpr std::array<KindOfChange, 3> kindsOfChange = {{
    {"handed back", giveBack, true},
    {"handed back and taken over", giveBackAndTake, false},
    {"handed back twice", giveBackTwice, true},
}};

// --- The dispatching thread --------------------------------------------------------------------

// Has a signal when it is told to. The thread that changes things waits for it at every turn, or it
// waits for that.
class Dispatching {
public:
    explicit Dispatching(std::function<void()> deliver)
        : m_thread([this, deliver] {
              m_told.pass();
              while (!m_over) {
                  deliver();
                  m_delivered.open();
                  m_told.pass();
              }
          }) {}
    Dispatching(const Dispatching&) = delete;
    Dispatching& operator=(const Dispatching&) = delete;
    ~Dispatching() {
        m_over = true;
        m_told.open();
    }

    void begin() { m_told.open(); }
    void awaitEnd() { m_delivered.pass(); }

private:
    std::atomic<bool> m_over{false};
    Gate m_told;
    Gate m_delivered;
    JoiningThread m_thread;
};

// Where the dispatch stands still.
Gate standing;
Gate goingOn;
volatile bool stood = false;

void stand() {
    stood = true;
    standing.open();
    goingOn.pass();
}

// --- The tally ---------------------------------------------------------------------------------

class Tally {
public:
    // After a change while the dispatch stood at a place, and the end of the dispatch.
    void look(const Source& source, const KindOfChange& kind, Hands& hands, unsigned int place) {
        const bool calledOnce = received == delivered;
        const bool kept = !kind.handsBackLast || hostsQ(source);
        if (!kind.handsBackLast) {
            hands.handBack();
        }
        const bool handedBack = hostsQ(source);
        ++m_places;
        if (!calledOnce || !kept || !handedBack) {
            if (++m_wrong <= mostTold) {
                std::printf("%s at %u: %lu delivered, %lu received%s\n", kind.name, place,
                            delivered.load(), received.load(),
                            kept && handedBack ? "" : ", and not the host's");
            }
            received = delivered.load();
        }
    }

    void expectNoneWrong() const {
        std::printf("%u changes of hands, %u of them wrong\n", m_places, m_wrong);
        EXPECT_GT(m_places, 0U);
        EXPECT_EQ(m_wrong, 0U);
    }

private:
    static constexpr unsigned int mostTold = 5;
    unsigned int m_places = 0;
    unsigned int m_wrong = 0;
};

// --- Step by step ------------------------------------------------------------------------------

#if defined(__x86_64__) || defined(__i386__)

volatile unsigned int steps = 0;
volatile unsigned int standAt = 0;

void setTrapFlag(void* context, bool on) {
    constexpr greg_t trapFlag = 0x100;
    greg_t& flags = static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL];
    flags = on ? flags | trapFlag : flags & ~trapFlag;
}

void beginSteps(int, siginfo_t*, void* context) {
    steps = 0;
    setTrapFlag(context, true);
}

void step(int, siginfo_t*, void* context) {
    steps = steps + 1;
    if (steps == standAt) {
        setTrapFlag(context, false);
        stand();
    }
}

// Of two signals that are let in at once, the handler of the higher number is called first, and
// returns to the first instruction of the other one's.
void deliverStepped() {
    const BlockedSignals held{SIGUSR1, SIGURG};
    pthread_kill(pthread_self(), SIGURG);
    deliverAndCount(raised);
}

template <typename HandsOfThisKind>
void changeAtInstructions() {
    // Every instruction would take too long, and what goes wrong does so over many of them.
#ifdef SORVANE_TESTS_COUNTED
    constexpr unsigned int stride = 307;
#else
    constexpr unsigned int stride = 7;
#endif
    hostInstalls(SIGURG, beginSteps);
    hostInstalls(SIGTRAP, step);
    HandsOfThisKind hands(raised);
    Dispatching dispatching([] {
        stood = false;
        deliverStepped();
        if (!stood) {
            standing.open();
        }
    });
    Tally tally;
    unsigned int place = 0;
    for (bool further = true; further;) {
        for (const KindOfChange& kind : kindsOfChange) {
            place += stride;
            standAt = place;
            hands.takeOver();
            dispatching.begin();
            standing.pass();
            further = stood;
            if (stood) {
                kind.change(hands);
                goingOn.open();
                dispatching.awaitEnd();
                tally.look(raised, kind, hands, place);
            } else {
                dispatching.awaitEnd();
                hands.handBack();
            }
        }
    }
    tally.expectNoneWrong();
}

#else

template <typename HandsOfThisKind>
void changeAtInstructions() {}

#endif

// --- At any moment -----------------------------------------------------------------------------

// A timer of the thread that makes it, which fires after some nanoseconds.
class ShortTimer {
public:
    ShortTimer() {
        sigevent event = {};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = SIGUSR2;
        event._sigev_un._tid = gettid();
        m_made = timer_create(CLOCK_MONOTONIC, &event, &m_timer) == 0;
    }
    ShortTimer(const ShortTimer&) = delete;
    ShortTimer& operator=(const ShortTimer&) = delete;
    ~ShortTimer() { timer_delete(m_timer); }

    bool set(long nanoseconds) {
        const itimerspec once = {{0, 0}, {0, nanoseconds}};
        return m_made && timer_settime(m_timer, 0, &once, nullptr) == 0;
    }

private:
    timer_t m_timer = {};
    bool m_made = false;
};

// Another while each time, up to longer than it takes to have a signal dispatched.
long someNanoseconds(unsigned int number) {
    constexpr unsigned int longest = 12000;
    constexpr unsigned int spreading = 7919;
    return 1 + static_cast<long>(number * spreading % longest);
}

template <typename HandsOfThisKind>
void changeAtAnyMoment(const Source& source) {
    constexpr auto duration = std::chrono::milliseconds(400);
    hostInstalls(SIGUSR2, [](int) { stand(); });
    HandsOfThisKind hands(source);
    unsigned int round = 0;
    Dispatching dispatching([&] {
        static thread_local ShortTimer timer;
        stood = false;
        EXPECT_TRUE(timer.set(someNanoseconds(round)));
        deliverAndCount(source);
        waitUpTo(childPatience, [] { return stood; });
    });
    Tally tally;
    const auto end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end) {
        const KindOfChange& kind = kindsOfChange[round % kindsOfChange.size()];
        hands.takeOver();
        dispatching.begin();
        standing.pass();
        kind.change(hands);
        goingOn.open();
        dispatching.awaitEnd();
        tally.look(source, kind, hands, round);
        ++round;
    }
    tally.expectNoneWrong();
}

// --- The tests ---------------------------------------------------------------------------------

TEST(HandBackInMidDispatch, OfAllSignalsStepByStepLosesNothing) {
    SKIP_WITHOUT_STEPS();
    expectToGoOn(changeAtInstructions<StartAndStop>);
}

TEST(HandBackInMidDispatch, WithTheLastRecordStepByStepLosesNothing) {
    SKIP_WITHOUT_STEPS();
    expectToGoOn(changeAtInstructions<HandleAndClear>);
}

TEST(HandBackInMidDispatch, OfAllSignalsAtAnyMomentLosesNothing) {
    expectToGoOn([] { changeAtAnyMoment<StartAndStop>(raised); });
}

TEST(HandBackInMidDispatch, WithTheLastRecordAtAnyMomentLosesNothing) {
    expectToGoOn([] { changeAtAnyMoment<HandleAndClear>(raised); });
}

TEST(HandBackInMidDispatch, OfAllFaultsAtAnyMomentLosesNothing) {
    expectToGoOn([] { changeAtAnyMoment<StartAndStop>(repaired); });
}

TEST(HandBackInMidDispatch, OfFaultsWithTheLastRecordAtAnyMomentLosesNothing) {
    expectToGoOn([] { changeAtAnyMoment<HandleAndClear>(repaired); });
}

}  // namespace
