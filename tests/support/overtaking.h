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

/// When it is time: after so many instructions.
std::function<bool()> atInstruction(unsigned int number);

/// Looks, by halves, for the first instruction of an operation from which on something holds.
/// Result: the one before it, which has been looked at, too.
unsigned int lastBefore(const std::function<bool(unsigned int)>& holdsAtQ);

/// Two things that are done at once.
struct AtOnce {
    std::function<void()> prepare;
    std::function<void()> operation;
    std::function<void()> act;     ///< comes in between; may interrupt the C library's allocator
    std::function<void()> expect;  ///< of the state after both
    std::function<bool()> enoughQ = [] { return false; };  ///< later, nothing is different
};

/// Does the one at each instruction of the other in turn, up to one at which that is enough, or at
/// last after it.
void overtakeAtEachInstruction(const AtOnce& atOnce);

#endif
