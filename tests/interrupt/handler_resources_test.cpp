// That nothing which runs because a signal arrived uses the ordinary heap, a lock, or a stream.
//
// All of them are interposed in this program: inside a handler, each ends the process.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sorvane/svsignalhandlermanager.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "interrupt/counted_handlers.h"
#include "support/child_process.h"
#include "support/emulation.h"
#include "support/sanitizers.h"
#include "support/single_steps.h"

// --- What is watched
// ------------------------------------------------------------------------------

namespace {

constexpr bool interposedQ = !builtWithAddressSanitizer && !builtWithThreadSanitizer;

volatile bool watching = false;

void mustNotBeUsed(const char* what) {
    if (!watching) {
        return;
    }
    watching = false;
    const char* const parts[] = {what, " was used inside a handler\n"};
    for (const char* const part : parts) {
        if (write(STDERR_FILENO, part, std::strlen(part)) < 0) {
            break;
        }
    }
    std::abort();
}

// Not by the initialisation of a static variable, for which some run-time libraries take a lock.
template <typename Function>
void findNext(Function*& next, const char* name) {
    if (next == nullptr) {
        next = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
    }
}

}  // namespace

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);

void* malloc(std::size_t size) {
    mustNotBeUsed("malloc");
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
    __libc_free(block);
}

int pthread_mutex_lock(pthread_mutex_t* mutex) {
    mustNotBeUsed("pthread_mutex_lock");
    static int (*next)(pthread_mutex_t*) = nullptr;
    findNext(next, "pthread_mutex_lock");
    return next(mutex);
}

int pthread_mutex_trylock(pthread_mutex_t* mutex) {
    mustNotBeUsed("pthread_mutex_trylock");
    static int (*next)(pthread_mutex_t*) = nullptr;
    findNext(next, "pthread_mutex_trylock");
    return next(mutex);
}

// The standard streams end here; other streams keep their text on the heap.
std::size_t fwrite(const void* text, std::size_t size, std::size_t count, FILE* file) {
    mustNotBeUsed("a stream");
    static std::size_t (*next)(const void*, std::size_t, std::size_t, FILE*) = nullptr;
    findNext(next, "fwrite");
    return next(text, size, count, file);
}
}

#endif

namespace {

using Manager = Sorvane::SVSignalHandlerManager;

Manager* manager;

// --- The means
// ------------------------------------------------------------------------------------

// From the first instruction of the dispatch to its last: the signal is sent while watched.
void deliverWatched(int signalNumber) {
    const long process = getpid();
    const long thread = gettid();
    watching = true;
    syscall(SYS_tgkill, process, thread, signalNumber);
    watching = false;
}

template <typename Body>
void expectNothingUsed(Body body) {
    if (!interposedQ || underValgrindQ()) {
        GTEST_SKIP() << "the sanitizer, or valgrind, has the heap to itself";
    }
    EXPECT_TRUE(inChild(body).wentOnQ());
}

void handleUser1(SimpleHandler handler) {
    manager = new Manager(true);
    manager->setHandlerFromFunction(SIGUSR1, handler);
    manager->startHandlingSignals();
}

void registerSeven(int) {
    Manager inner(false);
    for (std::size_t i = 0; i < 7; ++i) {
        inner.setHandlerFromFunction(SIGUSR2, handlerOf[i]);
    }
    for (int other = SIGRTMIN + 1; other < SIGRTMIN + 8; ++other) {
        inner.setHandlerFromFunction(other, handlerOf[0]);
    }
}

void clearSeven(int) {
    Manager inner(false);
    for (std::size_t i = 7; i > 0; --i) {
        inner.clearHandlerWithFunction(SIGUSR2, handlerOf[i - 1]);
    }
}

void takeOverAndHandBack(int) {
    Manager inner(false);
    inner.handleSignal(SIGUSR2);
    inner.stopHandlingSignal(SIGUSR2);
    inner.restorePreviouslyExistingHandlers();
}

void startAndStop(int) {
    Manager inner(false);
    inner.stopHandlingSignals();
    inner.startHandlingSignals();
}

void useTheHeap(int) {
    // Volatile, or the compiler finds that nobody needs the block.
    void* volatile const block = std::malloc(1);
    std::free(block);
}

void useALock(int) {
    static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&mutex);
    pthread_mutex_unlock(&mutex);
}

void useAStream(int) {
    std::cerr << "a stream inside a handler\n";
}

// --- The watch itself
// -----------------------------------------------------------------------------

void expectNoticed(SimpleHandler handler) {
    if (!interposedQ || underValgrindQ()) {
        GTEST_SKIP() << "the sanitizer, or valgrind, has the heap to itself";
    }
    EXPECT_TRUE(inChild([handler] {
                    handleUser1(handler);
                    deliverWatched(SIGUSR1);
                }).endedBySignalQ(SIGABRT));
}

TEST(HandlerResources, AHeapUsedInsideAHandlerIsNoticed) {
    expectNoticed(useTheHeap);
}

TEST(HandlerResources, ALockUsedInsideAHandlerIsNoticed) {
    expectNoticed(useALock);
}

TEST(HandlerResources, AStreamUsedInsideAHandlerIsNoticed) {
    expectNoticed(useAStream);
}

// --- The component
// --------------------------------------------------------------------------------

TEST(HandlerResources, NoneAreUsedByADispatch) {
    expectNothingUsed([] {
        handleUser1(handlerOf[0]);
        deliverWatched(SIGUSR1);
        EXPECT_EQ(calls[0], 1U);
    });
}

TEST(HandlerResources, NoneAreUsedByADispatchThatMakesTheFirstManager) {
    expectNothingUsed([] {
        handleUser1(handlerOf[0]);
        delete manager;
        ASSERT_EQ(Manager::handlerTables, nullptr);
        deliverWatched(SIGUSR1);
        EXPECT_NE(Manager::handlerTables, nullptr);
        EXPECT_EQ(Manager::numberOfManagers, 0U);
    });
}

TEST(HandlerResources, NoneAreUsedByAHandlerThatRegistersWithGrowth) {
    expectNothingUsed([] {
        handleUser1(registerSeven);
        deliverWatched(SIGUSR1);
        EXPECT_EQ((*Manager::handlerTables)[SIGUSR2 - 1]->used, 7U);
        EXPECT_EQ(Manager::handlerTables->used, 9U);
    });
}

// What came from the heap can't go back to it there.
TEST(HandlerResources, NoneAreUsedByAHandlerThatReplacesTablesFromTheHeap) {
    expectNothingUsed([] {
        handleUser1(clearSeven);
        manager->setHandlerFromFunction(SIGUSR1, registerSeven);
        registerSeven(SIGUSR1);
        for (int i = 0; i < 20; ++i) {
            deliverWatched(SIGUSR1);
        }
    });
}

TEST(HandlerResources, NoneAreUsedByAHandlerThatTakesOverAndHandsBack) {
    expectNothingUsed([] {
        std::signal(SIGUSR2, handlerOf[7]);
        handleUser1(takeOverAndHandBack);
        deliverWatched(SIGUSR1);
        EXPECT_NE((*Manager::handlerTables)[SIGUSR2 - 1], nullptr);
    });
}

TEST(HandlerResources, NoneAreUsedByAHandlerThatStopsAndStarts) {
    expectNothingUsed([] {
        std::signal(SIGUSR2, handlerOf[7]);
        handleUser1(startAndStop);
        manager->setHandlerFromFunction(SIGUSR2, handlerOf[0]);
        deliverWatched(SIGUSR1);
        EXPECT_TRUE(Manager::currentlyHandlingSignals);
    });
}

TEST(HandlerResources, NoneAreUsedByAHandlerThatDestroysTheLastManager) {
    expectNothingUsed([] {
        std::signal(SIGUSR2, handlerOf[7]);
        manager = new Manager(false);
        manager->setHandlerFromFunction(SIGUSR1, [](int) {
            delete manager;
            manager = nullptr;
        });
        manager->setHandlerFromFunction(SIGUSR2, handlerOf[0]);
        manager->startHandlingSignals();
        deliverWatched(SIGUSR1);
        EXPECT_EQ(Manager::numberOfManagers, 0U);
    });
}

// The signal is sent at each instruction of the take-over, by the processor's trap flag.
#if defined(__x86_64__) || defined(__i386__)

// What is kept is sent again signal by signal, which would be disturbed again and again.
void deliverAtEachInstruction(int) {
    constexpr unsigned int mostDeliveries = 5000;
    static unsigned int delivered = 0;
    if (++delivered <= mostDeliveries) {
        deliverWatched(SIGUSR1);
    }
}

TEST(HandlerResources, NoneAreUsedByADispatchThatKeepsASignalForATakeOver) {
    expectNothingUsed([] {
        std::signal(SIGUSR1, handlerOf[7]);
        manager = new Manager(true);
        std::signal(SIGTRAP, deliverAtEachInstruction);
        {
            const SingleSteps steps;
            manager->handleSignal(SIGUSR1);
        }
        EXPECT_GT(calls[7], 1000U);
    });
}
#endif

}  // namespace
