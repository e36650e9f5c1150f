// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Storms: signals from several senders at once, while other threads change everything there is.
//
// By default each storm takes a second; SORVANE_STORM_SECONDS makes them longer, and then they tell
// how far they are.

#include <../support/svatomicref.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sorvane/svsignalhandlermanager.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "support/sanitizers.h"

namespace {

using Manager = Sorvane::SVSignalHandlerManager;
using Record = Sorvane::SVSignalHandler;
using RecordList = Sorvane::SVSignalHandlerList;
using Clock = std::chrono::steady_clock;

// --- What is counted
// ------------------------------------------------------------------------------

std::atomic<unsigned long> sent;
std::atomic<unsigned long> received;
std::atomic<unsigned long> receivedByHost;
std::atomic<unsigned long> nested;
std::atomic<unsigned long> changes;
std::atomic<bool> over;

int queuedSignal() {
    return SIGRTMIN + 3;
}

int timerSignal() {
    return SIGRTMIN + 4;
}

void steady(int, siginfo*, void*) {
    ++received;
}

void hostsSteady(int, siginfo*, void*) {
    ++receivedByHost;
}

std::atomic<unsigned long> hangups;

void hostsHangup(int, siginfo*, void*) {
    ++hangups;
}

template <int number>
void passing(int) {}

constexpr std::array<void (*)(int), 6> passingHandlers = {passing<0>, passing<1>, passing<2>,
                                                          passing<3>, passing<4>, passing<5>};

// The handler is a user of the component like any other.
void registering(int) {
    Manager inner(false);
    inner.setHandlerFromFunction(SIGUSR2, passing<0>);
    inner.clearHandlerWithFunction(SIGUSR2, passing<0>);
    ++nested;
}

// --- The senders
// ----------------------------------------------------------------------------------

// What every signal that arrives is counted in.
std::atomic<unsigned long>* exact = &received;

// With more of them on their way the threads would do nothing but receive. ThreadSanitizer drops
// some, so nobody can tell there how many are.
bool tooManyOnTheirWayQ() {
    constexpr unsigned long most = 200;
    return !builtWithThreadSanitizer && sent > *exact + most;
}

// Counted before, because the signal may arrive before sigqueue() returns.
void queueSignals() {
    while (!over) {
        if (builtWithThreadSanitizer || tooManyOnTheirWayQ()) {
            std::this_thread::yield();
        }
        if (tooManyOnTheirWayQ()) {
            continue;
        }
        ++sent;
        if (sigqueue(getpid(), queuedSignal(), sigval{}) != 0) {
            --sent;
        }
    }
}

void killAlways() {
    while (!over) {
        kill(getpid(), SIGUSR1);
        std::this_thread::yield();
    }
}

// Expirations that find their signal still pending are counted by the kernel as overruns, and not
// sent; so only that timers go on is demanded.
class Timer {
public:
    Timer() {
        sigevent event = {};
        event.sigev_notify = SIGEV_SIGNAL;
        event.sigev_signo = timerSignal();
        m_made = timer_create(CLOCK_MONOTONIC, &event, &m_timer) == 0;
        const itimerspec often = {{0, 200000}, {0, 200000}};
        m_made = m_made && timer_settime(m_timer, 0, &often, nullptr) == 0;
    }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;
    ~Timer() { timer_delete(m_timer); }

    bool madeQ() const { return m_made; }

private:
    timer_t m_timer = {};
    bool m_made = false;
};

// --- What is done meanwhile
// -----------------------------------------------------------------------

void registerAndClear() {
    Manager manager(true);
    while (!over) {
        for (const auto handler : passingHandlers) {
            manager.setHandlerFromFunction(queuedSignal(), handler);
        }
        for (const auto handler : passingHandlers) {
            manager.clearHandlerWithFunction(queuedSignal(), handler);
        }
        ++changes;
    }
}

void registerForManySignals() {
    Manager manager(true);
    while (!over) {
        for (int signalNumber = 20; signalNumber < 30; ++signalNumber) {
            manager.setHandlerFromFunction(signalNumber, passing<1>);
            manager.clearHandlerWithFunction(signalNumber, passing<1>);
        }
        ++changes;
    }
}

void replace() {
    Manager manager(true);
    RecordList records;
    for (const int flags : {SA_RESTART, SA_RESTART | SA_ONSTACK}) {
        struct sigaction action = {};
        action.sa_handler = passing<5>;
        action.sa_flags = flags;
        records.push_back(Record(queuedSignal(), action, false, false, true));
    }
    while (!over) {
        manager.setHandlers(records);
        ++changes;
    }
}

void makeAndDestroy() {
    while (!over) {
        Manager locking(true);
        const Manager other(false);
        locking.hasPreexistingOrExternalHandlerQ(queuedSignal());
        ++changes;
    }
}

void takeOver() {
    Manager manager(true);
    while (!over) {
        manager.handleSignal(queuedSignal());
        ++changes;
    }
}

// Stopped, the signal is the host's alone; started, it is the host's and the users'.
void startAndStop() {
    Manager manager(true);
    while (!over) {
        manager.stopHandlingSignals();
        manager.startHandlingSignals();
        ++changes;
    }
}

// --- A storm
// --------------------------------------------------------------------------------------

unsigned int longerSeconds() {
    const char* const text = std::getenv("SORVANE_STORM_SECONDS");
    return text == nullptr ? 0 : static_cast<unsigned int>(std::strtoul(text, nullptr, 10));
}

void waitAndTell() {
    const unsigned int longer = longerSeconds();
    const unsigned int seconds = longer == 0 ? 1 : longer;
    for (unsigned int second = 1; second <= seconds; ++second) {
        const auto next = Clock::now() + std::chrono::seconds(1);
        std::this_thread::sleep_until(next);
        if (longer != 0) {
            std::printf("  %u of %u s: %lu sent, %lu received, %lu nested, %lu rounds\n", second,
                        seconds, sent.load(), received.load(), nested.load(), changes.load());
            std::fflush(stdout);
        }
    }
}

// What was queued arrives before the signals of this thread are next looked at, one by one; those
// that other threads are just handling take as long as they take.
bool eventually(const std::function<bool()>& done) {
    constexpr auto patience = std::chrono::seconds(20);
    const auto end = Clock::now() + patience;
    while (!done() && Clock::now() < end) {
        std::this_thread::yield();
    }
    return done();
}

// The kernel gives a process's signals to its first thread as long as that takes them.
void setMask(int how) {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signalNumber : {queuedSignal(), timerSignal(), SIGUSR1}) {
        sigaddset(&signals, signalNumber);
    }
    pthread_sigmask(how, &signals, nullptr);
}

// No thread ends before all are done: what is sent to one that is just ending goes with it.
void storm(const std::vector<std::function<void()>>& bodies) {
    over = false;
    std::latch done(static_cast<std::ptrdiff_t>(bodies.size()));
    std::vector<std::thread> threads;
    for (const auto& body : bodies) {
        threads.emplace_back([&body, &done] {
            body();
            done.arrive_and_wait();
        });
    }
    setMask(SIG_BLOCK);
    waitAndTell();
    over = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    setMask(SIG_UNBLOCK);
    EXPECT_GT(changes.load(), 0U);
    std::printf("%lu sent, %lu received, %lu by the host, %lu nested, %lu rounds\n", sent.load(),
                received.load(), receivedByHost.load(), nested.load(), changes.load());
}

// ThreadSanitizer keeps one pending signal of each number for a thread, and drops the others.
void expectEachReceivedOnce(std::atomic<unsigned long>& count) {
    if (builtWithThreadSanitizer) {
        EXPECT_LE(count.load(), sent.load());
        EXPECT_GT(count.load(), 0U);
        return;
    }
    EXPECT_TRUE(eventually([&count] { return count == sent; })) << count << " received of " << sent;
    EXPECT_EQ(count.load(), sent.load());
}

long residentKilobytes() {
    std::ifstream status("/proc/self/statm");
    long total = 0;
    long resident = 0;
    status >> total >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

void hostInstalls() {
    struct sigaction action = {};
    action.sa_sigaction = hostsSteady;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigaction(queuedSignal(), &action, nullptr);
}

void forgetCounts() {
    for (auto* const count : {&sent, &received, &receivedByHost, &nested, &changes}) {
        *count = 0;
    }
    exact = &received;
}

class Storm : public ::testing::Test {
protected:
    void SetUp() override {
        forgetCounts();
        m_manager.setHandlerFromFunction(queuedSignal(), steady);
        m_manager.setHandlerFromFunction(SIGUSR1, registering);
        m_manager.setHandlerFromFunction(timerSignal(), steadyTimer);
    }
    // Declared, because the manager's own may throw, which a fixture's may not.
    ~Storm() noexcept override {}

    // Handled, the signals go back to the host with the last manager, and the records are
    // forgotten.
    void TearDown() override { m_manager.startHandlingSignals(); }

    static void steadyTimer(int) { ++s_ticks; }

    static inline std::atomic<unsigned long> s_ticks;
    Manager m_manager{true};
};

TEST_F(Storm, OverRegistrationAndReplacement) {
    m_manager.startHandlingSignals();
    const Timer timer;
    ASSERT_TRUE(timer.madeQ());
    storm({queueSignals, queueSignals, registerAndClear, registerForManySignals, replace});
    expectEachReceivedOnce(received);
    EXPECT_GT(s_ticks.load(), 0U);
}

TEST_F(Storm, OverBirthAndDeathOfManagers) {
    m_manager.startHandlingSignals();
    storm({queueSignals, queueSignals, makeAndDestroy, makeAndDestroy, registerAndClear});
    expectEachReceivedOnce(received);
    EXPECT_TRUE(eventually(
        [] { return Sorvane::SVAtomicRef<unsigned int>(Manager::numberOfManagers) == 1U; }));
}

TEST_F(Storm, WithHandlersThatRegister) {
    m_manager.startHandlingSignals();
    storm({queueSignals, killAlways, killAlways, registerAndClear, registerForManySignals});
    expectEachReceivedOnce(received);
    EXPECT_GT(nested.load(), 0U);
}

TEST_F(Storm, OverTakeOvers) {
    hostInstalls();
    m_manager.handleSignal(queuedSignal());
    storm({queueSignals, queueSignals, takeOver, takeOver, registerAndClear});
    expectEachReceivedOnce(received);
    expectEachReceivedOnce(receivedByHost);
}

// Every signal reaches the host's handler, stopped or not.
TEST_F(Storm, OverStartAndStop) {
    exact = &receivedByHost;
    hostInstalls();
    m_manager.startHandlingSignals();
    storm({queueSignals, queueSignals, startAndStop, registerAndClear});
    expectEachReceivedOnce(receivedByHost);
    EXPECT_LE(received.load(), sent.load());
}

TEST_F(Storm, FromOtherProcesses) {
    m_manager.startHandlingSignals();
    constexpr unsigned long each = 5000;
    const pid_t target = getpid();
    std::vector<pid_t> senders;
    for (int i = 0; i < 2; ++i) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (unsigned long done = 0; done < each;) {
                if (sigqueue(target, queuedSignal(), sigval{}) == 0) {
                    ++done;
                }
            }
            _exit(0);
        }
        senders.push_back(child);
    }
    storm({registerAndClear, makeAndDestroy});
    for (const pid_t sender : senders) {
        while (waitpid(sender, nullptr, 0) < 0 && errno == EINTR) {
        }
        sent += each;
    }
    expectEachReceivedOnce(received);
}

// The lock, the tables and the state of the signals come and go with every round.
TEST(StormOverTheLastManager, ThatComesAndGoesOnSeveralThreads) {
    forgetCounts();
    exact = &receivedByHost;
    std::signal(SIGUSR2, passing<0>);
    struct sigaction action = {};
    action.sa_sigaction = hostsSteady;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigaction(queuedSignal(), &action, nullptr);
    const auto live = [] {
        while (!over) {
            Manager manager(true);
            manager.setHandlerFromFunction(SIGUSR2, passing<1>);
            manager.startHandlingSignals();
            manager.clearHandlerWithFunction(SIGUSR2, passing<1>);
            ++changes;
        }
    };
    storm({queueSignals, live, live, live});
    EXPECT_EQ(Manager::numberOfManagers, 0U);
    expectEachReceivedOnce(receivedByHost);
}

void raiseOfTheHost() {
    while (!over) {
        if (pthread_sigqueue(pthread_self(), queuedSignal(), sigval{}) == 0) {
            ++sent;
        }
        raise(SIGHUP);
    }
}

using Handler = void (*)(int, siginfo*, void*);

void installsForHost(int signalNumber, Handler handler) {
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigaction(signalNumber, &action, nullptr);
}

Handler installedFor(int signalNumber) {
    struct sigaction action = {};
    sigaction(signalNumber, nullptr, &action);
    return action.sa_sigaction;
}

// SIGHUP would end the process without its host's handler. One that is kept, and sent again by
// another thread, may merge with the next one.
TEST(StormOverTheLastManager, LosesNoSignalOfTheHostNorItsHandler) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "the sanitizer's run-time library delivers signals later, and merged";
    }
    forgetCounts();
    exact = &receivedByHost;
    installsForHost(queuedSignal(), hostsSteady);
    installsForHost(SIGHUP, hostsHangup);
    const auto live = [] {
        while (!over) {
            Manager manager(false);
            manager.setHandlerFromFunction(queuedSignal(), steady);
            manager.setHandlerFromFunction(SIGHUP, steady);
            manager.startHandlingSignals();
            std::this_thread::yield();
            ++changes;
        }
    };
    storm({raiseOfTheHost, raiseOfTheHost, live});
    expectEachReceivedOnce(receivedByHost);
    EXPECT_GT(hangups.load(), 0U);
    EXPECT_EQ(installedFor(queuedSignal()), hostsSteady);
    EXPECT_EQ(installedFor(SIGHUP), hostsHangup);
    EXPECT_EQ(Manager::numberOfManagers, 0U);
}

// The second half of a storm may not need more memory than the first, but for the noise of the
// allocator.
TEST_F(Storm, DoesNotGrowMemory) {
    m_manager.startHandlingSignals();
    constexpr long noiseInKilobytes = 4096;
    storm({queueSignals, killAlways, registerAndClear, makeAndDestroy});
    const long afterFirst = residentKilobytes();
    storm({queueSignals, killAlways, registerAndClear, makeAndDestroy});
    const long afterSecond = residentKilobytes();
    std::printf("%ld KiB after the first half, %ld KiB after the second\n", afterFirst,
                afterSecond);
    if (!builtWithAddressSanitizer && !builtWithThreadSanitizer) {
        EXPECT_LT(afterSecond, afterFirst + noiseInKilobytes);
    }
}

}  // namespace
