// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Installs its handlers by the system call, with a restorer of its own, as run-time systems do that
// are not written in C.

#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <initializer_list>

#include "plugin_of_host.h"

#ifdef __x86_64__
asm(".text\n"
    ".globl restoreByHost\n"
    "restoreByHost:\n"
    "    mov $15, %rax\n"
    "    syscall\n");
extern "C" void restoreByHost();
constexpr unsigned long restorerFlag = 0x04000000;
#endif

namespace {

struct KernelAction {
    void (*handler)(int, siginfo_t*, void*);
    unsigned long flags;
    void (*restorer)();
    std::uint64_t mask;
};

volatile std::sig_atomic_t called = 0;

void onSignal(int, siginfo_t*, void*) {
    called = called + 1;
}

void raiseAll() {
    for (const int signalNumber : {SIGUSR1, SIGTERM, SIGWINCH}) {
        called = 0;
        std::raise(signalNumber);
        std::printf("signal %d: called %d\n", signalNumber, static_cast<int>(called));
    }
    std::fflush(stdout);
}

}  // namespace

int main() {
#ifdef __x86_64__
    // All but SIGKILL and SIGSTOP, which the system takes out.
    const KernelAction action = {&onSignal, SA_SIGINFO | SA_ONSTACK | SA_RESTART | restorerFlag,
                                 &restoreByHost, ~std::uint64_t{0}};
    for (const int signalNumber : {SIGUSR1, SIGTERM, SIGWINCH}) {
        syscall(SYS_rt_sigaction, signalNumber, &action, nullptr, sizeof(action.mask));
    }
    loadPlugin();
    raiseAll();
    unloadPlugin();
    takeSnapshot("later");
    raiseAll();
#endif
    return 0;
}
