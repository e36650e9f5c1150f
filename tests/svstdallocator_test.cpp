// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The allocator of the library's strings and lists.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <list>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/memory_limit.h"

namespace {

using Sorvane::SVSignalHandler;
using Sorvane::SVStdAllocator;

template <typename T>
using Vector = std::vector<T, SVStdAllocator<T>>;
using String = std::basic_string<char, std::char_traits<char>, SVStdAllocator<char>>;
using RecordList = std::list<SVSignalHandler, SVStdAllocator<SVSignalHandler>>;

using Traits = std::allocator_traits<SVStdAllocator<int>>;
static_assert(std::is_same_v<Traits::value_type, int>);
static_assert(Traits::is_always_equal::value);
static_assert(std::is_same_v<Traits::rebind_alloc<char>, SVStdAllocator<char>>);
static_assert(std::is_nothrow_default_constructible_v<SVStdAllocator<int>>);
static_assert(std::is_nothrow_copy_constructible_v<SVStdAllocator<int>>);
static_assert(std::is_nothrow_constructible_v<SVStdAllocator<int>, const SVStdAllocator<char>&>);

// Alignment that needs some care, and a construction that can be seen.
struct Element {
    Element() { ++constructed; }
    alignas(std::max_align_t) char content[3 * alignof(std::max_align_t)];

    static inline int constructed = 0;
};

TEST(SVStdAllocator, AllAllocatorsAreEqual) {
    EXPECT_TRUE(SVStdAllocator<int>() == SVStdAllocator<int>());
    EXPECT_FALSE(SVStdAllocator<int>() != SVStdAllocator<int>());
    EXPECT_TRUE(SVStdAllocator<int>() == SVStdAllocator<char>());
    EXPECT_FALSE(SVStdAllocator<int>() != SVStdAllocator<char>());
}

TEST(SVStdAllocator, GivesAlignedStorageAndConstructsNothing) {
    Element::constructed = 0;
    SVStdAllocator<Element> allocator;
    Element* const elements = allocator.allocate(5);
    ASSERT_NE(elements, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(elements) % alignof(Element), 0U);
    std::memset(static_cast<void*>(elements), 1, 5 * sizeof(Element));
    EXPECT_EQ(Element::constructed, 0);
    allocator.deallocate(elements, 5);
}

TEST(SVStdAllocator, StorageMayBeGivenBackThroughAnotherAllocator) {
    int* numbers = nullptr;
    {
        SVStdAllocator<int> shortLived;
        numbers = shortLived.allocate(3);
        numbers[2] = 7;
    }
    EXPECT_EQ(numbers[2], 7);
    SVStdAllocator<int>().deallocate(numbers, 3);
}

TEST(SVStdAllocator, ServesAString) {
    String text;
    for (int i = 0; i < 1000; ++i) {
        text += "abc";
    }
    const String copy(text);
    text.clear();
    text.shrink_to_fit();
    EXPECT_EQ(copy.size(), 3000U);
    EXPECT_EQ(copy.substr(2997), "abc");
}

TEST(SVStdAllocator, ServesAVector) {
    Vector<int> numbers;
    for (int i = 0; i < 1000; ++i) {
        numbers.push_back(i);
    }
    const Vector<int> moved(std::move(numbers));
    EXPECT_EQ(moved.back(), 999);
}

TEST(SVStdAllocator, ServesAListOfRecords) {
    RecordList records;
    for (int i = 0; i < 10; ++i) {
        records.push_back(SVSignalHandler(i, SIG_IGN, false, false, true));
    }
    RecordList others;
    others.splice(others.begin(), records);
    EXPECT_TRUE(records.empty());
    EXPECT_EQ(others.size(), 10U);
    EXPECT_EQ(others.back().getSignalNumber(), 9);
}

TEST(SVStdAllocator, ThrowsBadArrayNewLengthForASizeThatCannotBeExpressed) {
    volatile std::size_t count = std::numeric_limits<std::size_t>::max() / sizeof(int) + 1;
    EXPECT_THROW(SVStdAllocator<int>().allocate(count), std::bad_array_new_length);
    count = std::numeric_limits<std::size_t>::max();
    EXPECT_THROW(SVStdAllocator<int>().allocate(count), std::bad_array_new_length);
}

TEST(SVStdAllocator, ThrowsBadAllocForASizeThatCannotBeHad) {
    const volatile std::size_t count = std::numeric_limits<std::size_t>::max() - 4096;
    EXPECT_THROW(SVStdAllocator<int>().allocate(count / sizeof(int)), std::bad_alloc);
    EXPECT_THROW(SVStdAllocator<char>().allocate(count), std::bad_alloc);
}

// ---- Without memory --------------------------------------------------------------------------

class SVStdAllocatorWithoutMemory : public testing::Test {
protected:
    void SetUp() override { SKIP_WITHOUT_MEMORY_LIMIT(); }

    static char* allocateOrNull(std::size_t size) {
        try {
            return SVStdAllocator<char>().allocate(size);
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }

    static void giveBack(char* storage) {
        if (storage != nullptr) {
            SVStdAllocator<char>().deallocate(storage, usualSize);
        }
    }

    /// Whether each byte of storage is the given one.
    static bool holdsOnlyQ(const char* storage, char byte) {
        for (std::size_t i = 0; i < usualSize; ++i) {
            if (storage[i] != byte) {
                return false;
            }
        }
        return true;
    }

    // As long as the longest text that the library throws.
    static constexpr std::size_t usualSize = 55;
    static constexpr std::size_t moreThanTheReserve = 1000;
};

TEST_F(SVStdAllocatorWithoutMemory, ThrowsBadAlloc) {
    // More than the heap can have left.
    constexpr std::size_t count = std::size_t{1} << 22U;
    bool threw = false;
    {
        const MemoryLimit limit;
        try {
            SVStdAllocator<int>().allocate(count);
        } catch (const std::bad_alloc&) {
            threw = true;
        }
    }
    EXPECT_TRUE(threw);
}

TEST_F(SVStdAllocatorWithoutMemory, AListIsAsItWasWhenARecordFindsNoRoom) {
    RecordList records(2, SVSignalHandler(7, SIG_IGN, false, false, true));
    bool threw = false;
    {
        const MemoryLimit limit;
        try {
            records.push_back(SVSignalHandler());
        } catch (const std::bad_alloc&) {
            threw = true;
        }
    }
    EXPECT_TRUE(threw);
    EXPECT_EQ(records.size(), 2U);
    EXPECT_EQ(records.back().getSignalNumber(), 7);
}

TEST_F(SVStdAllocatorWithoutMemory, CharactersComeFromAReserveInBlocksOfTheirOwn) {
    std::array<char*, moreThanTheReserve> blocks{};
    std::size_t count = 0;
    bool overlapping = false;
    {
        const MemoryLimit limit;
        while (count < blocks.size() && (blocks[count] = allocateOrNull(usualSize)) != nullptr) {
            std::memset(blocks[count], static_cast<int>(count % 100), usualSize);
            ++count;
        }
        for (std::size_t i = 0; i < count; ++i) {
            overlapping = overlapping || !holdsOnlyQ(blocks[i], static_cast<char>(i % 100));
        }
        for (std::size_t i = 0; i < count; ++i) {
            giveBack(blocks[i]);
        }
    }
    EXPECT_GE(count, 4U) << "too little for two exceptions at once";
    EXPECT_LT(count, blocks.size()) << "memory has not run out";
    EXPECT_FALSE(overlapping);
}

TEST_F(SVStdAllocatorWithoutMemory, WhatIsGivenBackToTheReserveCanBeHadAgain) {
    std::size_t firstCount = 0;
    std::size_t secondCount = 0;
    {
        const MemoryLimit limit;
        for (std::size_t* const count : {&firstCount, &secondCount}) {
            std::array<char*, moreThanTheReserve> blocks{};
            while (*count < blocks.size() &&
                   (blocks[*count] = allocateOrNull(usualSize)) != nullptr) {
                ++*count;
            }
            for (char* const block : blocks) {
                giveBack(block);
            }
        }
    }
    EXPECT_GT(firstCount, 0U);
    EXPECT_EQ(firstCount, secondCount);
}

TEST_F(SVStdAllocatorWithoutMemory, ABlockOfTheReserveMayBeGivenBackWhenMemoryIsThereAgain) {
    char* block = nullptr;
    char* again = nullptr;
    {
        const MemoryLimit limit;
        block = allocateOrNull(usualSize);
    }
    ASSERT_NE(block, nullptr);
    giveBack(block);
    {
        const MemoryLimit limit;
        again = allocateOrNull(usualSize);
        giveBack(again);
    }
    EXPECT_EQ(again, block);
}

TEST_F(SVStdAllocatorWithoutMemory, TheReserveIsLeftAloneWhileThereIsMemory) {
    char* const ordinary = allocateOrNull(usualSize);
    char* fromReserve = nullptr;
    char* second = nullptr;
    {
        const MemoryLimit limit;
        fromReserve = allocateOrNull(usualSize);
        second = allocateOrNull(usualSize);
    }
    const auto distance = [](const char* left, const char* right) {
        const auto leftPlace = reinterpret_cast<std::uintptr_t>(left);
        const auto rightPlace = reinterpret_cast<std::uintptr_t>(right);
        return leftPlace < rightPlace ? rightPlace - leftPlace : leftPlace - rightPlace;
    };
    EXPECT_LT(distance(second, fromReserve), 4096U);
    EXPECT_GT(distance(ordinary, fromReserve), 4096U);
    giveBack(ordinary);
    giveBack(fromReserve);
    giveBack(second);
}

TEST_F(SVStdAllocatorWithoutMemory, ATextThatNeedsMoreThanABlockIsRefused) {
    bool refused = false;
    {
        const MemoryLimit limit;
        refused = allocateOrNull(5000) == nullptr;
    }
    EXPECT_TRUE(refused);
}

TEST_F(SVStdAllocatorWithoutMemory, NoTextGetsARoomThatIsTooSmallForIt) {
    bool overlapped = false;
    {
        const MemoryLimit limit;
        for (std::size_t size = 1; size < 600; ++size) {
            char* const first = allocateOrNull(size);
            char* const second = first == nullptr ? nullptr : allocateOrNull(size);
            if (second != nullptr) {
                const auto distance = static_cast<std::size_t>(std::abs(second - first));
                overlapped = overlapped || distance < size;
                SVStdAllocator<char>().deallocate(second, size);
            }
            if (first != nullptr) {
                SVStdAllocator<char>().deallocate(first, size);
            }
        }
    }
    EXPECT_FALSE(overlapped);
}

TEST_F(SVStdAllocatorWithoutMemory, AStringHoldsItsTextInTheReserve) {
    bool same = false;
    {
        const MemoryLimit limit;
        const String text("longer than what a string can hold without an allocation");
        same = text == "longer than what a string can hold without an allocation";
    }
    EXPECT_TRUE(same);
}

}  // namespace
