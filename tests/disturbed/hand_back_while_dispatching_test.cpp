// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What one thread hands back while another one dispatches it stays handed back, and what arrives
// meanwhile reaches the host's handler once: the dispatch ends with installing the library again,
// and may do so after the hand-back.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <optional>

#include "disturbed/hands.h"
#include "disturbed/limited_child.h"
#include "disturbed/stretched_sigaction.h"
#include "disturbed/waiting.h"
#include "support/joining_thread.h"
#include "support/system_actions.h"

namespace {

using When = StretchedSigaction::When;

// --- The other thread --------------------------------------------------------------------------

// Has the signal again and again.
class Deliveries {
public:
    explicit Deliveries(const Source& source, std::function<void()> beforeInstalling = {})
        : m_thread([this, source, beforeInstalling] {
              std::optional<StretchedSigaction> stretched;
              if (beforeInstalling) {
                  stretched.emplace(source.signalNumber, When::before, beforeInstalling);
              }
              while (!m_over) {
                  deliverAndCount(source);
                  ++m_rounds;
                  m_rounds.notify_one();
              }
          }) {}
    Deliveries(const Deliveries&) = delete;
    Deliveries& operator=(const Deliveries&) = delete;
    ~Deliveries() { end(); }

    void end() {
        m_over = true;
        m_thread.join();
    }

    // Waits for that many whole deliveries. Whatever was dispatched before is done then.
    void await(unsigned long number) const {
        const unsigned long enough = m_rounds + number;
        for (unsigned long now = m_rounds; now < enough; now = m_rounds) {
            m_rounds.wait(now);
        }
    }

private:
    std::atomic<bool> m_over{false};
    std::atomic<unsigned long> m_rounds{0};
    JoiningThread m_thread;
};

struct Tally {
    unsigned int handBacks = 0;
    unsigned int undone = 0;
};

void look(const Source& source, const Deliveries& deliveries, Tally& tally) {
    // One was under way when the signal was handed back, the next one began before that was known.
    deliveries.await(2);
    ++tally.handBacks;
    tally.undone += hostsQ(source) ? 0U : 1U;
}

void expectNoneUndone(const Tally& tally) {
    std::printf("%u hand-backs, %u of them undone; %lu delivered, %lu received\n", tally.handBacks,
                tally.undone, delivered.load(), received.load());
    EXPECT_GT(tally.handBacks, 0U);
    EXPECT_EQ(tally.undone, 0U);
    EXPECT_EQ(received, delivered);
}

// --- As it comes, and with the moment stretched ------------------------------------------------

template <typename HandsOfThisKind>
void handBackInAStorm(const Source& source) {
    constexpr auto duration = std::chrono::milliseconds(300);
    HandsOfThisKind hands(source);
    Deliveries deliveries(source);
    Tally tally;
    const auto end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end) {
        hands.takeOver();
        deliveries.await(1);
        hands.handBack();
        look(source, deliveries, tally);
    }
    deliveries.end();
    expectNoneUndone(tally);
}

// The dispatch is about to install the library again when the signal is handed back, and does so
// afterwards.
template <typename HandsOfThisKind>
void handBackJustBeforeReinstallation(const Source& source) {
    constexpr unsigned int rounds = 10;
    HandsOfThisKind hands(source);
    std::atomic<bool> aboutToInstall{false};
    std::atomic<bool> handedBack{false};
    Deliveries deliveries(source, [&] {
        aboutToInstall = true;
        waitUpTo(stretchedMoment, [&handedBack] { return handedBack.load(); });
    });
    Tally tally;
    for (unsigned int round = 0; round < rounds; ++round) {
        handedBack = false;
        aboutToInstall = false;
        hands.takeOver();
        waitUpTo(childPatience, [&aboutToInstall] { return aboutToInstall.load(); });
        hands.handBack();
        handedBack = true;
        look(source, deliveries, tally);
    }
    deliveries.end();
    expectNoneUndone(tally);
}

// --- The tests ---------------------------------------------------------------------------------

TEST(HandBackWhileDispatching, OfAllSignalsStaysDone) {
    expectToGoOn([] { handBackInAStorm<StartAndStop>(raised); });
}

TEST(HandBackWhileDispatching, OfAllSignalsJustBeforeTheReinstallationStaysDone) {
    expectToGoOn([] { handBackJustBeforeReinstallation<StartAndStop>(raised); });
}

TEST(HandBackWhileDispatching, WithTheLastRecordStaysDone) {
    expectToGoOn([] { handBackInAStorm<HandleAndClear>(raised); });
}

TEST(HandBackWhileDispatching, WithTheLastRecordJustBeforeTheReinstallationStaysDone) {
    expectToGoOn([] { handBackJustBeforeReinstallation<HandleAndClear>(raised); });
}

TEST(HandBackWhileDispatching, OfAllFaultsThatTheHostRepairsStaysDone) {
    expectToGoOn([] { handBackInAStorm<StartAndStop>(repaired); });
}

TEST(HandBackWhileDispatching, OfAllFaultsJustBeforeTheReinstallationStaysDone) {
    expectToGoOn([] { handBackJustBeforeReinstallation<StartAndStop>(repaired); });
}

TEST(HandBackWhileDispatching, OfFaultsWithTheLastRecordStaysDone) {
    expectToGoOn([] { handBackInAStorm<HandleAndClear>(repaired); });
}

TEST(HandBackWhileDispatching, OfFaultsWithTheLastRecordJustBeforeTheReinstallationStaysDone) {
    expectToGoOn([] { handBackJustBeforeReinstallation<HandleAndClear>(repaired); });
}

}  // namespace
