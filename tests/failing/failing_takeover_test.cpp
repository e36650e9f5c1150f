// A handler that throws, called for signals that were kept until the end of a take-over; which may
// fail by itself, because there was no memory for the record of the host's handler.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <csignal>
#include <cstddef>
#include <optional>

#include "failing/allocations.h"
#include "support/child_process.h"
#include "support/emulation.h"
#include "support/observed_handlers.h"
#include "support/single_steps.h"
#include "support/system_actions.h"

#if defined(__x86_64__) || defined(__i386__)

namespace {

using Manager = Sorvane::SVSignalHandlerManager;

struct Thrown {};

void throwing(int signalNumber) {
    noteCall(addressOf(throwing), signalNumber);
    throw Thrown();
}

constexpr greg_t trapFlag = 0x100;

// The C library declares it as throwing nothing.
int (*volatile const raiseSignal)(int) = &std::raise;

// At the first instruction after the operating system's swap, when the host's handler is not on
// record yet.
void raiseOnceTakenOver(int, siginfo_t*, void* context) {
    if (!takenOverQ(SIGUSR1)) {
        return;
    }
    static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] &= ~trapFlag;
    for (int i = 0; i < 2; ++i) {
        try {
            raiseSignal(SIGUSR1);
        } catch (const Thrown&) {
            // Without memory to keep it, it was dispatched at once.
        }
    }
}

enum class Left { nothing, handlersException, ownException };

// The record of the host's handler is the sixth, for which the table has to grow.
std::optional<Manager> manager;

void prepare() {
    forgetCalls();
    hostInstalls(SIGUSR1, hostHandler);
    hostInstalls(SIGTRAP, raiseOnceTakenOver);
    manager.emplace(true);
    manager->setHandlerFromFunction(SIGUSR1, throwing);
    for (std::size_t i = 0; i < 4; ++i) {
        manager->setHandlerFromFunction(SIGUSR1, numberedHandlers.at(i));
    }
}

Left takeOver() {
    try {
        const SingleSteps steps;
        manager->handleSignal(SIGUSR1);
    } catch (const Thrown&) {
        return Left::handlersException;
    } catch (const Sorvane::SVException&) {
        return Left::ownException;
    }
    return Left::nothing;
}

// A signal whose handler throws stays held back, so that the second may wait for its call.
void expectThatBothHaveArrived() {
    sigset_t pending;
    sigpending(&pending);
    const bool oneWaits = sigismember(&pending, SIGUSR1) == 1;
    EXPECT_EQ(callsOf(throwing), oneWaits ? 1U : 2U);
}

TEST(HandlerThatThrowsForAKeptSignal, LeavesTheTakeOverThatHasKeptIt) {
    if (underValgrindQ()) {
        GTEST_SKIP() << "valgrind has no trap flag";
    }
    const ChildEnd end = inChild([] {
        prepare();
        EXPECT_EQ(takeOver(), Left::handlersException);
        expectThatBothHaveArrived();
        EXPECT_TRUE(takenOverQ(SIGUSR1));
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

// The need for memory comes at one of these.
constexpr std::size_t mostAllocations = 8;

TEST(HandlerThatThrowsForAKeptSignal, LeavesTheTakeOversOwnFailureToGoOn) {
    if (underValgrindQ()) {
        GTEST_SKIP() << "valgrind has no trap flag, and the heap to itself";
    }
    bool bothFailed = false;
    for (std::size_t number = 1; number <= mostAllocations; ++number) {
        const ChildEnd end = inChild([number] {
            prepare();
            std::optional<Allocations::Watch> watch(number);
            const Left left = takeOver();
            watch.reset();
            expectThatBothHaveArrived();
            if (left == Left::ownException) {
                noteCall(addressOf(takeOver), SIGUSR1);
            }
        });
        ASSERT_TRUE(end.wentOnQ()) << "with allocation " << number << " failing: " << end;
        bothFailed = bothFailed || callsOf(takeOver) != 0;
    }
    EXPECT_TRUE(bothFailed);
}

}  // namespace

#endif
