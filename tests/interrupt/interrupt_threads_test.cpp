// Signals that arrive on one thread while another one takes them over, at its instructions one by
// one, by the processor's trap flag.

#include <gtest/gtest.h>
#include <pthread.h>
#include <sorvane/svsignalhandlermanager.h>
#include <unistd.h>

#include <atomic>
#include <csignal>

#include "support/emulation.h"
#include "support/gate.h"
#include "support/joining_thread.h"
#include "support/single_steps.h"

#if defined(__x86_64__) || defined(__i386__)

namespace {

using Manager = Sorvane::SVSignalHandlerManager;

// Of those that are queued, so that none is lost when several are sent again at once.
int signalNumber;

// --- The thread that takes over: waits, at some of its instructions after which a signal is kept,
// until one has arrived on the other thread. A later one might overtake what is kept.

constexpr unsigned int instructionsBetween = 13;
constexpr unsigned int mostQuestions = 60;

std::atomic<unsigned int> questions;
std::atomic<bool> takenOver;
Gate question;
Gate answer;

void hostsHandler(int, siginfo_t*, void*);

bool keptQ() {
    struct sigaction action = {};
    sigaction(signalNumber, nullptr, &action);
    const auto* const table = Manager::handlerTables->get(signalNumber - 1);
    return action.sa_sigaction == &actualSignalHandler && table != nullptr &&
           !table->value->has_key(reinterpret_cast<void*>(&hostsHandler));
}

void askForASignal(int) {
    static unsigned int instructions = 0;
    if (questions == mostQuestions || ++instructions % instructionsBetween != 0 || !keptQ()) {
        return;
    }
    ++questions;
    question.open();
    answer.pass();
}

void takeOver(Manager& manager) {
    {
        const SingleSteps steps;
        manager.handleSignal(signalNumber);
    }
    takenOver = true;
    question.open();
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
void receiveWhileAnotherThreadTakesOver(int taken, int code, Send send) {
    signalNumber = taken;
    questions = 0;
    takenOver = false;
    arrived = 0;
    receiver = gettid();
    expectedCode = code;
    struct sigaction host = {};
    host.sa_sigaction = hostsHandler;
    host.sa_flags = SA_SIGINFO;
    sigaction(signalNumber, &host, nullptr);
    std::signal(SIGTRAP, askForASignal);
    Manager manager(false);
    JoiningThread other([&manager] { takeOver(manager); });
    for (question.pass(); !takenOver; question.pass()) {
        send(static_cast<int>(questions));
        answer.open();
    }
    other.join();
    EXPECT_GT(questions, 10U);
    EXPECT_EQ(arrived, questions);
    EXPECT_EQ(onAnotherThread, 0U);
    EXPECT_EQ(withAnotherCode, 0U);
}

class TakeOverByAnotherThread : public testing::Test {
protected:
    void SetUp() override {
        if (underValgrindQ()) {
            GTEST_SKIP() << "valgrind has no trap flag";
        }
    }
};

// A code that the kernel keeps for itself when one thread sends to another.
TEST_F(TakeOverByAnotherThread, KeepsThreadAndCodeOfWhatWasSentToOne) {
    receiveWhileAnotherThreadTakesOver(SIGRTMIN + 3, SI_TKILL,
                                       [](int) { std::raise(signalNumber); });
}

TEST_F(TakeOverByAnotherThread, KeepsOrderAndValuesOfWhatWasQueued) {
    receiveWhileAnotherThreadTakesOver(SIGRTMIN + 4, SI_QUEUE, [](int value) {
        pthread_sigqueue(pthread_self(), signalNumber, sigval{.sival_int = value});
    });
    EXPECT_EQ(outOfOrder, 0U);
    EXPECT_EQ(lastValue, static_cast<int>(questions.load()));
}

}  // namespace

#endif
