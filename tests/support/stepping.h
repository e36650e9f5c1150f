// Something that happens on a thread after each single instruction of what the thread is doing, in
// a handler of SIGTRAP.
#ifndef SORVANE_TESTS_SUPPORT_STEPPING_H
#define SORVANE_TESTS_SUPPORT_STEPPING_H

#include <csignal>
#include <cstdint>
#include <functional>

/// Leaves a test, as skipped, where nothing can be stepped.
#define SKIP_WITHOUT_STEPS()                                   \
    do {                                                       \
        if (const char* const reason = reasonForNotStepping()) \
            GTEST_SKIP() << reason;                            \
    } while (false)

/// Null where an operation can be stepped, otherwise why it can't.
const char* reasonForNotStepping() noexcept;

/// Where a stepped thread stands.
struct Standing {
    std::uintptr_t next;       ///< the instruction that comes next
    const sigset_t& heldBack;  ///< the signals that the thread holds back
};

/// Comes after each instruction; no signal but SIGTRAP is held back for it. Result: whether to go
/// on with it; otherwise the rest of the operation runs undisturbed.
using AfterEach = std::function<bool(const Standing&)>;

/// Runs an operation on this thread instruction by instruction. Signal handlers that interrupt it
/// are not stepped. Several threads may step at once.
void step(const std::function<void()>& operation, const AfterEach& afterEach);

#endif
