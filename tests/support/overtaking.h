// Something that happens on a thread in the middle of what the thread is doing, at an instruction
// of the test's choice.
#ifndef SORVANE_TESTS_SUPPORT_OVERTAKING_H
#define SORVANE_TESTS_SUPPORT_OVERTAKING_H

#include <functional>

/// Leaves a test, as skipped, where nothing can be stepped.
#define SKIP_WITHOUT_STEPS()                                     \
    do {                                                         \
        if (const char* const reason = reasonForNotOvertaking()) \
            GTEST_SKIP() << reason;                              \
    } while (false)

/// Null where an operation can be stepped, otherwise why it can't.
const char* reasonForNotOvertaking() noexcept;

/// Runs an operation instruction by instruction, asks after each of them whether it is time, and
/// when it is, does something else in a signal handler, once; the rest runs undisturbed. What is
/// done may be another such run.
/// Result: whether it was ever time.
bool overtake(const std::function<void()>& operation, const std::function<bool()>& timeQ,
              const std::function<void()>& act);

#endif
