// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A handler of the host's own, for a signal that the library knows nothing of, interrupts the heap
// and uses a manager without the lock: nothing that it does there uses the heap.
//
// The heap is this program's. In the middle of its work, where heaps hold a lock, it has a signal,
// and whoever uses it before it can go on ends the process, instead of waiting for ever.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "disturbed/limited_child.h"
#include "support/system_actions.h"

// --- The heap ----------------------------------------------------------------------------------

namespace {

// Both are of one thread: the one that has the signal, in the heap, and goes on with the handler.
volatile bool signalWanted = false;
volatile bool insideHeap = false;

void mustNotBeUsed(const char* what) {
    if (!insideHeap) {
        return;
    }
    insideHeap = false;
    for (const char* const part : {what, " was used by the handler that interrupted the heap\n"}) {
        if (write(STDERR_FILENO, part, std::strlen(part)) < 0) {
            break;
        }
    }
    std::abort();
}

void haveSignalInside() {
    if (signalWanted) {
        signalWanted = false;
        insideHeap = true;
        raise(SIGUSR1);
        insideHeap = false;
    }
}

}  // namespace

extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);

void* malloc(std::size_t size) {
    mustNotBeUsed("malloc");
    haveSignalInside();
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
    mustNotBeUsed("calloc");
    return __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size) {
    mustNotBeUsed("realloc");
    return __libc_realloc(block, size);
}

void* memalign(std::size_t alignment, std::size_t size) {
    mustNotBeUsed("memalign");
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
    mustNotBeUsed("aligned_alloc");
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
    mustNotBeUsed("posix_memalign");
    *block = __libc_memalign(alignment, size);
    return *block == nullptr ? ENOMEM : 0;
}

void free(void* block) {
    mustNotBeUsed("free");
    haveSignalInside();
    __libc_free(block);
}
}

namespace {

using Manager = Sorvane::SVSignalHandlerManager;

// --- The handlers ------------------------------------------------------------------------------

volatile unsigned int calls = 0;

template <int number>
void count(int) {
    calls = calls + 1;
}

// More than fit into a table that has not grown.
constexpr std::array<void (*)(int), 7> handlers = {count<0>, count<1>, count<2>, count<3>,
                                                   count<4>, count<5>, count<6>};

std::optional<Manager> manager;
volatile bool handled = false;

void registerAndClear(int) {
    Manager inner(false);
    for (const auto handler : handlers) {
        inner.setHandlerFromFunction(SIGUSR2, handler);
    }
    for (int signalNumber = SIGRTMIN; signalNumber < SIGRTMIN + 8; ++signalNumber) {
        inner.setHandlerFromFunction(signalNumber, handlers[0]);
    }
    for (const auto handler : handlers) {
        inner.clearHandlerWithFunction(SIGUSR2, handler);
    }
    handled = true;
}

void takeOverAndHandBack(int) {
    Manager inner(false);
    inner.handleSignal(SIGUSR2);
    inner.stopHandlingSignal(SIGUSR2);
    inner.handleSignal(SIGUSR2);
    inner.restorePreviouslyExistingHandlers();
    handled = true;
}

void startAndStop(int) {
    Manager inner(false);
    inner.startHandlingSignals();
    inner.stopHandlingSignals();
    inner.startHandlingSignals();
    handled = true;
}

// The tables that it takes down at first have been made outside of any handler.
void makeTheFirstManagerAndDestroyTheLast(int) {
    manager->startHandlingSignals();
    manager.reset();
    for (int i = 0; i < 2; ++i) {
        Manager inner(false);
        inner.setHandlerFromFunction(SIGUSR2, handlers[0]);
        inner.startHandlingSignals();
        raise(SIGUSR2);
    }
    handled = true;
}

// --- The tests ---------------------------------------------------------------------------------

// Volatile, or the compiler finds that nobody needs the block.
void useTheHeap(int) {
    void* volatile const block = std::malloc(1);
    std::free(block);
}

void interruptTheHeap(void (*handler)(int)) {
    hostInstalls(SIGUSR1, handler);
    hostInstalls(SIGUSR2, count<7>);
    manager.emplace(false);
    manager->setHandlerFromFunction(SIGUSR2, handlers[0]);
    manager->setHandlerFromFunction(SIGWINCH, handlers[0]);
    signalWanted = true;
    useTheHeap(0);
    EXPECT_TRUE(handled);
}

TEST(HandlerOfTheHost, IsNoticedWhenItUsesTheHeapThatItInterrupted) {
    const ChildEnd end = inLimitedChild([] { interruptTheHeap(useTheHeap); });
    EXPECT_TRUE(end.endedBySignalQ(SIGABRT)) << end;
}

TEST(HandlerOfTheHost, RegistersAndClearsWithoutTheHeapThatItInterrupted) {
    expectToGoOn([] { interruptTheHeap(registerAndClear); });
}

TEST(HandlerOfTheHost, TakesOverAndHandsBackWithoutTheHeapThatItInterrupted) {
    expectToGoOn([] {
        interruptTheHeap(takeOverAndHandBack);
        EXPECT_FALSE(takenOverQ(SIGUSR2));
    });
}

TEST(HandlerOfTheHost, StartsAndStopsWithoutTheHeapThatItInterrupted) {
    expectToGoOn([] {
        interruptTheHeap(startAndStop);
        EXPECT_TRUE(takenOverQ(SIGUSR2));
    });
}

TEST(HandlerOfTheHost, MakesAndDestroysTheOnlyManagerWithoutTheHeapThatItInterrupted) {
    expectToGoOn([] {
        interruptTheHeap(makeTheFirstManagerAndDestroyTheLast);
        EXPECT_EQ(calls, 4U);
        EXPECT_FALSE(takenOverQ(SIGUSR2));
    });
}

}  // namespace
