// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Where storage comes from inside a handler, and where it goes: a handler's own from and to the
// library's store, the heap's own to the heap, but only once no handler can have interrupted it.

#include <gtest/gtest.h>
#include <malloc.h>
#include <sorvane/svsignalhandlermanager.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <cstring>

#include "support/emulation.h"
#include "support/manager_fixture.h"
#include "support/memory_limit.h"
#include "support/sanitizers.h"

// For the tests that ask the heap how much of it is in use.
#define SKIP_WITHOUT_THE_HEAP()                                                          \
    do {                                                                                 \
        if (underValgrindQ() || builtWithAddressSanitizer || builtWithThreadSanitizer) { \
            GTEST_SKIP() << "valgrind, or the sanitizer, has the heap to itself";        \
        }                                                                                \
    } while (false)

namespace {

using Sorvane::SVObject;

// Large enough for the heap to count it as free at once, and small enough to come from the heap.
constexpr std::size_t blockSize = 8000;

// What the handlers work on; a handler is a plain function.
using Blocks = std::array<void*, 3>;
Blocks blocks;
std::size_t heapBefore;
std::size_t heapAfter;

std::size_t bytesInHeap() {
    return mallinfo2().uordblks;
}

void allocateBlocks(int) {
    for (void*& block : blocks) {
        block = SVObject::operator new(blockSize);
    }
}

void releaseBlocks(int) {
    for (void* const block : blocks) {
        SVObject::operator delete(block);
    }
}

void allocateWatchingTheHeap(int) {
    heapBefore = bytesInHeap();
    allocateBlocks(SIGUSR1);
    heapAfter = bytesInHeap();
}

void allocateAfterAnInnerHandler(int) {
    std::raise(SIGUSR2);
    allocateWatchingTheHeap(SIGUSR1);
}

void doNothing(int) {}

class HandlerStorage : public OneManagerTest {
protected:
    void inHandler(SimpleHandler handler) {
        m_manager.setHandlerFromFunction(SIGUSR1, handler);
        m_manager.startHandlingSignals();
        std::raise(SIGUSR1);
        m_manager.stopHandlingSignals();
        m_manager.clearHandlerWithFunction(SIGUSR1, handler);
    }
};

TEST_F(HandlerStorage, IsNotTheHeaps) {
    SKIP_WITHOUT_THE_HEAP();
    inHandler(allocateWatchingTheHeap);
    EXPECT_EQ(heapAfter, heapBefore);
    const std::size_t before = bytesInHeap();
    releaseBlocks(0);
    EXPECT_EQ(bytesInHeap(), before);
}

TEST_F(HandlerStorage, IsForTheNextHandlerAgainOnceItIsReleasedOutside) {
    inHandler(allocateBlocks);
    const Blocks first = blocks;
    releaseBlocks(0);
    inHandler(allocateBlocks);
    EXPECT_TRUE(std::ranges::is_permutation(blocks, first));
    releaseBlocks(0);
}

TEST_F(HandlerStorage, IsForTheNextHandlerAgainOnceItIsReleasedInAHandler) {
    inHandler(allocateBlocks);
    const Blocks first = blocks;
    inHandler(releaseBlocks);
    inHandler(allocateBlocks);
    EXPECT_TRUE(std::ranges::is_permutation(blocks, first));
    releaseBlocks(0);
}

TEST_F(HandlerStorage, IsStillNotTheHeapsAfterAnInnerHandlerHasReturned) {
    SKIP_WITHOUT_THE_HEAP();
    m_manager.setHandlerFromFunction(SIGUSR2, doNothing);
    inHandler(allocateAfterAnInnerHandler);
    EXPECT_EQ(heapAfter, heapBefore);
    releaseBlocks(0);
}

TEST_F(HandlerStorage, IsTheHeapsAgainAfterAHandlerHasReturned) {
    SKIP_WITHOUT_THE_HEAP();
    inHandler(doNothing);
    const std::size_t before = bytesInHeap();
    allocateBlocks(0);
    EXPECT_GE(bytesInHeap(), before + blocks.size() * blockSize);
    releaseBlocks(0);
    EXPECT_EQ(bytesInHeap(), before);
}

TEST_F(HandlerStorage, ThatIsReleasedInAHandlerGoesToTheHeapAtTheNextAllocation) {
    SKIP_WITHOUT_THE_HEAP();
    inHandler(doNothing);
    allocateBlocks(0);
    const std::size_t before = bytesInHeap();
    m_manager.setHandlerFromFunction(SIGUSR1, releaseBlocks);
    m_manager.startHandlingSignals();
    std::raise(SIGUSR1);
    EXPECT_EQ(bytesInHeap(), before);

    void* const another = SVObject::operator new(1);
    EXPECT_LE(bytesInHeap(), before - (blocks.size() - 1) * blockSize);
    SVObject::operator delete(another);
}

TEST_F(HandlerStorage, ThatIsReleasedInAHandlerGoesToTheHeapAtTheNextRelease) {
    SKIP_WITHOUT_THE_HEAP();
    inHandler(doNothing);
    allocateBlocks(0);
    void* const another = SVObject::operator new(1);
    const std::size_t before = bytesInHeap();
    m_manager.setHandlerFromFunction(SIGUSR1, releaseBlocks);
    m_manager.startHandlingSignals();
    std::raise(SIGUSR1);

    SVObject::operator delete(another);
    EXPECT_LE(bytesInHeap(), before - (blocks.size() - 1) * blockSize);
}

TEST_F(HandlerStorage, ThatIsReleasedInAHandlerGoesToTheHeapOnce) {
    inHandler(doNothing);
    for (int round = 0; round < 3; ++round) {
        allocateBlocks(0);
        inHandler(releaseBlocks);
        SVObject::operator delete(SVObject::operator new(1));
        SVObject::operator delete(SVObject::operator new(1));
    }
    allocateBlocks(0);
    EXPECT_NE(blocks[0], blocks[1]);
    EXPECT_NE(blocks[1], blocks[2]);
    EXPECT_NE(blocks[0], blocks[2]);
    releaseBlocks(0);
}

void fillBlocks(int) {
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        std::memset(blocks[i], static_cast<int>(i + 1), blockSize);
    }
}

bool stillFilledQ() {
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        const auto* const bytes = static_cast<const unsigned char*>(blocks[i]);
        if (std::count(bytes, bytes + blockSize, i + 1) != blockSize) {
            return false;
        }
    }
    return true;
}

TEST_F(HandlerStorage, IsWholeInEveryContext) {
    inHandler(allocateBlocks);
    fillBlocks(0);
    EXPECT_TRUE(stillFilledQ());
    releaseBlocks(0);
    allocateBlocks(0);
    inHandler(fillBlocks);
    EXPECT_TRUE(stillFilledQ());
    inHandler(releaseBlocks);
}

TEST_F(HandlerStorage, ThatCanNotBeHadIsNull) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    m_manager.setHandlerFromFunction(SIGUSR1, allocateBlocks);
    m_manager.startHandlingSignals();
    blocks.fill(&blocks);
    {
        const MemoryLimit noMemory;
        std::raise(SIGUSR1);
    }
    for (void* const block : blocks) {
        EXPECT_EQ(block, nullptr);
    }
}

}  // namespace
