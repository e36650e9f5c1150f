// A signal of one thread that arrives while another thread takes that signal over, again and again.

#include <gtest/gtest.h>
#include <pthread.h>
#include <sorvane/svsignalhandlermanager.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "support/emulation.h"
#include "support/joining_thread.h"
#include "support/manager_fixture.h"
#include "support/sanitizers.h"

namespace {

class TakingOverOnAnotherThread : public ManagerTest {};

std::atomic<pthread_t> receiver;
std::atomic<unsigned int> arrived;
std::atomic<unsigned int> onAnotherThread;
std::atomic<unsigned int> withAnotherCode;
std::atomic<unsigned int> withoutContext;

void noteArrival(int, siginfo_t* information, void* context) {
    if (pthread_equal(pthread_self(), receiver.load()) == 0) {
        ++onAnotherThread;
    }
    if (information->si_code != SI_TKILL || information->si_pid != getpid()) {
        ++withAnotherCode;
    }
    if (context == nullptr) {
        ++withoutContext;
    }
    ++arrived;
}

void hostNotesArrivals() {
    struct sigaction action = {};
    action.sa_sigaction = noteArrival;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGUSR1, &action, nullptr);
}

TEST_F(TakingOverOnAnotherThread, EverySignalReachesItsThreadOnceAndAsItCame) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer delivers signals later, and without their context";
    }
    if (emulated) {
        GTEST_SKIP() << "the emulator refuses to send a code that it does not know";
    }
    hostNotesArrivals();
    Manager manager(true);
    manager.handleSignal(SIGUSR1);
    std::atomic<bool> over{false};
    const auto untilOver = [&over](auto action) {
        while (!over) {
            action();
        }
    };
    JoiningThread receiving([&] {
        receiver = pthread_self();
        untilOver([] { std::this_thread::yield(); });
    });
    JoiningThread takingOver([&] { untilOver([&manager] { manager.handleSignal(SIGUSR1); }); });
    while (receiver == 0) {
        std::this_thread::yield();
    }
    constexpr unsigned int signals = 500;
    for (unsigned int sent = 1; sent <= signals; ++sent) {
        pthread_kill(receiver, SIGUSR1);
        while (arrived < sent) {
            std::this_thread::yield();
        }
    }
    over = true;
    receiving.join();
    takingOver.join();
    EXPECT_EQ(arrived, signals);
    EXPECT_EQ(onAnotherThread, 0U);
    EXPECT_EQ(withAnotherCode, 0U);
    EXPECT_EQ(withoutContext, 0U);
}

}  // namespace
