// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The works as the library does them.

#include <poll.h>
#include <sorvane/svsignalevents.h>
#include <sorvane/svsignalhandlermanager.h>

#include <csignal>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string_view>
#include <vector>

#include "block.h"
#include "handlers.h"
#include "loop.h"
#include "threads.h"
#include "works.h"

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

int raising(int threads) {
    SVSignalHandlerManager manager(true);
    registerOn(manager, SIGUSR1, 1);
    registerOn(manager, SIGUSR2, 1);
    manager.startHandlingSignals();
    return Bench::serveRaising(threads);
}

int calling(int threads) {
    SVSignalHandlerManager manager(false);
    registerOn(manager, SIGUSR1, 1);
    registerOn(manager, SIGUSR2, 1);
    return Bench::serve([&manager, threads](long times) {
        return Bench::timedOnThreads(threads, times, [&manager](int thread) {
            manager.callHandlers(thread % 2 == 0 ? SIGUSR1 : SIGUSR2, nullptr, nullptr);
        });
    });
}

// So many that take the same signal in, and are looked after by one loop.
int looped(int records) {
    std::vector<std::unique_ptr<Sorvane::SVSignalEvents>> all;
    std::vector<pollfd> readable;
    for (int i = 0; i < records; ++i) {
        all.push_back(
            std::make_unique<Sorvane::SVSignalEvents>(std::initializer_list<int>{theSignal}));
        readable.push_back({all.back()->getFileDescriptor(), POLLIN, 0});
    }
    return Bench::serveLooped(theSignal, records, [&] {
        poll(readable.data(), readable.size(), 0);
        for (std::size_t i = 0; i < readable.size(); ++i) {
            siginfo_t information;
            while ((readable[i].revents & POLLIN) != 0 && all[i]->next(information)) {
                Bench::handlers[i](theSignal);
            }
        }
    });
}

int start(int count) {
    return startOrStop(true, count);
}

int stop(int count) {
    return startOrStop(false, count);
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
    if (count > 3 && std::string_view(arguments[1]) == "memory") {
        return memory(std::atoi(arguments[2]), std::atoi(arguments[3]));
    }
    return Bench::serveNamed(count, arguments,
                             {{"delivered", &delivered},
                              {"direct", &direct},
                              {"looped", &looped},
                              {"pair", &pair},
                              {"start", &start},
                              {"stop", &stop},
                              {"raising", &raising},
                              {"calling", &calling}});
}
