// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// An operation fails because there is no memory left, while signals arrive on other threads, in the
// middle of the heap, or while SIGTRAP arrives, which is never held back: it fails with its
// exception, and every signal is called.
//
// The heap is this program's, and has one lock for all threads.

#include <gtest/gtest.h>
#include <pthread.h>
#include <sorvane/svsignalhandlermanager.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <thread>

#include "disturbed/limited_child.h"
#include "disturbed/waiting.h"
#include "support/joining_thread.h"
#include "support/memory_limit.h"
#include "support/single_steps.h"
#include "support/stepping.h"

// --- The heap ----------------------------------------------------------------------------------

namespace {

// As much of a lock as a heap needs; it is given to its users in their order. A handler that used
// it would wait for the thread that it interrupted.
class HeapLock {
public:
    HeapLock() noexcept {
        const unsigned int turn = s_last.fetch_add(1);
        while (s_next != turn) {
            std::this_thread::yield();
        }
    }
    HeapLock(const HeapLock&) = delete;
    HeapLock& operator=(const HeapLock&) = delete;
    ~HeapLock() { ++s_next; }

private:
    static inline constinit std::atomic<unsigned int> s_last{0};
    static inline constinit std::atomic<unsigned int> s_next{0};
};

// Whether this thread has a signal whenever it is in the heap; and how often that has been so.
constinit thread_local volatile bool signalInside = false;
constinit std::atomic<unsigned long> sent{0};

void haveSignalInside() {
    if (signalInside) {
        ++sent;
        raise(SIGUSR1);
    }
}

// Whether this thread comes to the heap just when the other one has a signal there, if that does
// come.
constinit thread_local volatile bool meetsSignal = false;

void meetSignal() {
    if (meetsSignal) {
        const unsigned long before = sent;
        waitUpTo(stretchedMoment, [before] { return sent != before; });
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
    meetSignal();
    const HeapLock lock;
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
    const HeapLock lock;
    return __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size) {
    const HeapLock lock;
    return __libc_realloc(block, size);
}

// An exception's storage under libc++.
int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
    const HeapLock lock;
    *block = __libc_memalign(alignment, size);
    return *block == nullptr ? ENOMEM : 0;
}

void free(void* block) {
    const HeapLock lock;
    haveSignalInside();
    __libc_free(block);
}
}

namespace {

using Manager = Sorvane::SVSignalHandlerManager;
using Record = Sorvane::SVSignalHandler;

// --- What fails --------------------------------------------------------------------------------

// A record under an address of its own, for a signal that never comes.
Record recordNumber(unsigned int number) {
    constexpr std::uintptr_t alignment = 16;
    struct sigaction action = {};
    // No function is there, but nobody calls it.
    action.sa_handler = reinterpret_cast<void (*)(int)>(alignment * (number + 1));
    return Record(SIGWINCH, action, false, false, true);
}

// A table that is filled until there is no memory for it to grow. From then on each further
// registration fails.
class FullTable {
public:
    explicit FullTable(Manager& manager) : m_manager(manager) { addOne(); }

    // Whether so many registrations have failed. Some may succeed in between, while nobody reads.
    bool failsTimes(unsigned int times) {
        unsigned int failed = 0;
        while (failed < times && m_registered < most) {
            failed += addOne() ? 0U : 1U;
        }
        return failed == times;
    }

private:
    static constexpr unsigned int most = 1000000;

    bool addOne() {
        Record record = recordNumber(m_registered);
        try {
            m_manager.setHandler(record);
        } catch (const Sorvane::SVException&) {
            return false;
        }
        ++m_registered;
        return true;
    }

    Manager& m_manager;
    unsigned int m_registered = 0;
};

std::atomic<unsigned long> called;

void count(int) {
    ++called;
}

// --- The tests ---------------------------------------------------------------------------------

class NoMemory : public ::testing::Test {
protected:
    void SetUp() override { SKIP_WITHOUT_MEMORY_LIMIT(); }
};

void takeOver(Manager& manager, int signalNumber) {
    manager.setHandlerFromFunction(signalNumber, count);
    manager.handleSignal(signalNumber);
}

// The other thread holds the heap's lock whenever it has a signal, and the failing one needs the
// heap for its exception.
TEST_F(NoMemory, LetsAnOperationFailWhileSignalsArriveInTheMiddleOfTheHeap) {
    expectToGoOn([] {
        Manager manager(true);
        takeOver(manager, SIGUSR1);
        FullTable table(manager);
        std::atomic<bool> over{false};
        JoiningThread other([&over] {
            // Given back through the heap like anything else.
            void* volatile const nothing = nullptr;
            signalInside = true;
            while (!over) {
                std::free(nothing);
            }
            signalInside = false;
        });
        waitUpTo(childPatience, [] { return called != 0; });
        bool full = false;
        bool failed = false;
        {
            const MemoryLimit noMemory;
            full = table.failsTimes(1);
            meetsSignal = true;
            failed = table.failsTimes(200);
            meetsSignal = false;
            over = true;
        }
        other.join();
        EXPECT_TRUE(full);
        EXPECT_TRUE(failed);
        EXPECT_EQ(called, sent);
    });
}

TEST_F(NoMemory, LetsAnOperationFailWhileItIsTrappedFromAnotherThread) {
    expectToGoOn([] {
        Manager manager(true);
        takeOver(manager, SIGTRAP);
        FullTable table(manager);
        std::atomic<bool> over{false};
        JoiningThread other([&over, thread = pthread_self()] {
            while (!over) {
                const unsigned long before = called;
                pthread_kill(thread, SIGTRAP);
                while (called == before && !over) {
                    std::this_thread::yield();
                }
                // Or the thread would do nothing but have traps.
                std::this_thread::yield();
            }
        });
        waitUpTo(childPatience, [] { return called != 0; });
        bool failed = false;
        {
            const MemoryLimit noMemory;
            failed = table.failsTimes(2000);
            over = true;
        }
        other.join();
        EXPECT_TRUE(failed);
    });
}

#if defined(__x86_64__) || defined(__i386__)

TEST_F(NoMemory, LetsAnOperationFailWhileItIsTrappedAtEachInstruction) {
    SKIP_WITHOUT_STEPS();
    expectToGoOn([] {
        Manager manager(true);
        takeOver(manager, SIGTRAP);
        FullTable table(manager);
        bool failed = false;
        {
            const MemoryLimit noMemory;
            failed = table.failsTimes(1);
            const SingleSteps single;
            failed = table.failsTimes(1) && failed;
        }
        EXPECT_TRUE(failed);
        EXPECT_GT(called, 100U);
    });
}

#endif

}  // namespace
