// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What a work costs without the library: the system calls that it must make, and dispatches that
// are written by hand.

#include <pthread.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string_view>
#include <thread>
#include <vector>

#include "block.h"
#include "handlers.h"

namespace {

constexpr int theSignal = SIGUSR1;

// --- A handler that installs itself again --------------------------------------------------------

struct sigaction bareAction;

void bare(int signalNumber, siginfo_t*, void*) {
    Bench::calls = Bench::calls + 1;
    sigaction(signalNumber, &bareAction, nullptr);
}

void installBare() {
    bareAction.sa_sigaction = &bare;
    bareAction.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
    sigaction(theSignal, &bareAction, nullptr);
}

// --- The same rules, by hand, for tables that never change ---------------------------------------

struct Record {
    std::atomic<Bench::Handler> handler;
    std::atomic<bool> valid;
};
struct Table {
    std::atomic<int> count{0};
    Record records[Bench::most];
};
Table table;
std::atomic<Table*> published{nullptr};
std::atomic<unsigned int> managers{1};
struct sigaction idealAction;

void ideal(int signalNumber, siginfo_t*, void*) {
    const int saved = errno;
    managers.fetch_add(1);
    if (Table* const now = published.load(std::memory_order_acquire)) {
        const int count = now->count.load(std::memory_order_relaxed);
        for (int i = 0; i < count; ++i) {
            if (now->records[i].valid.load(std::memory_order_relaxed)) {
                now->records[i].handler.load(std::memory_order_relaxed)(signalNumber);
            }
        }
    }
    struct sigaction displaced;
    sigaction(signalNumber, &idealAction, &displaced);
    managers.fetch_sub(1);
    errno = saved;
}

void installIdeal(int records) {
    for (int i = 0; i < records; ++i) {
        table.records[i].handler = Bench::handlers[static_cast<std::size_t>(i)];
        table.records[i].valid = true;
    }
    table.count = records;
    published = &table;
    idealAction.sa_sigaction = &ideal;
    idealAction.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
    sigaction(theSignal, &idealAction, nullptr);
}

// --- Works ---------------------------------------------------------------------------------------

template <typename Work>
int serveUncounted(Work work) {
    return Bench::serveWork(work, [](long) {});
}

int delivered() {
    installBare();
    return Bench::serveCounted(1, [] { Bench::raiseOnThisThread(theSignal); });
}

int deliveredIdeal(int records) {
    installIdeal(records);
    return Bench::serveCounted(records, [] { Bench::raiseOnThisThread(theSignal); });
}

// What a handler does that installs itself again.
int installation() {
    installBare();
    return serveUncounted([] { sigaction(theSignal, &bareAction, nullptr); });
}

int directIdeal(int records) {
    installIdeal(records);
    siginfo_t information = {};
    return Bench::serveCounted(records, [&] { ideal(theSignal, &information, nullptr); });
}

// A registration and a clearing: the mask is changed four times, the library installed once.
int pair() {
    installBare();
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    return serveUncounted([&] {
        struct sigaction displaced;
        pthread_sigmask(SIG_BLOCK, &all, &before);
        sigaction(theSignal, &bareAction, &displaced);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        pthread_sigmask(SIG_BLOCK, &all, &before);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    });
}

// Replaces the actions of the first signals by another one, each with all signals held back.
template <typename Replace>
int serveReplacing(int count, const struct sigaction& before, Replace replace) {
    const auto signals = Bench::allSignals();
    const auto forEach = [&](auto work) {
        for (int index = 0; index < count; ++index) {
            work(signals[static_cast<std::size_t>(index)]);
        }
    };
    sigset_t all;
    sigfillset(&all);
    return Bench::serve([&](long times) {
        double taken = 0;
        for (long i = 0; i < times; ++i) {
            forEach([&](int signalNumber) { sigaction(signalNumber, &before, nullptr); });
            taken += Bench::timed([&] {
                forEach([&](int signalNumber) {
                    sigset_t mask;
                    pthread_sigmask(SIG_BLOCK, &all, &mask);
                    replace(signalNumber);
                    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
                });
            });
        }
        return taken;
    });
}

struct sigaction ignoring() {
    struct sigaction action = {};
    action.sa_handler = SIG_IGN;
    return action;
}

// The host is asked for its action, too.
int start(int count) {
    installBare();
    return serveReplacing(count, ignoring(), [](int signalNumber) {
        struct sigaction found;
        sigaction(signalNumber, nullptr, &found);
        sigaction(signalNumber, &bareAction, &found);
    });
}

int stop(int count) {
    installBare();
    return serveReplacing(count, bareAction, [after = ignoring()](int signalNumber) {
        struct sigaction found;
        sigaction(signalNumber, &after, &found);
    });
}

// Each thread raises a signal of its own; the time is that of them all.
int raising(int threads) {
    installBare();
    sigaction(SIGUSR2, &bareAction, nullptr);
    return Bench::serve([threads](long times) {
        return Bench::timed([&] {
            std::vector<std::thread> all;
            for (int i = 0; i < threads; ++i) {
                all.emplace_back([times, threads, i] {
                    for (long k = 0; k < times / threads; ++k) {
                        Bench::raiseOnThisThread(i % 2 == 0 ? SIGUSR1 : SIGUSR2);
                    }
                    Bench::expect("calls", Bench::calls, times / threads);
                });
            }
            for (std::thread& thread : all) {
                thread.join();
            }
        });
    });
}

}  // namespace

int main(int count, char** arguments) {
    const std::string_view work = count > 1 ? arguments[1] : "";
    const int size = count > 2 ? std::atoi(arguments[2]) : 1;
    if (work == "delivered")
        return delivered();
    if (work == "delivered-ideal")
        return deliveredIdeal(size);
    if (work == "installation")
        return installation();
    if (work == "direct-ideal")
        return directIdeal(size);
    if (work == "pair")
        return pair();
    if (work == "start")
        return start(size);
    if (work == "stop")
        return stop(size);
    if (work == "raising")
        return raising(size);
    std::fprintf(stderr, "bare: no such work\n");
    return 2;
}
