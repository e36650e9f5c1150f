// That memory which is refused once is not made up for by what comes back: an operation that needs
// some is then reported to have failed, whichever of its allocations was refused.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <csignal>
#include <cstddef>
#include <functional>
#include <optional>

#include "failing/allocations.h"
#include "support/child_process.h"
#include "support/emulation.h"
#include "support/failure.h"
#include "support/observed_handlers.h"

namespace {

using Manager = Sorvane::SVSignalHandlerManager;

// More than any registration makes.
constexpr std::size_t mostAllocations = 10;

void expectReportWhicheverFails(const std::function<void(Manager&)>& prepare,
                                const std::function<void(Manager&)>& operate) {
    if (underValgrindQ()) {
        GTEST_SKIP() << "valgrind has the heap to itself";
    }
    for (std::size_t number = 1; number <= mostAllocations; ++number) {
        const ChildEnd end = inChild([&] {
            Manager manager(true);
            prepare(manager);
            std::optional<Allocations::Watch> watch(number);
            const Failure failure = failureOf([&] { operate(manager); });
            const bool failed = watch->failedQ();
            watch.reset();
            EXPECT_TRUE(failed || number > 1) << "it needs memory";
            EXPECT_EQ(failure.has_value(), failed);
        });
        ASSERT_TRUE(end.wentOnQ()) << "with allocation " << number << " failing: " << end;
    }
}

TEST(MemoryThatIsRefusedOnce, IsMissedByTheFirstRegistrationForASignal) {
    expectReportWhicheverFails(
        [](Manager&) {},
        [](Manager& manager) { manager.setHandlerFromFunction(SIGUSR1, userHandler); });
}

TEST(MemoryThatIsRefusedOnce, IsMissedByARegistrationThatMakesATableGrow) {
    expectReportWhicheverFails(
        [](Manager& manager) {
            for (std::size_t i = 0; i < 5; ++i) {
                manager.setHandlerFromFunction(SIGUSR1, numberedHandlers.at(i));
            }
        },
        [](Manager& manager) { manager.setHandlerFromFunction(SIGUSR1, userHandler); });
}

}  // namespace
