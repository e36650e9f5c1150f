// Signals that arrive on one thread while another one takes them over, at its instructions one by
// one, by the processor's trap flag.

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sorvane/svsignalhandlermanager.h>
#include <unistd.h>

#include <atomic>
#include <csignal>

#include "support/joining_thread.h"

#if defined(__x86_64__) || defined(__i386__)

#if defined(__x86_64__)
#define SORVANE_FLAGS_ON "pushfq; orq $0x100,(%%rsp); popfq"
#define SORVANE_FLAGS_OFF "pushfq; andq $~0x100,(%%rsp); popfq"
#else
#define SORVANE_FLAGS_ON "pushfl; orl $0x100,(%%esp); popfl"
#define SORVANE_FLAGS_OFF "pushfl; andl $~0x100,(%%esp); popfl"
#endif

namespace {

using Manager = Sorvane::SVSignalHandlerManager;

// Queued, so that none is lost when several are sent again at once.
int queuedSignal() {
    return SIGRTMIN + 3;
}

// --- The thread that takes over: waits, at some of its instructions once the action is swapped,
// until a signal has arrived on the other thread.

constexpr unsigned int instructionsBetween = 37;
constexpr unsigned int mostQuestions = 200;

std::atomic<unsigned int> asked;
std::atomic<unsigned int> answered;
std::atomic<bool> takenOver;

bool actionSwappedQ() {
    struct sigaction action = {};
    sigaction(queuedSignal(), nullptr, &action);
    return action.sa_sigaction == &actualSignalHandler;
}

void askForASignal(int) {
    static unsigned int instructions = 0;
    if (asked == mostQuestions || ++instructions % instructionsBetween != 0 || !actionSwappedQ()) {
        return;
    }
    const unsigned int question = ++asked;
    while (answered != question) {
        sched_yield();
    }
}

void takeOver(Manager& manager) {
    asm volatile(SORVANE_FLAGS_ON ::: "memory", "cc");
    manager.handleSignal(queuedSignal());
    asm volatile(SORVANE_FLAGS_OFF ::: "memory", "cc");
    takenOver = true;
}

// --- The thread that the signals are for

pid_t receiver;
unsigned int arrived;
unsigned int onAnotherThread;
int lastValue;
unsigned int outOfOrder;
int expectedCode;
unsigned int withAnotherCode;

void hostsHandler(int, siginfo_t* information, void*) {
    onAnotherThread += gettid() == receiver ? 0U : 1U;
    withAnotherCode += information->si_code == expectedCode ? 0U : 1U;
    outOfOrder += information->si_value.sival_int >= lastValue ? 0U : 1U;
    lastValue = information->si_value.sival_int;
    ++arrived;
}

template <typename Send>
void receiveWhileAnotherThreadTakesOver(int code, Send send) {
    asked = 0;
    answered = 0;
    takenOver = false;
    arrived = 0;
    receiver = gettid();
    expectedCode = code;
    struct sigaction host = {};
    host.sa_sigaction = hostsHandler;
    host.sa_flags = SA_SIGINFO;
    sigaction(queuedSignal(), &host, nullptr);
    std::signal(SIGTRAP, askForASignal);
    Manager manager(false);
    JoiningThread other([&manager] { takeOver(manager); });
    while (!takenOver) {
        const unsigned int question = asked;
        if (answered != question) {
            send(static_cast<int>(question));
            answered = question;
        }
        sched_yield();
    }
    other.join();
    EXPECT_GT(asked, 10U);
    EXPECT_EQ(arrived, asked);
    EXPECT_EQ(onAnotherThread, 0U);
    EXPECT_EQ(withAnotherCode, 0U);
}

// A code that the kernel keeps for itself when one thread sends to another.
TEST(TakeOverByAnotherThread, KeepsThreadAndCodeOfWhatWasSentToOne) {
    receiveWhileAnotherThreadTakesOver(SI_TKILL, [](int) { std::raise(queuedSignal()); });
}

TEST(TakeOverByAnotherThread, KeepsOrderAndValuesOfWhatWasQueued) {
    receiveWhileAnotherThreadTakesOver(SI_QUEUE, [](int value) {
        pthread_sigqueue(pthread_self(), queuedSignal(), sigval{.sival_int = value});
    });
    EXPECT_EQ(outOfOrder, 0U);
    EXPECT_EQ(lastValue, static_cast<int>(asked.load()));
}

}  // namespace

#endif
