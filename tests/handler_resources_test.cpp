// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// That nothing which runs because a signal arrived uses the ordinary heap, a lock, or a stream; nor
// does any operation while signals are held back for it, because whoever waits for it may have
// interrupted any of these.
//
// All of them are interposed in this program: where they must not be used, each ends the process.

#include <../registry/svgate.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sorvane/svsignalhandlermanager.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>

#include "support/child_process.h"
#include "support/emulation.h"
#include "support/failure.h"
#include "support/observed_handlers.h"
#include "support/sanitizers.h"
#include "support/shared_state.h"
#include "support/system_actions.h"

// --- What is watched -----------------------------------------------------------------------------

namespace {

constexpr bool interposedQ = !builtWithAddressSanitizer && !builtWithThreadSanitizer;

enum class Watch { nothing, everything, heldBack };

volatile Watch watch = Watch::nothing;

// Whether the calling thread holds back what no test delivers.
bool signalsHeldBackQ() {
    sigset_t heldBack;
    pthread_sigmask(SIG_BLOCK, nullptr, &heldBack);
    return sigismember(&heldBack, SIGWINCH) == 1;
}

[[maybe_unused]] void mustNotBeUsed(const char* what) {
    if (watch == Watch::nothing || (watch == Watch::heldBack && !signalsHeldBackQ())) {
        return;
    }
    watch = Watch::nothing;
    const char* const parts[] = {what, " was used where it must not be\n"};
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

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && \
    !SORVANE_TESTS_HAVE_FEATURE(address_sanitizer) &&                  \
    !SORVANE_TESTS_HAVE_FEATURE(thread_sanitizer)

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
    // Its holder does not wait for it.
    if (mutex->__data.__owner != gettid()) {
        mustNotBeUsed("pthread_mutex_lock");
    }
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

Manager* manager;

// --- The means -----------------------------------------------------------------------------------

// From the first instruction of the dispatch to its last: the signal is sent while watched.
void deliverWatched(int signalNumber) {
    const long process = getpid();
    const long thread = gettid();
    watch = Watch::everything;
    syscall(SYS_tgkill, process, thread, signalNumber);
    watch = Watch::nothing;
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
        inner.setHandlerFromFunction(SIGUSR2, numberedHandlers[i]);
    }
    for (int other = SIGRTMIN + 1; other < SIGRTMIN + 8; ++other) {
        inner.setHandlerFromFunction(other, numberedHandlers[0]);
    }
}

void clearSeven(int) {
    Manager inner(false);
    for (std::size_t i = 7; i > 0; --i) {
        inner.clearHandlerWithFunction(SIGUSR2, numberedHandlers[i - 1]);
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

// --- The watch itself ----------------------------------------------------------------------------

void expectNoticed(const std::function<void()>& body) {
    if (!interposedQ || underValgrindQ()) {
        GTEST_SKIP() << "the sanitizer, or valgrind, has the heap to itself";
    }
    EXPECT_TRUE(inChild(body).endedBySignalQ(SIGABRT));
}

void deliverTo(SimpleHandler handler) {
    handleUser1(handler);
    deliverWatched(SIGUSR1);
}

TEST(HandlerResources, AHeapUsedInsideAHandlerIsNoticed) {
    expectNoticed([] { deliverTo(useTheHeap); });
}

TEST(HandlerResources, ALockUsedInsideAHandlerIsNoticed) {
    expectNoticed([] { deliverTo(useALock); });
}

TEST(HandlerResources, AStreamUsedInsideAHandlerIsNoticed) {
    expectNoticed([] { deliverTo(useAStream); });
}

TEST(HandlerResources, AHeapUsedInsideTheGateIsNoticed) {
    expectNoticed([] {
        watch = Watch::heldBack;
        const Sorvane::SVGate gate;
        useTheHeap(0);
    });
}

// --- Dispatches ----------------------------------------------------------------------------------

TEST(HandlerResources, NoneAreUsedByADispatch) {
    expectNothingUsed([] {
        handleUser1(numberedHandlers[0]);
        deliverWatched(SIGUSR1);
        EXPECT_EQ(callsOf(numberedHandlers[0]), 1U);
    });
}

TEST(HandlerResources, NoneAreUsedByADispatchThatMakesTheFirstManager) {
    expectNothingUsed([] {
        handleUser1(numberedHandlers[0]);
        delete manager;
        ASSERT_EQ(Manager::handlerTables, nullptr);
        hostInstalls(SIGUSR1, actualSignalHandler);
        deliverWatched(SIGUSR1);
        EXPECT_NE(Manager::handlerTables, nullptr);
        EXPECT_EQ(Manager::numberOfManagers, 0U);
    });
}

TEST(HandlerResources, NoneAreUsedByAHandlerThatRegistersWithGrowth) {
    expectNothingUsed([] {
        handleUser1(registerSeven);
        deliverWatched(SIGUSR1);
        EXPECT_EQ(recordCount(SIGUSR2), 7U);
        EXPECT_EQ(Manager::handlerTables->used, 9U);
    });
}

TEST(HandlerResources, NoneAreUsedByAHandlerThatRegistersAndClearsAgainAndAgain) {
    expectNothingUsed([] {
        handleUser1(clearSeven);
        manager->setHandlerFromFunction(SIGUSR1, registerSeven);
        registerSeven(SIGUSR1);
        for (int i = 0; i < 20; ++i) {
            deliverWatched(SIGUSR1);
        }
    });
}

// What came from the heap can't go back to it there.
TEST(HandlerResources, NoneAreUsedByAHandlerThatReleasesWhatIsTheHeaps) {
    expectNothingUsed([] {
        static RecordList records;
        for (const SimpleHandler handler : numberedHandlers) {
            records.push_back(userRecord(SIGUSR2, handler));
        }
        handleUser1([](int) { records.clear(); });
        deliverWatched(SIGUSR1);
        EXPECT_TRUE(records.empty());
    });
}

TEST(HandlerResources, NoneAreUsedByAHandlerThatTakesOverAndHandsBack) {
    expectNothingUsed([] {
        hostInstalls(SIGUSR2, hostHandler);
        handleUser1(takeOverAndHandBack);
        deliverWatched(SIGUSR1);
        EXPECT_NE(tableOf(SIGUSR2), nullptr);
    });
}

TEST(HandlerResources, NoneAreUsedByAHandlerThatStopsAndStarts) {
    expectNothingUsed([] {
        hostInstalls(SIGUSR2, hostHandler);
        handleUser1(startAndStop);
        manager->setHandlerFromFunction(SIGUSR2, numberedHandlers[0]);
        deliverWatched(SIGUSR1);
        EXPECT_TRUE(Manager::currentlyHandlingSignals);
    });
}

TEST(HandlerResources, NoneAreUsedByAHandlerThatDestroysTheLastManager) {
    expectNothingUsed([] {
        hostInstalls(SIGUSR2, hostHandler);
        manager = new Manager(false);
        manager->setHandlerFromFunction(SIGUSR1, [](int) {
            delete manager;
            manager = nullptr;
        });
        manager->setHandlerFromFunction(SIGUSR2, numberedHandlers[0]);
        manager->startHandlingSignals();
        deliverWatched(SIGUSR1);
        EXPECT_EQ(Manager::numberOfManagers, 0U);
    });
}

volatile bool late;

// The first arrival is one for which the system had chosen the library before it was handed back.
void libraryThenHost(int signalNumber, siginfo* information, void* context) {
    if (late) {
        late = false;
        actualSignalHandler(signalNumber, information, context);
    } else {
        noteCall(addressOf(libraryThenHost), signalNumber);
    }
}

TEST(HandlerResources, NoneAreUsedByALateArrival) {
    expectNothingUsed([] {
        forgetCalls();
        hostInstalls(SIGUSR1, libraryThenHost);
        handleUser1(userHandler);
        manager->stopHandlingSignals();
        late = true;
        deliverWatched(SIGUSR1);
        EXPECT_EQ(callCount(), 1U);
        EXPECT_EQ(callsOf(libraryThenHost), 1U);
    });
}

// --- Operations ----------------------------------------------------------------------------------

void useEveryOperation(bool locking) {
    hostInstalls(SIGUSR2, hostHandler);
    Manager outer(locking);
    Manager inner(locking);
    registerSeven(0);
    RecordList records;
    records.push_back(userRecord(SIGTERM, userHandler));
    inner.setHandlers(records);
    inner.startHandlingSignals();
    inner.setHandlerFromFunction(SIGINT, userHandler);
    inner.handleSignal(SIGALRM);
    inner.callHandlers(SIGTERM, nullptr, nullptr);
    inner.stopHandlingSignal(SIGTERM);
    inner.restorePreviouslyExistingHandlers();
    inner.clearHandlers(records);
    clearSeven(0);
    Record host = hostRecord(SIGUSR2, hostHandler);
    inner.clearHandler(host);
    inner.stopHandlingSignals();
    inner.startHandlingSignals();
}

TEST(OperationResources, NoneAreUsedWhileSignalsAreHeldBack) {
    for (const bool locking : {false, true}) {
        expectNothingUsed([locking] {
            watch = Watch::heldBack;
            useEveryOperation(locking);
            watch = Watch::nothing;
            EXPECT_EQ(Manager::numberOfManagers, 0U);
            EXPECT_EQ(Manager::handlerTables, nullptr);
        });
    }
}

// Its exception is made when the signals have been let in again.
TEST(OperationResources, NoneAreUsedWhileSignalsAreHeldBackByOneThatFails) {
    expectNothingUsed([] {
        watch = Watch::heldBack;
        Manager failing(true);
        failing.setSignalDisposition(SIGKILL, true);
        const Failure ofHandling = failureOf([&] { failing.handleSignal(SIGKILL); });
        failing.setHandlerFromFunction(SIGKILL, userHandler);
        const Failure ofStart = failureOf([&] { failing.startHandlingSignals(); });
        const Failure ofStop = failureOf([&] { failing.stopHandlingSignal(SIGKILL); });
        watch = Watch::nothing;
        for (const Failure& failure : {ofHandling, ofStart, ofStop}) {
            expectSigactionFailure(failure, EINVAL);
        }
        failing.setSignalDisposition(SIGKILL, false);
    });
}

TEST(OperationResources, NoneAreUsedByAFailureInsideAHandlerBeforeItIsThrown) {
    expectNothingUsed([] {
        handleUser1([](int) {
            Manager inner(false);
            inner.setSignalDisposition(SIGKILL, true);
            watch = Watch::heldBack;
            const Failure failure = failureOf([&] { inner.handleSignal(SIGKILL); });
            watch = Watch::nothing;
            expectSigactionFailure(failure, EINVAL);
            inner.setSignalDisposition(SIGKILL, false);
        });
        raise(SIGUSR1);
    });
}

}  // namespace
