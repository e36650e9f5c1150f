#include "support/overtaking.h"

#include <gtest/gtest.h>
#include <ucontext.h>

#include <cerrno>
#include <csignal>
#include <utility>

#include "support/emulation.h"
#include "support/sanitizers.h"
#include "support/single_steps.h"

#if defined(__x86_64__) || defined(__i386__)

namespace {

class Overtaking {
public:
    Overtaking(const std::function<bool()>& timeQ, const std::function<void()>& act)
        : m_timeQ(timeQ), m_act(act), m_outer(std::exchange(innermost, this)) {}
    Overtaking(const Overtaking&) = delete;
    Overtaking& operator=(const Overtaking&) = delete;
    ~Overtaking() { innermost = m_outer; }

    bool timeQ() const { return m_timeQ(); }
    void act() {
        m_done = true;
        m_act();
    }
    bool doneQ() const { return m_done; }

    // Of each thread, because what comes in between may be another one.
    static inline thread_local Overtaking* innermost = nullptr;

private:
    const std::function<bool()>& m_timeQ;
    const std::function<void()>& m_act;
    Overtaking* const m_outer;
    volatile bool m_done = false;  // the last step comes after the operation
};

void stopStepping(void* context) {
    constexpr greg_t trapFlag = 0x100;
    static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] &= ~trapFlag;
}

void onTrap(int, siginfo_t*, void* context) {
    const int errnoBefore = errno;
    if (Overtaking::innermost->timeQ()) {
        stopStepping(context);
        Overtaking::innermost->act();
    }
    errno = errnoBefore;
}

// Not deferred, because what is done in the handler may be stepped, too.
void catchTraps() {
    struct sigaction action = {};
    action.sa_sigaction = onTrap;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigaction(SIGTRAP, &action, nullptr);
}

// A function of its own, because the last trap comes at its very end: what is read after it is not
// read before.
[[gnu::noinline]] void runStepped(const std::function<void()>& operation) {
    const SingleSteps steps;
    operation();
}

}  // namespace

bool overtake(const std::function<void()>& operation, const std::function<bool()>& timeQ,
              const std::function<void()>& act) {
    Overtaking overtaking(timeQ, act);
    catchTraps();
    runStepped(operation);
    return overtaking.doneQ();
}

const char* reasonForNotOvertaking() noexcept {
    if (builtWithAddressSanitizer || builtWithThreadSanitizer) {
        return "a sanitizer steps badly";
    }
    return underValgrindQ() ? "valgrind has no trap flag" : nullptr;
}

#else

bool overtake(const std::function<void()>&, const std::function<bool()>&,
              const std::function<void()>&) {
    return false;
}

const char* reasonForNotOvertaking() noexcept {
    return "this processor is not stepped here";
}

#endif

std::function<bool()> atInstruction(unsigned int number) {
    return [number, instructions = 0U]() mutable { return ++instructions == number; };
}

unsigned int lastBefore(const std::function<bool(unsigned int)>& holdsAtQ) {
    unsigned int tooLow = 0;
    unsigned int highEnough = 1;
    while (!holdsAtQ(highEnough)) {
        tooLow = highEnough;
        highEnough *= 2;
    }
    while (highEnough - tooLow > 1) {
        const unsigned int middle = tooLow + (highEnough - tooLow) / 2;
        (holdsAtQ(middle) ? highEnough : tooLow) = middle;
    }
    EXPECT_GT(tooLow, 0U) << "nothing was tested";
    return tooLow;
}

void overtakeAtEachInstruction(const AtOnce& atOnce) {
    bool enough = false;
    const auto act = [&] {
        enough = atOnce.enoughQ();
        atOnce.act();
    };
    for (unsigned int number = 1; !enough; ++number) {
        atOnce.prepare();
        if (!overtake(atOnce.operation, atInstruction(number), act)) {
            EXPECT_GT(number, 10U) << "nothing was tested";
            act();
            enough = true;
        }
        atOnce.expect();
        ASSERT_FALSE(::testing::Test::HasFailure()) << "overtaken at instruction " << number;
    }
}
