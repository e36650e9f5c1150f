// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A C host that loads a C++ plug-in: nothing that runs because a signal arrived uses the heap, not
// even what is used first on a thread. The heap is this program's, and ends it when it is used in a
// handler.

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stddef.h>

#include "host.h"

// --- The heap ----------------------------------------------------------------------------------

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);

// While this thread has a signal.
static __thread volatile sig_atomic_t watching = 0;

static void must_not_be_used(const char* what) {
    static const char reason[] = " was used inside a handler\n";
    if (!watching) {
        return;
    }
    if (write(STDERR_FILENO, what, strlen(what)) < 0 ||
        write(STDERR_FILENO, reason, sizeof(reason) - 1) < 0) {
        _exit(EXIT_FAILURE);
    }
    _exit(EXIT_FAILURE);
}

void* malloc(size_t size) {
    must_not_be_used("malloc");
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    must_not_be_used("calloc");
    return __libc_calloc(count, size);
}

void* realloc(void* block, size_t size) {
    must_not_be_used("realloc");
    return __libc_realloc(block, size);
}

void* memalign(size_t alignment, size_t size) {
    must_not_be_used("memalign");
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    must_not_be_used("aligned_alloc");
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** block, size_t alignment, size_t size) {
    must_not_be_used("posix_memalign");
    *block = __libc_memalign(alignment, size);
    return *block == NULL ? ENOMEM : 0;
}

void free(void* block) {
    must_not_be_used("free");
    __libc_free(block);
}

// --- The threads -------------------------------------------------------------------------------

static int signal_number;

static void* have_signal(void* unused) {
    watching = 1;
    raise(signal_number);
    watching = 0;
    return unused;
}

static void have_signal_on_a_new_thread(void) {
    pthread_t thread;
    expect(pthread_create(&thread, NULL, have_signal, NULL) == 0, "no thread");
    pthread_join(thread, NULL);
}

int main(int count, char** arguments) {
    static const unsigned int seconds = 20;
    const int signals[] = {SIGUSR1, SIGUSR2};
    struct plug_in plug_in;
    size_t i;
    alarm(seconds);
    expect(count == 2, "usage: library_loaded_late PLUG_IN");
    plug_in = load(arguments[1]);
    plug_in.begin();
    for (i = 0; i < sizeof(signals) / sizeof(signals[0]); ++i) {
        signal_number = signals[i];
        have_signal_on_a_new_thread();
        have_signal(NULL);
        have_signal_on_a_new_thread();
    }
    expect(plug_in.calls() == 6, "not every signal was handled once");
    plug_in.end();
    return EXIT_SUCCESS;
}
