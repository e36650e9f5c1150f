// The process-wide lock, when its users come and go at once.

#include <../support/svatomicref.h>
#include <../utilities/svsharedlock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>

#include "support/gate.h"
#include "support/joining_thread.h"
#include "support/manager_fixture.h"
#include "support/overtaking.h"

namespace {

namespace SVSharedLock = Sorvane::SVSharedLock;
using Handle = Sorvane::SVMutexHandle;

void leave() {
    SVSharedLock::LastUse last(true);
    last.letHandleGo();
}

bool closedQ() {
    return SVSharedLock::handle() == nullptr;
}

// No manager is alive in these tests, so that the last user takes the handle along.
class SharedLock : public ManagerTest {
protected:
    void SetUp() override { SKIP_WITHOUT_STEPS(); }

    static void enterAndMakeHandle() {
        SVSharedLock::enter();
        ASSERT_NE(SVSharedLock::handleMadeIfNone(), nullptr);
    }

    // So many users are left, and the last of them takes the handle along.
    static void expectUsers(unsigned int number) {
        Handle* const handle = SVSharedLock::handleMadeIfNone();
        while (--number != 0) {
            leave();
            EXPECT_EQ(SVSharedLock::handle(), handle);
        }
        leave();
        EXPECT_EQ(SVSharedLock::handle(), nullptr);
    }
};

TEST_F(SharedLock, IsOfBothWhoEnterAtOnce) {
    overtakeAtEachInstruction({.prepare = [] {},
                               .operation = SVSharedLock::enter,
                               .act = SVSharedLock::enter,
                               .expect = [] { expectUsers(2); }});
}

TEST_F(SharedLock, GoesWithTheLaterOfTwoWhoLeaveAtOnce) {
    overtakeAtEachInstruction({.prepare =
                                   [] {
                                       enterAndMakeHandle();
                                       SVSharedLock::enter();
                                   },
                               .operation = leave,
                               .act = leave,
                               .expect = [] { EXPECT_TRUE(closedQ()); },
                               .enoughQ = closedQ});
}

TEST_F(SharedLock, IsEnteredWhileItsHandleGoesByAHandlerOnTheSameThread) {
    overtakeAtEachInstruction({.prepare = enterAndMakeHandle,
                               .operation = leave,
                               .act = SVSharedLock::enter,
                               .expect = [] { expectUsers(1); },
                               .enoughQ = closedQ});
}

// The handle has just been closed when the first handler comes, and the second one comes at each
// of its instructions in turn.
TEST_F(SharedLock, IsEnteredWhileItsHandleGoesByAHandlerThatAnotherOneInterrupts) {
    const unsigned int justClosed = lastBefore([](unsigned int number) {
        enterAndMakeHandle();
        bool closed = true;
        overtake(leave, atInstruction(number), [&closed] { closed = closedQ(); });
        return closed;
    });
    bool met = true;
    for (unsigned int number = 1; met; ++number) {
        enterAndMakeHandle();
        EXPECT_TRUE(overtake(leave, atInstruction(justClosed), [&] {
            met = overtake(SVSharedLock::enter, atInstruction(number), SVSharedLock::enter);
        }));
        ASSERT_NO_FATAL_FAILURE(expectUsers(met ? 2 : 1)) << "the second at " << number;
    }
}

TEST_F(SharedLock, WithoutAHandleIsLeftLikeAnyOther) {
    SVSharedLock::enter();
    leave();
    enterAndMakeHandle();
    expectUsers(1);
}

TEST_F(SharedLock, IsWaitedForByAnotherThreadWhileItsHandleGoes) {
    enterAndMakeHandle();
    Gate waiting;
    bool waited = false;
    std::optional<JoiningThread> other;
    const auto enterElsewhere = [&] {
        other.emplace([&] {
            waited = overtake(SVSharedLock::enter, atInstruction(5000), [&] { waiting.open(); });
            if (!waited) {
                waiting.open();
            }
        });
        waiting.pass();
    };
    EXPECT_TRUE(overtake(leave, closedQ, enterElsewhere));
    other->join();
    EXPECT_TRUE(waited);
    expectUsers(1);
}

// The other one is as if a thread had made it. Nothing is allocated in between, because that may be
// in the middle of an allocation.
TEST_F(SharedLock, HasOneHandleAlsoIfTwoMakeItAtOnce) {
    std::unique_ptr<Handle> others;
    Handle* handle = nullptr;
    const auto useOthers = [&others] {
        Handle* none = nullptr;
        const Sorvane::SVAtomicRef<Handle*> inUse(Manager::handlerTableLock);
        if (inUse.compare_exchange_strong(none, others.get())) {
            others.release();
        }
    };
    overtakeAtEachInstruction(
        {.prepare =
             [&others] {
                 SVSharedLock::enter();
                 others = std::make_unique<Handle>();
             },
         .operation = [&handle] { handle = SVSharedLock::handleMadeIfNone(); },
         .act = useOthers,
         .expect =
             [&handle] {
                 EXPECT_NE(handle, nullptr);
                 EXPECT_EQ(handle, SVSharedLock::handle());
                 expectUsers(1);
             }});
}

}  // namespace
