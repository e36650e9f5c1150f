// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The queue that handlers put arrived signals into.

#include <../utilities/svsignalqueue.h>
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "support/joining_thread.h"
#include "support/stepping.h"

namespace {

using Sorvane::SVSignalQueue;

struct Delete {
    void operator()(SVSignalQueue* queue) const { delete queue; }
};
using Queue = std::unique_ptr<SVSignalQueue, Delete>;

Queue queueFor(unsigned int capacity) {
    return Queue(SVSignalQueue::make(capacity));
}

siginfo numbered(int number) {
    siginfo information = {};
    information.si_signo = number;
    return information;
}

// -1 if there is none.
int taken(SVSignalQueue& queue) {
    siginfo information = {};
    return queue.take(information) ? information.si_signo : -1;
}

TEST(SignalQueue, GivesWhatWasPutInItsOrder) {
    const Queue queue = queueFor(4);
    for (int number = 1; number <= 4; ++number) {
        EXPECT_TRUE(queue->put(numbered(number)));
    }
    for (int number = 1; number <= 4; ++number) {
        EXPECT_EQ(taken(*queue), number);
    }
    EXPECT_EQ(taken(*queue), -1);
}

TEST(SignalQueue, GoesRoundAndRound) {
    const Queue queue = queueFor(3);
    for (int number = 0; number < 1000; ++number) {
        EXPECT_TRUE(queue->put(numbered(number)));
        EXPECT_TRUE(queue->put(numbered(-number)));
        EXPECT_EQ(taken(*queue), number);
        EXPECT_EQ(taken(*queue), -number);
    }
    EXPECT_EQ(taken(*queue), -1);
}

TEST(SignalQueue, HasRoomForAtLeastAsManyAsAskedForAndRefusesMore) {
    for (const unsigned int capacity : {0U, 1U, 2U, 3U, 64U, 1000U}) {
        const Queue queue = queueFor(capacity);
        unsigned int count = 0;
        while (queue->put(numbered(1))) {
            ++count;
        }
        EXPECT_GE(count, capacity);
        EXPECT_LE(count, 2 * capacity + 2);
        EXPECT_EQ(taken(*queue), 1);
        EXPECT_TRUE(queue->put(numbered(2)));
        EXPECT_FALSE(queue->put(numbered(3)));
    }
}

TEST(SignalQueue, OfMoreThanThereIsRoomForIsNotMade) {
    EXPECT_EQ(SVSignalQueue::make(0xffffffffU), nullptr);
}

TEST(SignalQueue, IsWholeWhicheverInstructionOfAPutAnotherOneInterrupts) {
    SKIP_WITHOUT_STEPS();
    const unsigned int instructions = atEachInstruction([](unsigned int instruction) {
        const Queue queue = queueFor(4);
        queue->put(numbered(1));
        const bool disturbed = disturb([&queue] { queue->put(numbered(2)); }, instruction,
                                       [&queue] { EXPECT_TRUE(queue->put(numbered(3))); });
        EXPECT_EQ(taken(*queue), 1);
        if (disturbed) {
            EXPECT_EQ(taken(*queue) + taken(*queue), 2 + 3);
        } else {
            EXPECT_EQ(taken(*queue), 2);
        }
        EXPECT_EQ(taken(*queue), -1);
        return disturbed;
    });
    EXPECT_GT(instructions, 20U);
}

// Each time with another number: the place may have held the last one.
TEST(SignalQueue, GivesOnlyWhatIsWholeWhicheverInstructionOfAPutATakeInterrupts) {
    SKIP_WITHOUT_STEPS();
    const unsigned int instructions = atEachInstruction([](unsigned int instruction) {
        const Queue queue = queueFor(2);
        const int number = static_cast<int>(instruction) + 1;
        siginfo information = numbered(number);
        information.si_code = number;
        siginfo found = {};
        bool any = false;
        const bool disturbed = disturb([&] { queue->put(information); }, instruction,
                                       [&] { any = queue->take(found); });
        if (any) {
            EXPECT_EQ(found.si_signo, number);
            EXPECT_EQ(found.si_code, number);
        }
        EXPECT_EQ(taken(*queue), any ? -1 : number);
        return disturbed;
    });
    EXPECT_GT(instructions, 20U);
}

TEST(SignalQueue, IsWholeWhicheverInstructionOfATakeAPutInterrupts) {
    SKIP_WITHOUT_STEPS();
    const unsigned int instructions = atEachInstruction([](unsigned int instruction) {
        const Queue queue = queueFor(2);
        queue->put(numbered(1));
        queue->put(numbered(2));
        int first = 0;
        bool hadRoom = false;
        const bool disturbed = disturb([&] { first = taken(*queue); }, instruction,
                                       [&] { hadRoom = queue->put(numbered(3)); });
        EXPECT_EQ(first, 1);
        EXPECT_EQ(taken(*queue), 2);
        EXPECT_EQ(taken(*queue), hadRoom ? 3 : -1);
        EXPECT_EQ(taken(*queue), -1);
        return disturbed;
    });
    EXPECT_GT(instructions, 20U);
}

// Each thread's own come in their order, and none is lost or comes twice.
TEST(SignalQueue, OfSeveralThreadsLosesAndDoublesNone) {
    constexpr int threadCount = 3;
    constexpr int each = 20000;
    const Queue queue = queueFor(64);
    std::vector<int> last(threadCount, 0);
    std::vector<JoiningThread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&queue, thread] {
            for (int number = 1; number <= each; ++number) {
                siginfo information = numbered(number);
                information.si_code = thread;
                while (!queue->put(information)) {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (int count = 0; count < threadCount * each;) {
        siginfo information = {};
        if (!queue->take(information)) {
            std::this_thread::yield();
            continue;
        }
        ++count;
        int& before = last.at(static_cast<std::size_t>(information.si_code));
        ASSERT_EQ(information.si_signo, before + 1);
        before = information.si_signo;
    }
    EXPECT_EQ(taken(*queue), -1);
}

}  // namespace
