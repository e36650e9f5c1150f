// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Recovers from an overflow of its stack, twice, by a library that handles SIGSEGV on a stack of
// its own and leaves the handler by a jump.

#include <setjmp.h>
#include <sigsegv.h>

#include <csignal>
#include <cstdio>

#include "plugin_of_host.h"

namespace {

sigjmp_buf recovery;
alignas(16) char stackOfHandler[65536];

// The compiler must not find that this never ends.
volatile int depth = 0;
int recurse(int level) {
    volatile char space[1024];
    space[0] = static_cast<char>(level);
    depth = depth + 1;
    return depth < 0 ? 0 : recurse(level + 1) + space[0];
}

void leave(void*, void*, void*) {
    siglongjmp(recovery, 1);
}

void onOverflow(int emergency, stackoverflow_context_t) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    std::printf("overflow%s\n", emergency != 0 ? ", in an emergency" : "");
    std::fflush(stdout);
    sigsegv_leave_handler(&leave, nullptr, nullptr, nullptr);
}

void overflow() {
    if (sigsetjmp(recovery, 1) == 0) {
        std::printf("%d\n", recurse(0));
    }
    std::puts("recovered");
    std::fflush(stdout);
}

}  // namespace

int main() {
    if (stackoverflow_install_handler(&onOverflow, stackOfHandler, sizeof(stackOfHandler)) != 0) {
        return 1;
    }
    loadPlugin();
    overflow();
    overflow();
    unloadPlugin();
    takeSnapshot("later");
    overflow();
    return 0;
}
