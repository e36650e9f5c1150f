// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Atomic access to plain objects by the compiler's own operations, which stand in for
// std::atomic_ref where the standard library lacks it.

#include <../support/svatomicref.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <latch>
#include <thread>
#include <vector>

namespace {

using Sorvane::SVAtomicRef;
using Sorvane::SVBuiltinAtomicRef;

using Flag = SVBuiltinAtomicRef<bool>;
using Number = SVBuiltinAtomicRef<unsigned int>;
using Word = SVBuiltinAtomicRef<std::uint32_t>;
using Pointer = SVBuiltinAtomicRef<int*>;

static_assert(Flag::is_always_lock_free);
static_assert(Number::is_always_lock_free);
static_assert(Word::is_always_lock_free);
static_assert(Pointer::is_always_lock_free);
static_assert(SVAtomicRef<unsigned int>::is_always_lock_free);

constexpr std::memory_order orders[] = {std::memory_order_relaxed, std::memory_order_consume,
                                        std::memory_order_acquire, std::memory_order_release,
                                        std::memory_order_acq_rel, std::memory_order_seq_cst};

TEST(AtomicRef, ReadsAndWritesTheObject) {
    unsigned int object = 7;
    const Number number(object);
    EXPECT_EQ(number.load(), 7U);
    EXPECT_EQ(number, 7U);
    number.store(8);
    EXPECT_EQ(object, 8U);
    EXPECT_EQ(number.load(std::memory_order_relaxed), 8U);
    number.store(9, std::memory_order_release);
    EXPECT_EQ(number.load(std::memory_order_acquire), 9U);
}

TEST(AtomicRef, CopiesReferToTheSameObject) {
    bool object = false;
    const Flag flag(object);
    const Flag copy(flag);
    copy.store(true);
    EXPECT_TRUE(flag.load());
}

TEST(AtomicRef, ChangesGiveWhatWasThereBefore) {
    for (const std::memory_order order : orders) {
        std::uint32_t object = 0b1100;
        const Word word(object);
        EXPECT_EQ(word.fetch_or(0b0010, order), 0b1100U);
        EXPECT_EQ(word.fetch_and(0b0110, order), 0b1110U);
        EXPECT_EQ(word.fetch_add(4, order), 0b0110U);
        EXPECT_EQ(word.fetch_sub(1, order), 0b1010U);
        EXPECT_EQ(word.exchange(5, order), 0b1001U);
        EXPECT_EQ(object, 5U);
    }
}

TEST(AtomicRef, ExchangesOnlyWhatIsExpected) {
    for (const std::memory_order order : orders) {
        int one = 1;
        int two = 2;
        int* object = &one;
        const Pointer pointer(object);

        int* expected = &two;
        EXPECT_FALSE(pointer.compare_exchange_strong(expected, nullptr, order));
        EXPECT_EQ(expected, &one) << "it tells what it found";
        EXPECT_EQ(object, &one);
        EXPECT_TRUE(pointer.compare_exchange_strong(expected, &two, order));
        EXPECT_EQ(object, &two);

        expected = &one;
        EXPECT_FALSE(pointer.compare_exchange_weak(expected, nullptr, order));
        EXPECT_EQ(expected, &two);
        // A weak exchange may fail without a reason, but not for ever.
        while (!pointer.compare_exchange_weak(expected, &one, order)) {
        }
        EXPECT_EQ(object, &one);
    }
}

TEST(AtomicRef, ExchangesWithAnOrderOfTheirOwnForFailure) {
    unsigned int object = 1;
    const Number number(object);
    unsigned int expected = 2;
    EXPECT_FALSE(number.compare_exchange_strong(expected, 3, std::memory_order_release,
                                                std::memory_order_relaxed));
    EXPECT_EQ(expected, 1U);
    while (!number.compare_exchange_weak(expected, 3, std::memory_order_acq_rel,
                                         std::memory_order_acquire)) {
    }
    EXPECT_EQ(object, 3U);
}

TEST(AtomicRef, LosesNoChangeOfAnyThread) {
    constexpr unsigned int threadCount = 4;
    constexpr unsigned int rounds = 20000;
    unsigned int added = 0;
    unsigned int exchanged = 0;
    std::latch start(threadCount);
    {
        std::vector<std::thread> threads;
        for (unsigned int i = 0; i < threadCount; ++i) {
            threads.emplace_back([&] {
                start.arrive_and_wait();
                for (unsigned int round = 0; round < rounds; ++round) {
                    Number(added).fetch_add(1);
                    unsigned int seen = Number(exchanged).load();
                    while (!Number(exchanged).compare_exchange_weak(seen, seen + 1)) {
                    }
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(added, threadCount * rounds);
    EXPECT_EQ(exchanged, threadCount * rounds);
}

}  // namespace
