// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "support/stepping.h"

#include <ucontext.h>

#include <cerrno>

#include "support/emulation.h"
#include "support/sanitizers.h"
#include "support/single_steps.h"

#if defined(__x86_64__) || defined(__i386__)

namespace {

#ifdef __x86_64__
constexpr int instructionRegister = REG_RIP;
#else
constexpr int instructionRegister = REG_EIP;
#endif

constinit thread_local const AfterEach* current = nullptr;

void onTrap(int, siginfo_t*, void* context) {
    constexpr greg_t trapFlag = 0x100;
    const int errnoBefore = errno;
    auto& interrupted = *static_cast<ucontext_t*>(context);
    greg_t* const registers = interrupted.uc_mcontext.gregs;
    const Standing standing{static_cast<std::uintptr_t>(registers[instructionRegister]),
                            interrupted.uc_sigmask};
    if (!(*current)(standing)) {
        registers[REG_EFL] &= ~trapFlag;
    }
    errno = errnoBefore;
}

void catchTraps() {
    struct sigaction action = {};
    action.sa_sigaction = onTrap;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGTRAP, &action, nullptr);
}

// A function of its own, because the last trap comes at its very end: what is read after it is not
// read before.
[[gnu::noinline]] void runStepped(const std::function<void()>& operation) {
    const SingleSteps steps;
    operation();
}

}  // namespace

void step(const std::function<void()>& operation, const AfterEach& afterEach) {
    current = &afterEach;
    catchTraps();
    runStepped(operation);
}

const char* reasonForNotStepping() noexcept {
    if (builtWithAddressSanitizer || builtWithThreadSanitizer) {
        return "a sanitizer's run-time library can't be entered at each of its instructions";
    }
    return underValgrindQ() ? "valgrind has no trap flag" : nullptr;
}

#else

void step(const std::function<void()>& operation, const AfterEach&) {
    operation();
}

const char* reasonForNotStepping() noexcept {
    return "this processor is not stepped here";
}

#endif

bool disturb(const std::function<void()>& operation, unsigned int instruction,
             const std::function<void()>& disturbance) {
    unsigned int passed = 0;
    bool reached = false;
    step(operation, [&](const Standing&) {
        reached = passed++ == instruction;
        if (reached) {
            disturbance();
        }
        return !reached;
    });
    return reached;
}
