// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What is sent to a thread while another one takes its signal over is called on the thread that it
// was sent to, once, with the context of what it interrupted, and with the signal held back, so
// that no handler is called inside itself.

#include <gtest/gtest.h>
#include <pthread.h>
#include <sorvane/svsignalhandlermanager.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>

#include "disturbed/limited_child.h"
#include "disturbed/stretched_sigaction.h"
#include "disturbed/waiting.h"
#include "support/joining_thread.h"
#include "support/system_actions.h"

namespace {

using Manager = Sorvane::SVSignalHandlerManager;
using When = StretchedSigaction::When;

// An ordinary one and a queued one, each sent by a thread to itself.
constexpr int ordinary = SIGUSR1;
const int queued = SIGRTMIN + 3;

// --- What is seen ------------------------------------------------------------------------------

std::atomic<unsigned long> onAnotherThread;
std::atomic<unsigned long> withoutContext;
std::atomic<unsigned long> notHeldBack;
std::atomic<unsigned long> insideItself;
std::atomic<unsigned long> outOfOrder;

// What a thread sends to itself, and what has come. Null for a thread that sends nothing.
struct Correspondence {
    volatile int sent = 0;
    volatile int received = 0;
    volatile int lastNumber = 0;
    volatile unsigned int depth = 0;
};
constinit thread_local Correspondence* own = nullptr;

bool heldBackQ(int signalNumber) {
    sigset_t heldBack;
    pthread_sigmask(SIG_BLOCK, nullptr, &heldBack);
    return sigismember(&heldBack, signalNumber) == 1;
}

void note(int signalNumber, siginfo_t* information, void* context) {
    withoutContext += context == nullptr ? 1U : 0U;
    notHeldBack += heldBackQ(signalNumber) ? 0U : 1U;
    if (own == nullptr) {
        ++onAnotherThread;
        return;
    }
    insideItself += own->depth == 0 ? 0U : 1U;
    own->depth = own->depth + 1;
    if (signalNumber == queued) {
        outOfOrder += information->si_value.sival_int == own->lastNumber + 1 ? 0U : 1U;
        own->lastNumber = information->si_value.sival_int;
    }
    own->received = own->received + 1;
    own->depth = own->depth - 1;
}

void expectAsSent() {
    EXPECT_EQ(onAnotherThread, 0U);
    EXPECT_EQ(withoutContext, 0U);
    EXPECT_EQ(notHeldBack, 0U);
    EXPECT_EQ(insideItself, 0U);
    EXPECT_EQ(outOfOrder, 0U);
}

// --- The threads -------------------------------------------------------------------------------

void sendTo(pthread_t thread, int signalNumber, int value) {
    if (signalNumber == queued) {
        sigval number = {};
        number.sival_int = value;
        pthread_sigqueue(thread, signalNumber, number);
    } else {
        pthread_kill(thread, signalNumber);
    }
}

// A thread that sends to itself. Each one has arrived when the call that sends it returns.
class Sender {
public:
    explicit Sender(int signalNumber)
        : m_signalNumber(signalNumber), m_thread([this] {
              own = &m_correspondence;
              while (!m_over) {
                  const int number = m_correspondence.sent + 1;
                  const int before = m_correspondence.received;
                  m_correspondence.sent = number;
                  sendTo(pthread_self(), m_signalNumber, number);
                  m_late += m_correspondence.received == before + 1 ? 0U : 1U;
                  m_count = static_cast<unsigned long>(number);
              }
          }) {}
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;
    ~Sender() { m_over = true; }

    unsigned long sent() const { return m_count; }

    // Ends it.
    void expectAllReceivedAtOnce() {
        m_over = true;
        m_thread.join();
        std::printf("%d sent, %d received by signal %d, %lu of them late\n", m_correspondence.sent,
                    m_correspondence.received, m_signalNumber, m_late);
        EXPECT_GT(m_correspondence.sent, 0);
        EXPECT_EQ(m_correspondence.received, m_correspondence.sent);
        EXPECT_EQ(m_late, 0U);
    }

private:
    const int m_signalNumber;
    Correspondence m_correspondence;
    unsigned long m_late = 0;
    std::atomic<unsigned long> m_count{0};
    std::atomic<bool> m_over{false};
    JoiningThread m_thread;
};

// --- As it comes, and with the moment stretched ------------------------------------------------

void expectAllInAStorm() {
    constexpr auto duration = std::chrono::milliseconds(800);
    hostInstalls(ordinary, note);
    hostInstalls(queued, note);
    Manager manager(true);
    Sender ordinarySender(ordinary);
    Sender queuedSender(queued);
    const auto end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end) {
        manager.handleSignal(ordinary);
        manager.handleSignal(queued);
    }
    ordinarySender.expectAllReceivedAtOnce();
    queuedSender.expectAllReceivedAtOnce();
    expectAsSent();
}

// The library is installed, and at first it is not recorded yet what the host had, while the other
// thread sends several.
void expectAllDuringATakeOver(int signalNumber) {
    constexpr unsigned int rounds = 10;
    constexpr unsigned long severalSignals = 5;
    hostInstalls(signalNumber, note);
    Manager manager(true);
    Sender sender(signalNumber);
    const StretchedSigaction stretched(signalNumber, When::after, [&sender] {
        const unsigned long enough = sender.sent() + severalSignals;
        waitUpTo(stretchedMoment, [&] { return sender.sent() >= enough; });
    });
    for (unsigned int round = 0; round < rounds; ++round) {
        manager.handleSignal(signalNumber);
    }
    sender.expectAllReceivedAtOnce();
    expectAsSent();
}

TEST(SentToAnotherThread, EachIsCalledThereOnceAsItWasSent) {
    expectToGoOn(expectAllInAStorm);
}

TEST(SentToAnotherThread, EachOrdinaryOneDuringATakeOverIsCalledThereAtOnce) {
    expectToGoOn([] { expectAllDuringATakeOver(ordinary); });
}

TEST(SentToAnotherThread, EachQueuedOneDuringATakeOverIsCalledThereAtOnce) {
    expectToGoOn([] { expectAllDuringATakeOver(queued); });
}

}  // namespace
