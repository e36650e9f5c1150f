// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The library's own store: what it hands out, to whom, and what becomes of what comes back.

#include <../support/svstore.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/joining_thread.h"
#include "support/memory_limit.h"
#include "support/single_steps.h"
#include "support/stepping.h"

namespace {

namespace SVStore = Sorvane::SVStore;

// Up to here blocks are cut from chunks and kept; larger ones are mapped by themselves.
constexpr std::size_t largestBlock = 64 * 1024;

struct Block {
    unsigned char* storage;
    std::size_t size;
    unsigned char pattern;

    void fill() const { std::memset(storage, pattern, size); }
    bool stillFilledQ() const {
        for (std::size_t i = 0; i < size; ++i) {
            if (storage[i] != pattern) {
                return false;
            }
        }
        return true;
    }
};

unsigned char* take(std::size_t size) {
    return static_cast<unsigned char*>(SVStore::take(size));
}

bool mappedQ(void* address) {
    constexpr std::uintptr_t pageSize = 4096;
    const auto page = reinterpret_cast<std::uintptr_t>(address) & ~(pageSize - 1);
    unsigned char resident = 0;
    return mincore(reinterpret_cast<void*>(page), 1, &resident) == 0 || errno != ENOMEM;
}

// --- One block -----------------------------------------------------------------------------------

TEST(Store, HandsOutStorageAlignedForAnyObjectInEverySize) {
    for (std::size_t size = 0; size < largestBlock + 3000; size += size < 2000 ? 1 : 777) {
        void* const block = SVStore::take(size);
        ASSERT_NE(block, nullptr) << size;
        ASSERT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0U) << size;
        SVStore::giveBack(block, size);
    }
}

TEST(Store, HandsOutAsMuchAsIsAskedForAndNothingTwice) {
    std::vector<Block> blocks;
    for (std::size_t size = 1; size < largestBlock + 3000; size += 1 + size / 20) {
        for (int i = 0; i < 2; ++i) {
            const auto pattern = static_cast<unsigned char>(blocks.size() % 251);
            blocks.push_back({take(size), size, pattern});
            ASSERT_NE(blocks.back().storage, nullptr);
            blocks.back().fill();
        }
    }
    for (const Block& block : blocks) {
        EXPECT_TRUE(block.stillFilledQ()) << block.size;
        SVStore::giveBack(block.storage, block.size);
    }
}

TEST(Store, HandsOutAgainWhatCameBack) {
    for (const std::size_t size : {1U, 64U, 65U, 100U, 1000U, 5000U, 65536U}) {
        void* const first = SVStore::take(size);
        SVStore::giveBack(first, size);
        void* const second = SVStore::take(size);
        EXPECT_EQ(first, second) << size;
        SVStore::giveBack(second, size);
    }
}

// There are four sizes of blocks to a doubling.
TEST(Store, HandsOutAgainForAnySizeThatSharesABlock) {
    constexpr struct {
        std::size_t smallest;
        std::size_t largest;
    } blocks[] = {{1, 64},      {65, 80},     {113, 128},    {129, 160},
                  {1025, 1280}, {7169, 8192}, {8193, 10240}, {40961, 49152}};
    for (const auto& block : blocks) {
        void* const first = SVStore::take(block.smallest);
        SVStore::giveBack(first, block.smallest);
        void* const larger = SVStore::take(block.largest + 1);
        EXPECT_NE(first, larger) << block.largest;
        void* const second = SVStore::take(block.largest);
        EXPECT_EQ(first, second) << block.largest;
        SVStore::giveBack(larger, block.largest + 1);
        SVStore::giveBack(second, block.largest);
    }
}

TEST(Store, UnmapsLargeBlocksAndKeepsTheOthers) {
    void* const kept = SVStore::take(largestBlock);
    SVStore::giveBack(kept, largestBlock);
    EXPECT_TRUE(mappedQ(kept));

    void* const large = SVStore::take(largestBlock + 1);
    EXPECT_TRUE(mappedQ(large));
    SVStore::giveBack(large, largestBlock + 1);
    EXPECT_FALSE(mappedQ(large));
}

// --- Many of them --------------------------------------------------------------------------------

// Where nothing else in a block is: the store's own link lies at its beginning.
constexpr std::size_t offsetOfMark = 2 * sizeof(void*);
constexpr unsigned int markFree = 0x66726565;
constexpr unsigned int markOwned = 0x6f776e65;

std::atomic<unsigned int> freshBlocks;  // those that nobody has marked before
std::atomic<unsigned int> blocksWithTwoOwners;
std::atomic<unsigned int> refusals;

std::atomic<unsigned int>& markOf(void* block) {
    return *reinterpret_cast<std::atomic<unsigned int>*>(static_cast<char*>(block) + offsetOfMark);
}

void* takeAndMark(std::size_t size) {
    void* const block = SVStore::take(size);
    if (block == nullptr) {
        ++refusals;
        return nullptr;
    }
    const unsigned int before = markOf(block).exchange(markOwned);
    blocksWithTwoOwners += before == markOwned ? 1 : 0;
    freshBlocks += before == markOwned || before == markFree ? 0 : 1;
    return block;
}

void giveBackMarked(void* block, std::size_t size) {
    if (block == nullptr) {
        return;
    }
    blocksWithTwoOwners += markOf(block).exchange(markFree) != markOwned ? 1 : 0;
    SVStore::giveBack(block, size);
}

constexpr std::array<std::size_t, 4> usedSizes = {40, 300, 1800, 9000};

void takeAndGiveBackOfEachSize() {
    std::array<void*, usedSizes.size()> blocks = {};
    for (std::size_t i = 0; i < usedSizes.size(); ++i) {
        blocks[i] = takeAndMark(usedSizes[i]);
    }
    for (std::size_t i = 0; i < usedSizes.size(); ++i) {
        giveBackMarked(blocks[i], usedSizes[i]);
    }
}

void useInHandler(int) {
    const int saved = errno;
    takeAndGiveBackOfEachSize();
    errno = saved;
}

void expectEachBlockHadOneOwner() {
    EXPECT_EQ(blocksWithTwoOwners, 0U);
    EXPECT_EQ(refusals, 0U);
}

TEST(StoreInTheLongRun, NeedsNoMoreThanWhatIsInUseAtOnce) {
    for (int round = 0; round < 1000000; ++round) {
        takeAndGiveBackOfEachSize();
    }
    EXPECT_LE(freshBlocks, usedSizes.size());
    expectEachBlockHadOneOwner();
}

void onThreads(std::size_t count, const std::function<void()>& body) {
    std::vector<JoiningThread> threads;
    for (std::size_t i = 0; i < count; ++i) {
        threads.emplace_back(body);
    }
}

TEST(StoreInTheLongRun, GivesNoBlockToTwoThreads) {
    onThreads(8, [] {
        for (int round = 0; round < 50000; ++round) {
            takeAndGiveBackOfEachSize();
        }
    });
    expectEachBlockHadOneOwner();
}

// What one thread takes, another one gives back.
TEST(StoreInTheLongRun, TakesBackOnAnyThread) {
    constexpr std::size_t size = 300;
    std::array<std::atomic<void*>, 16> exchange = {};
    onThreads(4, [&exchange] {
        for (std::size_t round = 0; round < 100000; ++round) {
            void* const block = takeAndMark(size);
            giveBackMarked(exchange[round % exchange.size()].exchange(block), size);
        }
    });
    for (auto& block : exchange) {
        giveBackMarked(block, size);
    }
    expectEachBlockHadOneOwner();
}

TEST(StoreInTheLongRun, GivesNoBlockToAThreadAndAHandler) {
    std::signal(SIGUSR1, useInHandler);
    std::atomic<unsigned int> running{2};
    std::array<std::atomic<pthread_t>, 2> receivers = {};
    std::vector<JoiningThread> threads;
    for (auto& receiver : receivers) {
        threads.emplace_back([&running, &receiver] {
            receiver = pthread_self();
            for (int round = 0; round < 100000; ++round) {
                takeAndGiveBackOfEachSize();
            }
            --running;
            // Whoever sends needs a thread that is there.
            while (running != 0) {
                std::this_thread::yield();
            }
        });
    }
    while (running == receivers.size()) {
        for (const auto& receiver : receivers) {
            if (receiver != 0 && running == receivers.size()) {
                pthread_kill(receiver, SIGUSR1);
            }
        }
        std::this_thread::yield();
    }
    threads.clear();
    expectEachBlockHadOneOwner();
}

#if defined(__x86_64__) || defined(__i386__)

TEST(StoreInTheLongRun, GivesNoBlockToAHandlerAtAnyInstruction) {
    SKIP_WITHOUT_STEPS();
    std::signal(SIGTRAP, useInHandler);
    {
        const SingleSteps steps;
        takeAndGiveBackOfEachSize();
        takeAndGiveBackOfEachSize();
    }
    expectEachBlockHadOneOwner();
}

#endif

// What comes in between takes two blocks, gives back the first of them, and one that was in use. It
// may find no block that was given back, and gets two new ones then.
TEST(StoreInTheLongRun, LosesNoBlockAndGivesNoneToTwoAtAnyInstruction) {
    SKIP_WITHOUT_STEPS();
    constexpr std::size_t size = 300;
    std::vector<void*> known;
    const auto takeUpTo = [](std::vector<void*>& blocks, std::size_t count) {
        while (blocks.size() < count) {
            blocks.push_back(SVStore::take(size));
        }
    };
    takeUpTo(known, 5);
    const unsigned int instructions = atEachInstruction([&](unsigned int instruction) {
        void* const inUse = known.front();
        for (void* const block : known) {
            if (block != inUse) {
                SVStore::giveBack(block, size);
            }
        }
        std::vector<void*> taken(2);
        const bool reached = disturb([&] { taken[0] = SVStore::take(size); }, instruction,
                                     [&] {
                                         void* const first = SVStore::take(size);
                                         taken[1] = SVStore::take(size);
                                         SVStore::giveBack(inUse, size);
                                         SVStore::giveBack(first, size);
                                     });
        if (reached) {
            takeUpTo(taken, known.size() + 2);
            std::ranges::sort(known);
            std::ranges::sort(taken);
            EXPECT_TRUE(std::ranges::includes(taken, known)) << "one is lost";
            EXPECT_EQ(std::ranges::adjacent_find(taken), taken.end()) << "one is there twice";
            known = taken;
        }
        return reached;
    });
    EXPECT_GT(instructions, 10U);
}

// --- The last room in a chunk --------------------------------------------------------------------

// A chunk has room for one block of the larger of these sizes, and for one of the other one then.
constexpr std::size_t chunkSize = 16 * 1024;
constexpr std::size_t mostOfChunk = 10240;
constexpr std::size_t restOfChunk = 5120;

std::size_t mappedBytes() {
    char text[32] = {};
    const int file = open("/proc/self/statm", O_RDONLY);
    const ssize_t length = read(file, text, sizeof(text) - 1);
    close(file);
    return length < 0 ? 0 : static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) * std::stoul(text);
}

// Two blocks of one size: the second one is taken at one instruction of the first one's taking.
struct TwoBlocks {
    unsigned char* interrupted = nullptr;
    unsigned char* interrupting = nullptr;

    // Result: whether the taking had so many instructions.
    bool takeBoth(std::size_t size, unsigned int instruction) {
        return disturb([&] { interrupted = take(size); }, instruction,
                       [&] { interrupting = take(size); });
    }

    void expectTwo(std::size_t size) const {
        ASSERT_NE(interrupted, nullptr);
        ASSERT_NE(interrupting, nullptr);
        const Block first = {interrupted, size, 1};
        const Block second = {interrupting, size, 2};
        first.fill();
        second.fill();
        EXPECT_TRUE(first.stillFilledQ());
    }
};

// The second one is in a chunk that was made for it, because no chunk has room for two.
struct NewChunk {
    const Block before = {take(mostOfChunk), mostOfChunk, 3};
    const Block first = {take(mostOfChunk), mostOfChunk, 4};

    NewChunk() {
        before.fill();
        first.fill();
    }
    void expectUndisturbed() const {
        EXPECT_TRUE(before.stillFilledQ());
        EXPECT_TRUE(first.stillFilledQ());
    }
};

TEST(StoreAtTheEndOfAChunk, GivesTheLastRoomToOneOfTwoAtAnyInstruction) {
    SKIP_WITHOUT_STEPS();
    const unsigned int instructions = atEachInstruction([](unsigned int instruction) {
        const NewChunk chunk;
        TwoBlocks blocks;
        const bool reached = blocks.takeBoth(restOfChunk, instruction);
        if (reached) {
            blocks.expectTwo(restOfChunk);
            chunk.expectUndisturbed();
        }
        return reached;
    });
    EXPECT_GT(instructions, 50U);
}

TEST(StoreAtTheEndOfAChunk, KeepsNoChunkThatASecondOneHasMadeAtAnyInstruction) {
    SKIP_WITHOUT_STEPS();
    const unsigned int instructions = atEachInstruction([](unsigned int instruction) {
        const NewChunk chunk;
        TwoBlocks blocks;
        const std::size_t before = mappedBytes();
        const bool reached = blocks.takeBoth(mostOfChunk, instruction);
        const std::size_t after = mappedBytes();
        if (reached) {
            blocks.expectTwo(mostOfChunk);
            chunk.expectUndisturbed();
            EXPECT_EQ(after - before, 2 * chunkSize);
        }
        return reached;
    });
    EXPECT_GT(instructions, 50U);
}

// --- A child -------------------------------------------------------------------------------------

TEST(StoreInTheLongRun, ServesAForkedChildWhateverOtherThreadsDidJustThen) {
    std::atomic<bool> over{false};
    JoiningThread other([&over] {
        while (!over) {
            takeAndGiveBackOfEachSize();
        }
    });
    for (int child = 0; child < 50; ++child) {
        const ChildEnd end = inChild([] {
            for (int round = 0; round < 100; ++round) {
                takeAndGiveBackOfEachSize();
            }
            EXPECT_EQ(refusals, 0U);
        });
        ASSERT_TRUE(end.wentOnQ()) << end;
    }
    over = true;
    other.join();
    expectEachBlockHadOneOwner();
}

// --- No memory -----------------------------------------------------------------------------------

TEST(StoreWithoutMemory, GivesNullForEverySizeAndHandsOutAgainLater) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    constexpr std::array<std::size_t, 5> sizes = {1, 100, 5000, 60000, 100000};
    std::array<void*, sizes.size()> blocks = {};
    {
        const MemoryLimit limit;
        for (std::size_t i = 0; i < sizes.size(); ++i) {
            blocks[i] = SVStore::take(sizes[i]);
        }
    }
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        EXPECT_EQ(blocks[i], nullptr) << sizes[i];
        blocks[i] = SVStore::take(sizes[i]);
        EXPECT_NE(blocks[i], nullptr) << sizes[i];
        SVStore::giveBack(blocks[i], sizes[i]);
    }
}

TEST(StoreWithoutMemory, StillHandsOutWhatComesBack) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    constexpr std::size_t size = 300;
    void* const block = SVStore::take(size);
    void* again = nullptr;
    void* another = block;
    {
        const MemoryLimit limit;
        SVStore::giveBack(block, size);
        again = SVStore::take(size);
        another = SVStore::take(size);
    }
    EXPECT_EQ(again, block);
    EXPECT_EQ(another, nullptr);
    SVStore::giveBack(block, size);
}

}  // namespace
