// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The works as the library does them.

#include <sorvane/svsignalhandlermanager.h>
#include <csignal>
#include <string_view>
#include <thread>
#include <vector>

#include "block.h"
#include "handlers.h"

namespace {

using Sorvane::SVSignalHandlerManager;

constexpr int theSignal = SIGUSR1;

void registerOn(SVSignalHandlerManager& manager, int signalNumber, int count) {
    for (int i = 0; i < count; ++i) {
        manager.setHandlerFromFunction(signalNumber, Bench::handlers[static_cast<std::size_t>(i)]);
    }
}

int delivered(int records) {
    SVSignalHandlerManager manager(true);
    registerOn(manager, theSignal, records);
    manager.startHandlingSignals();
    return Bench::serveCounted(records, [] { Bench::raiseOnThisThread(theSignal); });
}

int direct(int records) {
    SVSignalHandlerManager manager(true);
    registerOn(manager, theSignal, records);
    manager.startHandlingSignals();
    siginfo_t information = {};
    return Bench::serveCounted(records,
                               [&] { actualSignalHandler(theSignal, &information, nullptr); });
}

// A handler is registered and cleared beside others on the signal, while signals are handled.
int pair(int others) {
    SVSignalHandlerManager manager(true);
    registerOn(manager, theSignal, others);
    registerOn(manager, SIGUSR2, 1);
    manager.startHandlingSignals();
    const Bench::Handler last = Bench::handlers.back();
    return Bench::serveWork(
        [&] {
            manager.setHandlerFromFunction(theSignal, last);
            manager.clearHandlerWithFunction(theSignal, last);
        },
        [&](long) {
            Bench::calls = 0;
            manager.setHandlerFromFunction(theSignal, last);
            Bench::raiseOnThisThread(theSignal);
            manager.clearHandlerWithFunction(theSignal, last);
            Bench::raiseOnThisThread(theSignal);
            Bench::expect("calls", Bench::calls, 2 * others + 1);
        });
}

int startOrStop(bool starting, int count) {
    SVSignalHandlerManager manager(true);
    const auto signals = Bench::allSignals();
    for (int index = 0; index < count; ++index) {
        registerOn(manager, signals[static_cast<std::size_t>(index)], 1);
    }
    return Bench::serve([&](long times) {
        double started = 0;
        double stopped = 0;
        for (long i = 0; i < times; ++i) {
            started += Bench::timed([&] { manager.startHandlingSignals(); });
            stopped += Bench::timed([&] { manager.stopHandlingSignals(); });
        }
        struct sigaction left;
        sigaction(signals[0], nullptr, &left);
        Bench::expect("ignored", left.sa_handler == SIG_IGN ? 1 : 0, 1);
        return starting ? started : stopped;
    });
}

template <typename Work>
double onThreads(int threads, long times, Work work) {
    return Bench::timed([&] {
        std::vector<std::thread> all;
        for (int i = 0; i < threads; ++i) {
            all.emplace_back([&work, times, threads, i] {
                for (long k = 0; k < times / threads; ++k) {
                    work(i);
                }
                Bench::expect("calls", Bench::calls, times / threads);
            });
        }
        for (std::thread& thread : all) {
            thread.join();
        }
    });
}

// Each thread has a signal of its own.
int raising(int threads) {
    SVSignalHandlerManager manager(true);
    registerOn(manager, SIGUSR1, 1);
    registerOn(manager, SIGUSR2, 1);
    manager.startHandlingSignals();
    return Bench::serve([threads](long times) {
        return onThreads(threads, times, [](int thread) {
            Bench::raiseOnThisThread(thread % 2 == 0 ? SIGUSR1 : SIGUSR2);
        });
    });
}

int calling(int threads) {
    SVSignalHandlerManager manager(false);
    registerOn(manager, SIGUSR1, 1);
    registerOn(manager, SIGUSR2, 1);
    return Bench::serve([&manager, threads](long times) {
        return onThreads(threads, times, [&manager](int thread) {
            manager.callHandlers(thread % 2 == 0 ? SIGUSR1 : SIGUSR2, nullptr, nullptr);
        });
    });
}

template <typename Table>
long bytesOf(const Table& table) {
    const bool onHeap = table.table != table.smalltable;
    return static_cast<long>(sizeof(table) +
                             (onHeap ? (table.mask + 2) * sizeof(typename Table::Entry) : 0));
}

long pagesInUse() {
    long all = 0;
    long resident = 0;
    std::FILE* const file = std::fopen("/proc/self/statm", "r");
    if (file == nullptr || std::fscanf(file, "%ld %ld", &all, &resident) != 2) {
        Bench::fail("pages", resident, 1);
    }
    std::fclose(file);
    return resident;
}

// Prints the bytes that the tables take, and how many pages half a million pairs add after as many.
int memory(int signalCount, int handlersEach) {
    SVSignalHandlerManager manager(true);
    int made = 0;
    for (const int signalNumber : Bench::allSignals()) {
        if (made++ < signalCount) {
            registerOn(manager, signalNumber, handlersEach);
        }
    }
    manager.startHandlingSignals();
    const auto& tables = *SVSignalHandlerManager::handlerTables;
    long taken = bytesOf(tables);
    for (auto position = tables.begin(); position != tables.end(); position++) {
        taken += bytesOf(*position.GetValue());
    }
    const auto registerAndClear = [&manager](long times) {
        for (long i = 0; i < times; ++i) {
            manager.setHandlerFromFunction(theSignal, Bench::handlers.back());
            manager.clearHandlerWithFunction(theSignal, Bench::handlers.back());
        }
    };
    registerAndClear(500000);
    // The first look takes pages itself.
    pagesInUse();
    const long before = pagesInUse();
    registerAndClear(500000);
    std::printf("%ld %ld\n", taken, pagesInUse() - before);
    return 0;
}

}  // namespace

int main(int count, char** arguments) {
    const std::string_view work = count > 1 ? arguments[1] : "";
    const int size = count > 2 ? std::atoi(arguments[2]) : 1;
    if (work == "delivered")
        return delivered(size);
    if (work == "direct")
        return direct(size);
    if (work == "pair")
        return pair(size);
    if (work == "start")
        return startOrStop(true, size);
    if (work == "stop")
        return startOrStop(false, size);
    if (work == "raising")
        return raising(size);
    if (work == "calling")
        return calling(size);
    if (work == "memory")
        return memory(size, count > 3 ? std::atoi(arguments[3]) : 1);
    std::fprintf(stderr, "library: no such work\n");
    return 2;
}
