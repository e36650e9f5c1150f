// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A collector stops a thread by a signal in the middle of an operation, goes through its own
// barrier, a fault that the host repairs, and lets the thread go on.

#include <gtest/gtest.h>
#include <pthread.h>
#include <sorvane/svsignalhandlermanager.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <thread>

#include "disturbed/limited_child.h"
#include "disturbed/stretched_sigaction.h"
#include "disturbed/waiting.h"
#include "support/faults.h"
#include "support/gate.h"
#include "support/joining_thread.h"
#include "support/system_actions.h"

namespace {

using Manager = Sorvane::SVSignalHandlerManager;
using Record = Sorvane::SVSignalHandler;
using When = StretchedSigaction::When;

const ClosedPage* heap = nullptr;
std::atomic<unsigned long> repaired;

void repair(int, siginfo_t*, void*) {
    heap->open();
    ++repaired;
}

// The signal that stops a thread is none of the library's.
Gate* stopped = nullptr;
Gate* goingOn = nullptr;

void stop(int) {
    stopped->open();
    goingOn->pass();
}

// The process of a collector: a heap, and a thread that may be stopped at any moment.
class Collector {
public:
    Collector() {
        heap = &m_heap;
        stopped = &m_stopped;
        goingOn = &m_goingOn;
        hostInstalls(SIGUSR2, stop);
        hostInstalls(SIGSEGV, repair);
    }

    void collect(pthread_t thread) {
        pthread_kill(thread, SIGUSR2);
        m_stopped.pass();
        m_heap.close();
        writeTo(m_heap.address());
        m_goingOn.open();
        ++m_collections;
    }
    unsigned long collections() const { return m_collections; }

private:
    ClosedPage m_heap;
    Gate m_stopped;
    Gate m_goingOn;
    std::atomic<unsigned long> m_collections{0};
};

void takeOverAndHandBack(Manager& manager) {
    Record host(SIGSEGV, repair, true, true, true);
    manager.handleSignal(SIGSEGV);
    manager.clearHandler(host);
}

// Another while each time.
void waitALittle(unsigned long number) {
    constexpr unsigned long longest = 997;
    for (unsigned long i = 0; i < number % longest; ++i) {
        asm volatile("");
    }
}

// Just installed, and not recorded yet.
TEST(StoppedByACollector, ATakeOverStandsInTheWayOfNoRepair) {
    expectToGoOn([] {
        Collector collector;
        Manager manager(true);
        std::atomic<bool> installed{false};
        JoiningThread collecting([&, thread = pthread_self()] {
            waitUpTo(childPatience, [&installed] { return installed.load(); });
            collector.collect(thread);
        });
        {
            const StretchedSigaction stretched(SIGSEGV, When::after, [&] {
                installed = true;
                waitUpTo(stretchedMoment, [&collector] { return collector.collections() != 0; });
            });
            manager.handleSignal(SIGSEGV);
        }
        collecting.join();
        EXPECT_EQ(repaired, 1U);
    });
}

TEST(StoppedByACollector, NoOperationStandsInTheWayOfARepair) {
    expectToGoOn([] {
        constexpr auto duration = std::chrono::milliseconds(500);
        Collector collector;
        std::atomic<unsigned long> takeOvers{0};
        std::atomic<bool> over{false};
        JoiningThread collecting([&, thread = pthread_self()] {
            while (!over) {
                const unsigned long before = takeOvers;
                waitALittle(collector.collections());
                collector.collect(thread);
                // Or the thread would do nothing but stop.
                while (takeOvers == before && !over) {
                    std::this_thread::yield();
                }
            }
        });
        const auto end = std::chrono::steady_clock::now() + duration;
        Manager manager(true);
        while (std::chrono::steady_clock::now() < end) {
            takeOverAndHandBack(manager);
            ++takeOvers;
        }
        over = true;
        collecting.join();
        std::printf("%lu take-overs, %lu collections, %lu repairs\n", takeOvers.load(),
                    collector.collections(), repaired.load());
        EXPECT_EQ(repaired, collector.collections());
        EXPECT_GT(takeOvers, 0U);
    });
}

}  // namespace
