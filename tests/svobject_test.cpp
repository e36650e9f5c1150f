// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The root class, its allocation operators, and the tree of classes that derive from it.

#include <../support/svhandlercontext.h>
#include <../support/svthreadsfactory.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <list>
#include <memory>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/emulation.h"
#include "support/memory_limit.h"
#include "support/sanitizers.h"
#include "support/single_steps.h"
#include "support/table_kinds.h"
#include "support/tracked_value.h"
#include "support/virtual_table.h"

namespace {

using namespace Sorvane;

// ---- The tree --------------------------------------------------------------------------------

template <typename Class>
constexpr bool derivesFromRoot = std::is_base_of_v<SVObject, Class>&&
    std::has_virtual_destructor_v<Class>&& std::is_convertible_v<Class*, SVObject*>;

static_assert(std::has_virtual_destructor_v<SVObject>);
static_assert(derivesFromRoot<SVSignalHandlerManager>);
static_assert(derivesFromRoot<SVThreadsFactory>);
static_assert(derivesFromRoot<SVStdAllocator<char>>);
static_assert(derivesFromRoot<SVStdAllocator<SVSignalHandler>>);
static_assert(derivesFromRoot<SVExceptionMessage>);
static_assert(derivesFromRoot<SVException>);
static_assert(derivesFromRoot<SVMutexHandle>);
static_assert(derivesFromRoot<SVMutex>);
static_assert(derivesFromRoot<SVSignalHandler>);
static_assert(derivesFromRoot<SVSignalHandlerDispositionSet>);
static_assert(derivesFromRoot<OuterTableKind::Table>);
static_assert(derivesFromRoot<OuterTableKind::Table::Entry>);
static_assert(derivesFromRoot<OuterTableKind::Iterator>);
static_assert(derivesFromRoot<SVGenericHashFunction<int>>);
static_assert(derivesFromRoot<InnerTableKind::Table>);
static_assert(derivesFromRoot<InnerTableKind::Table::Entry>);
static_assert(derivesFromRoot<InnerTableKind::Iterator>);
static_assert(derivesFromRoot<SVGenericHashFunction<void*>>);

// Only the manager's destructor may let an exception out, so the root's has to allow it.
static_assert(!std::is_nothrow_destructible_v<SVObject>);
static_assert(!std::is_nothrow_destructible_v<SVSignalHandlerManager>);
static_assert(std::is_nothrow_destructible_v<SVThreadsFactory>);
static_assert(std::is_nothrow_destructible_v<SVStdAllocator<char>>);
static_assert(std::is_nothrow_destructible_v<SVExceptionMessage>);
static_assert(std::is_nothrow_destructible_v<SVException>);
static_assert(std::is_nothrow_destructible_v<SVMutexHandle>);
static_assert(std::is_nothrow_destructible_v<SVMutex>);
static_assert(std::is_nothrow_destructible_v<SVSignalHandler>);
static_assert(std::is_nothrow_destructible_v<SVSignalHandlerDispositionSet>);
static_assert(std::is_nothrow_destructible_v<OuterTableKind::Table>);
static_assert(std::is_nothrow_destructible_v<OuterTableKind::Table::Entry>);
static_assert(std::is_nothrow_destructible_v<OuterTableKind::Iterator>);
static_assert(std::is_nothrow_destructible_v<SVGenericHashFunction<int>>);

static_assert(noexcept(SVObject::operator new (std::size_t{1})));
static_assert(noexcept(SVObject::operator new[](std::size_t{1})));
static_assert(noexcept(SVObject::operator delete(nullptr)));
static_assert(noexcept(SVObject::operator delete[](nullptr)));

class ClassTree : public testing::Test {
protected:
    void SetUp() override {
        if (!VirtualTable::sizeKnown) {
            GTEST_SKIP() << "the number of virtual functions can't be told here";
        }
    }
};

constexpr std::size_t destructorsOnly = 2;

std::size_t numberOfVirtualFunctions(const SVObject& object) {
    return VirtualTable(object).size();
}

TEST_F(ClassTree, TheDestructorsAreTheOnlyVirtualFunctionsOfTheSupportClasses) {
    EXPECT_EQ(numberOfVirtualFunctions(SVObject()), destructorsOnly);
    EXPECT_EQ(numberOfVirtualFunctions(SVThreadsFactory()), destructorsOnly);
    EXPECT_EQ(numberOfVirtualFunctions(SVStdAllocator<char>()), destructorsOnly);
    EXPECT_EQ(numberOfVirtualFunctions(SVExceptionMessage("", "")), destructorsOnly);
    EXPECT_EQ(numberOfVirtualFunctions(SVException("", "", 0, svexceptionIteratorMisused, 0)),
              destructorsOnly);
    EXPECT_EQ(numberOfVirtualFunctions(SVMutex()), destructorsOnly);
    EXPECT_EQ(numberOfVirtualFunctions(SVSignalHandler()), destructorsOnly);
    EXPECT_EQ(numberOfVirtualFunctions(SVSignalHandlerDispositionSet()), destructorsOnly);
}

TEST_F(ClassTree, TheDestructorsAreTheOnlyVirtualFunctionsOfTheTables) {
    EXPECT_EQ(numberOfVirtualFunctions(OuterTableKind::Table()), destructorsOnly);
    EXPECT_EQ(numberOfVirtualFunctions(OuterTableKind::Table::Entry()), destructorsOnly);
    EXPECT_EQ(numberOfVirtualFunctions(OuterTableKind::Iterator()), destructorsOnly);
    EXPECT_EQ(numberOfVirtualFunctions(SVGenericHashFunction<int>()), destructorsOnly);
    EXPECT_EQ(numberOfVirtualFunctions(InnerTableKind::Table()), destructorsOnly);
    EXPECT_EQ(numberOfVirtualFunctions(InnerTableKind::Table::Entry()), destructorsOnly);
    EXPECT_EQ(numberOfVirtualFunctions(InnerTableKind::Iterator()), destructorsOnly);
    EXPECT_EQ(numberOfVirtualFunctions(SVGenericHashFunction<void*>()), destructorsOnly);
}

TEST_F(ClassTree, TheDestructorsAreTheOnlyVirtualFunctionsOfTheManager) {
    const SVSignalHandlerManager manager(false);
    EXPECT_EQ(numberOfVirtualFunctions(manager), destructorsOnly);
}

// ---- The operators ---------------------------------------------------------------------------

// Counts what happens to it; its storage is the root's business.
class Probe : public SVObject {
public:
    explicit Probe(bool refuse = false) {
        if (refuse) {
            throw std::runtime_error("refused");
        }
        ++constructed;
    }
    ~Probe() noexcept override { ++destroyed; }

    int content = 4711;

    static inline int constructed = 0;
    static inline int destroyed = 0;
};

class SVObjectOperators : public testing::Test {
protected:
    void SetUp() override {
        Probe::constructed = 0;
        Probe::destroyed = 0;
        lifeRecords.clear();
    }
};

constexpr std::size_t impossibleSize = std::numeric_limits<std::size_t>::max() - 4096;

bool alignedForAnythingQ(const void* storage) {
    return reinterpret_cast<std::uintptr_t>(storage) % alignof(std::max_align_t) == 0;
}

TEST_F(SVObjectOperators, NewGivesStorageForAnyObject) {
    for (std::size_t size = 0; size < 100; ++size) {
        void* const one = SVObject::operator new(size);
        void* const other = SVObject::operator new[](size);
        ASSERT_NE(one, nullptr);
        ASSERT_NE(other, nullptr);
        EXPECT_NE(one, other);
        EXPECT_TRUE(alignedForAnythingQ(one));
        EXPECT_TRUE(alignedForAnythingQ(other));
        std::fill_n(static_cast<char*>(one), size, 'x');
        std::fill_n(static_cast<char*>(other), size, 'y');
        SVObject::operator delete(one);
        SVObject::operator delete[](other);
    }
}

TEST_F(SVObjectOperators, NewGivesNullForAnImpossibleSize) {
    EXPECT_EQ(SVObject::operator new(impossibleSize), nullptr);
    EXPECT_EQ(SVObject::operator new[](impossibleSize), nullptr);
}

// What the library needs beside the object must not make a small size of it.
TEST_F(SVObjectOperators, NewGivesNullForTheSizesThatComeNearestToNoneAtAll) {
    for (std::size_t below = 1; below <= 64; ++below) {
        volatile std::size_t size = 0;
        size = size - below;
        EXPECT_EQ(SVObject::operator new(size), nullptr) << below;
    }
}

TEST_F(SVObjectOperators, NewGivesNullWithoutMemory) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    bool gaveAny = false;
    {
        const MemoryLimit limit;
        for (std::size_t size = 0; size < 5000; ++size) {
            gaveAny = gaveAny || SVObject::operator new(size) != nullptr ||
                      SVObject::operator new[](size) != nullptr;
        }
    }
    EXPECT_FALSE(gaveAny);
}

TEST_F(SVObjectOperators, AnObjectWithoutMemoryIsNullAndNotConstructed) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    const Probe* volatile probe = nullptr;
    const Probe* volatile probes = nullptr;
    {
        const MemoryLimit limit;
        probe = new Probe;
        probes = new Probe[3];
    }
    EXPECT_EQ(probe, nullptr);
    EXPECT_EQ(probes, nullptr);
    EXPECT_EQ(Probe::constructed, 0);
}

TEST_F(SVObjectOperators, AnArrayOfSlotsWithoutMemoryIsNullAndNothingIsConstructed) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    const TrackedEntry* volatile slots = nullptr;
    {
        const MemoryLimit limit;
        slots = new TrackedEntry[33];
    }
    EXPECT_EQ(slots, nullptr);
    EXPECT_TRUE(lifeRecords.empty());
}

TEST_F(SVObjectOperators, DeleteOfNullDoesNothing) {
    SVObject::operator delete(nullptr);
    SVObject::operator delete[](nullptr);
    const Probe* volatile nothing = nullptr;
    delete nothing;
    delete[] nothing;
    EXPECT_EQ(Probe::destroyed, 0);
}

TEST_F(SVObjectOperators, DeleteGivesTheStorageBack) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    constexpr std::size_t size = 200;
    void* one = SVObject::operator new(size);
    void* other = SVObject::operator new[](size);
    {
        const MemoryLimit limit;
        SVObject::operator delete(one);
        one = SVObject::operator new(size);
        SVObject::operator delete[](other);
        other = SVObject::operator new[](size);
    }
    EXPECT_NE(one, nullptr);
    EXPECT_NE(other, nullptr);
    SVObject::operator delete(one);
    SVObject::operator delete[](other);
}

TEST_F(SVObjectOperators, AnObjectIsDestroyedThroughAPointerToItsRoot) {
    const SVObject* const object = new Probe;
    delete object;
    EXPECT_EQ(Probe::constructed, 1);
    EXPECT_EQ(Probe::destroyed, 1);
}

TEST_F(SVObjectOperators, AnObjectWhoseConstructorThrowsLeavesNoStorageBehind) {
    EXPECT_THROW(delete new Probe(true), std::runtime_error);
    EXPECT_EQ(Probe::destroyed, 0);
}

TEST_F(SVObjectOperators, AnArrayIsDestroyedLastElementFirst) {
    const TrackedEntry* const slots = new TrackedEntry[5];
    const TrackedSlots tracked(slots, 5);
    delete[] slots;
    EXPECT_EQ(tracked.indicesOf(LifeEvent::constructed), firstToLast(5));
    EXPECT_EQ(tracked.indicesOf(LifeEvent::destroyed), lastToFirst(5));
}

TEST_F(SVObjectOperators, ThePlacementFormsGiveThePlaceAndDeleteNothing) {
    alignas(Probe) unsigned char bytes[sizeof(Probe)];
    // The compiler is not to know that this was never allocated.
    void* const volatile place = bytes;
    void* const room = place;
    EXPECT_EQ(SVObject::operator new(sizeof(bytes), room), room);
    EXPECT_EQ(SVObject::operator new[](sizeof(bytes), room), room);
    SVObject::operator delete(room, room);
    SVObject::operator delete[](room, room);
}

TEST_F(SVObjectOperators, AnObjectCanBeMadeInAPlace) {
    alignas(Probe) unsigned char room[sizeof(Probe)];
    Probe* const probe = new (room) Probe;
    EXPECT_EQ(static_cast<void*>(probe), room);
    EXPECT_EQ(probe->content, 4711);
    std::destroy_at(probe);
    EXPECT_EQ(Probe::destroyed, 1);
}

TEST_F(SVObjectOperators, AnObjectInAPlaceWhoseConstructorThrowsLeavesThePlaceAlone) {
    alignas(Probe) unsigned char room[sizeof(Probe)];
    EXPECT_THROW(new (room) Probe(true), std::runtime_error);
}

TEST_F(SVObjectOperators, ObjectsCanBeKeptInStandardContainers) {
    std::list<Probe> probes(3);
    EXPECT_EQ(probes.back().content, 4711);
}

#if defined(__x86_64__) || defined(__i386__)

// Blocks of the heap that signal handlers release, one at each instruction of another release. They
// are too large for the heap's lists of blocks that it goes on counting as used.
constexpr std::size_t blockSize = 4000;
std::vector<void*> blocksToRelease;

void releaseABlock(int) {
    if (!blocksToRelease.empty()) {
        SVObject::operator delete(blocksToRelease.back());
        blocksToRelease.pop_back();
    }
}

void releaseInterruptedByReleases(void* storage) {
    const SVHandlerContext::Scope scope;
    const SingleSteps steps;
    SVObject::operator delete(storage);
}

TEST_F(SVObjectOperators, NoBlockIsLostThatIsReleasedInAHandlerWhileOthersAre) {
    if (builtWithAddressSanitizer || builtWithThreadSanitizer) {
        GTEST_SKIP() << "a sanitizer steps badly, and has a heap of its own";
    }
    if (underValgrindQ()) {
        GTEST_SKIP() << "valgrind has no trap flag, and a heap of its own";
    }
    blocksToRelease.reserve(1000);
    std::signal(SIGTRAP, releaseABlock);
    const std::size_t usedBefore = mallinfo2().uordblks;
    void* const storage = SVObject::operator new(blockSize);
    while (blocksToRelease.size() < blocksToRelease.capacity()) {
        blocksToRelease.push_back(SVObject::operator new(blockSize));
    }
    releaseInterruptedByReleases(storage);
    while (!blocksToRelease.empty()) {
        releaseABlock(0);
    }
    // Takes what was put aside to the heap.
    SVObject::operator delete(SVObject::operator new(blockSize));
    EXPECT_EQ(mallinfo2().uordblks, usedBefore);
}

#endif

// ---- The order of the virtual functions ------------------------------------------------------

// Tells whether it was deleted or only destroyed.
class Mortal : public SVObject {
public:
    ~Mortal() noexcept override { ++destroyed; }
    static void* operator new(std::size_t size) noexcept { return SVObject::operator new(size); }
    static void operator delete(void* storage) noexcept {
        ++deleted;
        SVObject::operator delete(storage);
    }

    static inline int destroyed = 0;
    static inline int deleted = 0;
};

TEST(SVObjectVirtualFunctions, TheFirstDestroysTheObjectAndTheSecondDeletesItToo) {
    using Destructor = void(SVObject*);
    auto* const onlyDestroyed = new Mortal;
    VirtualTable(*onlyDestroyed).function<Destructor>(0)(onlyDestroyed);
    EXPECT_EQ(Mortal::destroyed, 1);
    EXPECT_EQ(Mortal::deleted, 0);
    SVObject::operator delete(onlyDestroyed);

    auto* const deletedToo = new Mortal;
    VirtualTable(*deletedToo).function<Destructor>(1)(deletedToo);
    EXPECT_EQ(Mortal::destroyed, 2);
    EXPECT_EQ(Mortal::deleted, 1);
}

}  // namespace
