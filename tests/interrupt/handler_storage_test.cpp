// Where storage comes from inside a handler, and where it goes: a handler's own from and to the
// operating system, the heap's own to the heap, but only once no handler can have interrupted it.

#include <gtest/gtest.h>
#include <malloc.h>
#include <sorvane/svsignalhandlermanager.h>
#include <sys/mman.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>

#include "support/emulation.h"
#include "support/manager_fixture.h"
#include "support/memory_limit.h"

// For the tests that ask the heap how much of it is in use.
#define SKIP_UNDER_VALGRIND()                                  \
    do {                                                       \
        if (underValgrindQ()) {                                \
            GTEST_SKIP() << "valgrind has the heap to itself"; \
        }                                                      \
    } while (false)

namespace {

using Sorvane::SVObject;

// Large enough for the heap to count it as free at once, and small enough to come from the heap.
constexpr std::size_t blockSize = 8000;

// What the handlers work on; a handler is a plain function.
std::array<void*, 3> blocks;
std::size_t heapBefore;
std::size_t heapAfter;

std::size_t bytesInHeap() {
    return mallinfo2().uordblks;
}

bool mappedQ(void* address) {
    constexpr std::uintptr_t pageSize = 4096;
    const auto page = reinterpret_cast<std::uintptr_t>(address) & ~(pageSize - 1);
    unsigned char resident = 0;
    return mincore(reinterpret_cast<void*>(page), 1, &resident) == 0 || errno != ENOMEM;
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

void allocateAfterAnInnerHandler(int) {
    std::raise(SIGUSR2);
    heapBefore = bytesInHeap();
    allocateBlocks(SIGUSR1);
    heapAfter = bytesInHeap();
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

    static bool allMappedQ() {
        for (void* const block : blocks) {
            if (!mappedQ(block)) {
                return false;
            }
        }
        return true;
    }

    static bool noneMappedQ() {
        for (void* const block : blocks) {
            if (mappedQ(block)) {
                return false;
            }
        }
        return true;
    }
};

TEST_F(HandlerStorage, IsTheOperatingSystemsAndGoesBackToItAtOnceFromOutside) {
    inHandler(allocateBlocks);
    EXPECT_TRUE(allMappedQ());
    releaseBlocks(0);
    EXPECT_TRUE(noneMappedQ());
}

TEST_F(HandlerStorage, IsTheOperatingSystemsAndGoesBackToItAtOnceFromAHandler) {
    inHandler(allocateBlocks);
    inHandler(releaseBlocks);
    EXPECT_TRUE(noneMappedQ());
}

TEST_F(HandlerStorage, IsStillTheOperatingSystemsAfterAnInnerHandlerHasReturned) {
    SKIP_UNDER_VALGRIND();
    m_manager.setHandlerFromFunction(SIGUSR2, doNothing);
    inHandler(allocateAfterAnInnerHandler);
    EXPECT_EQ(heapAfter, heapBefore);
    releaseBlocks(0);
}

TEST_F(HandlerStorage, IsTheHeapsAgainAfterAHandlerHasReturned) {
    SKIP_UNDER_VALGRIND();
    inHandler(doNothing);
    const std::size_t before = bytesInHeap();
    allocateBlocks(0);
    EXPECT_GE(bytesInHeap(), before + blocks.size() * blockSize);
    releaseBlocks(0);
    EXPECT_EQ(bytesInHeap(), before);
}

TEST_F(HandlerStorage, ThatIsReleasedInAHandlerGoesToTheHeapAtTheNextAllocation) {
    SKIP_UNDER_VALGRIND();
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
    SKIP_UNDER_VALGRIND();
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

TEST_F(HandlerStorage, ThatTheOperatingSystemRefusesIsNull) {
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
