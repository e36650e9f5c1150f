// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The lock behind a handle, the factory that it comes from, and its scoped use. Whether a lock is
// free is asked by another thread, because its holder may always take it again.

#include <../support/svthreadsfactory.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <new>
#include <semaphore>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/child_process.h"
#include "support/memory_limit.h"
#include "support/sanitizers.h"
#include "support/thread_state.h"
#include "support/virtual_table.h"

namespace {

using Sorvane::_svmutex;
using Sorvane::SVMutex;
using Sorvane::SVMutexHandle;
using Sorvane::SVObject;
using Sorvane::SVThreadsFactory;

static_assert(Sorvane::svmutexRecursive == 3);
static_assert(!std::is_copy_constructible_v<SVMutex> && !std::is_copy_assignable_v<SVMutex>);
static_assert(!std::is_copy_constructible_v<SVMutexHandle>);
static_assert(!std::is_copy_assignable_v<SVMutexHandle>);

using HandlePointer = std::unique_ptr<SVMutexHandle>;

// As the manager makes its lock.
HandlePointer makeHandle() {
    SVThreadsFactory factory;
    return HandlePointer(factory.CreateUnnamedHandle(static_cast<_svmutex>(3), true));
}

bool freeForAnotherThreadQ(SVMutexHandle& handle) {
    bool taken = false;
    std::thread other([&] {
        taken = handle.tryLock();
        if (taken) {
            handle.unlock();
        }
    });
    other.join();
    return taken;
}

// ---- The handle ------------------------------------------------------------------------------

TEST(SVThreadsFactory, MakesANewOpenHandleEachTime) {
    const HandlePointer one = makeHandle();
    const HandlePointer other = makeHandle();
    ASSERT_NE(one, nullptr);
    ASSERT_NE(other, nullptr);
    EXPECT_NE(one, other);
    EXPECT_TRUE(freeForAnotherThreadQ(*one));
    one->lock();
    EXPECT_TRUE(freeForAnotherThreadQ(*other));
    one->unlock();
}

TEST(SVThreadsFactory, GivesNullWithoutMemory) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    SVThreadsFactory factory;
    const SVMutexHandle* volatile handle = nullptr;
    {
        const MemoryLimit limit;
        handle = factory.CreateUnnamedHandle(Sorvane::svmutexRecursive, true);
    }
    EXPECT_EQ(handle, nullptr);
}

TEST(SVMutexHandle, IsHeldFromLockToUnlock) {
    const HandlePointer handle = makeHandle();
    handle->lock();
    EXPECT_FALSE(freeForAnotherThreadQ(*handle));
    handle->unlock();
    EXPECT_TRUE(freeForAnotherThreadQ(*handle));
}

TEST(SVMutexHandle, IsHeldFromTryLockToUnlock) {
    const HandlePointer handle = makeHandle();
    EXPECT_TRUE(handle->tryLock());
    EXPECT_FALSE(freeForAnotherThreadQ(*handle));
    handle->unlock();
    EXPECT_TRUE(freeForAnotherThreadQ(*handle));
}

TEST(SVMutexHandle, MayBeLockedAgainByItsHolderAndIsFreeAfterAsManyUnlocks) {
    const HandlePointer handle = makeHandle();
    handle->lock();
    handle->lock();
    EXPECT_TRUE(handle->tryLock());
    handle->unlock();
    EXPECT_FALSE(freeForAnotherThreadQ(*handle));
    handle->unlock();
    EXPECT_FALSE(freeForAnotherThreadQ(*handle));
    handle->unlock();
    EXPECT_TRUE(freeForAnotherThreadQ(*handle));
}

TEST(SVMutexHandle, LockWaitsUntilTheHolderUnlocks) {
    const HandlePointer handle = makeHandle();
    std::atomic<pid_t> number{0};
    std::atomic<bool> locked{false};
    handle->lock();
    std::thread other([&] {
        number = gettid();
        handle->lock();
        locked = true;
        handle->unlock();
    });
    while (number == 0 || !(locked || ThreadState(number).asleepQ())) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(locked);
    handle->unlock();
    other.join();
    EXPECT_TRUE(locked);
}

// A number that names no kind counts as the default one.
TEST(SVMutexHandle, OfAnotherKindRefusesItsHolder) {
    for (const auto kind : {Sorvane::svmutexDefault, Sorvane::svmutexNormal,
                            Sorvane::svmutexErrorCheck, static_cast<_svmutex>(4)}) {
        SVMutexHandle handle(kind, true);
        handle.lock();
        EXPECT_FALSE(handle.tryLock());
        handle.unlock();
        EXPECT_TRUE(freeForAnotherThreadQ(handle));
    }
}

TEST(SVThreadsFactory, MakesTheKindThatIsAskedFor) {
    SVThreadsFactory factory;
    const HandlePointer handle(factory.CreateUnnamedHandle(Sorvane::svmutexErrorCheck, true));
    handle->lock();
    EXPECT_FALSE(handle->tryLock());
    handle->unlock();
}

TEST(SVMutexHandle, NotPrivateToAProcessIsHeldAgainstAnother) {
    void* const shared = mmap(nullptr, sizeof(SVMutexHandle), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    auto* const handle = new (shared) SVMutexHandle(Sorvane::svmutexRecursive, false);
    handle->lock();
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        _exit(handle->tryLock() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    handle->unlock();
    EXPECT_TRUE(freeForAnotherThreadQ(*handle));
    std::destroy_at(handle);
    EXPECT_EQ(munmap(shared, sizeof(SVMutexHandle)), 0);
}

// Whether a process, not its other threads, is waiting for something.
bool waitingQ(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string text;
    std::getline(file, text);
    const std::size_t behindName = text.rfind(')');
    return behindName != std::string::npos && text.substr(behindName, 3) == ") S";
}

TEST(SVMutexHandle, NotPrivateToAProcessWakesAnotherThatWaitsForIt) {
    void* const shared = mmap(nullptr, sizeof(SVMutexHandle), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    auto* const handle = new (shared) SVMutexHandle(Sorvane::svmutexRecursive, false);
    handle->lock();
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        alarm(20);
        handle->lock();
        handle->unlock();
        _exit(0);
    }
    while (!waitingQ(child)) {
        std::this_thread::yield();
    }
    handle->unlock();
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << "the child waited until its alarm";
    std::destroy_at(handle);
    EXPECT_EQ(munmap(shared, sizeof(SVMutexHandle)), 0);
}

TEST(SVMutexHandle, IsDeletedThroughItsRoot) {
    const SVObject* const object = makeHandle().release();
    delete object;
}

// ---- In a forked child -----------------------------------------------------------------------

TEST(SVMutexHandleInAChild, IsHeldAsOftenAsByTheThreadThatForked) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer begins no thread in a child of several";
    }
    const HandlePointer handle = makeHandle();
    handle->lock();
    ASSERT_TRUE(handle->tryLock());
    const ChildEnd end = inChild([&handle] {
        handle->goOnInChild();
        EXPECT_FALSE(freeForAnotherThreadQ(*handle));
        handle->unlock();
        EXPECT_FALSE(freeForAnotherThreadQ(*handle));
        handle->unlock();
        EXPECT_TRUE(freeForAnotherThreadQ(*handle));
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
    handle->unlock();
    EXPECT_FALSE(freeForAnotherThreadQ(*handle));
    handle->unlock();
    EXPECT_TRUE(freeForAnotherThreadQ(*handle));
}

TEST(SVMutexHandleInAChild, IsFreeOfTheThreadsThatTheChildHasNot) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer begins no thread in a child of several";
    }
    const HandlePointer handle = makeHandle();
    std::binary_semaphore locked{0};
    std::binary_semaphore done{0};
    std::thread other([&] {
        handle->lock();
        handle->lock();
        locked.release();
        done.acquire();
        handle->unlock();
        handle->unlock();
    });
    locked.acquire();
    const ChildEnd end = inChild([&handle] {
        handle->goOnInChild();
        EXPECT_TRUE(handle->tryLock());
        EXPECT_FALSE(freeForAnotherThreadQ(*handle));
        handle->unlock();
        EXPECT_TRUE(freeForAnotherThreadQ(*handle));
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
    done.release();
    other.join();
    EXPECT_TRUE(freeForAnotherThreadQ(*handle));
}

TEST(SVMutexHandleInAChild, StaysFree) {
    const HandlePointer handle = makeHandle();
    handle->lock();
    handle->unlock();
    const ChildEnd end = inChild([&handle] {
        handle->goOnInChild();
        EXPECT_TRUE(freeForAnotherThreadQ(*handle));
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

TEST(SVMutexHandleInAChild, IsOfItsKind) {
    SVMutexHandle handle(Sorvane::svmutexNormal);
    const ChildEnd end = inChild([&handle] {
        handle.goOnInChild();
        EXPECT_TRUE(handle.tryLock());
        EXPECT_FALSE(handle.tryLock());
        handle.unlock();
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

// ---- What clients that were compiled elsewhere rely on ---------------------------------------

constexpr std::size_t slotOfTryLock = 2;
constexpr std::size_t slotOfLock = 3;
constexpr std::size_t slotOfUnlock = 4;

// A pointer to a virtual member function holds the distance of its slot, and on x86 one more.
template <typename Member>
std::size_t slotOf(Member member) {
    std::uintptr_t bits = 0;
    std::memcpy(&bits, &member, sizeof(bits));
    return bits / sizeof(void*);
}

TEST(SVMutexHandleVirtualFunctions, AreTheDestructorsTryLockLockAndUnlockInThisOrder) {
    EXPECT_EQ(slotOf(&SVMutexHandle::tryLock), slotOfTryLock);
    EXPECT_EQ(slotOf(&SVMutexHandle::lock), slotOfLock);
    EXPECT_EQ(slotOf(&SVMutexHandle::unlock), slotOfUnlock);
}

TEST(SVMutexHandleVirtualFunctions, AreFive) {
    if (!VirtualTable::sizeKnown) {
        GTEST_SKIP() << "the number of virtual functions can't be told here";
    }
    EXPECT_EQ(VirtualTable(*makeHandle()).size(), 5U);
}

TEST(SVMutexHandleVirtualFunctions, DoTheirWorkWhenCalledByTheirSlots) {
    const HandlePointer handle = makeHandle();
    const VirtualTable table(*handle);
    table.function<void(SVMutexHandle*)>(slotOfLock)(handle.get());
    EXPECT_FALSE(freeForAnotherThreadQ(*handle));
    table.function<void(SVMutexHandle*)>(slotOfUnlock)(handle.get());
    EXPECT_TRUE(freeForAnotherThreadQ(*handle));
    EXPECT_TRUE(table.function<bool(SVMutexHandle*)>(slotOfTryLock)(handle.get()));
    EXPECT_FALSE(freeForAnotherThreadQ(*handle));
    handle->unlock();
}

TEST(SVMutexHandleVirtualFunctions, TheSecondDeletesTheHandle) {
    SVMutexHandle* const handle = makeHandle().release();
    VirtualTable(*handle).function<void(SVMutexHandle*)>(1)(handle);
}

// ---- The scoped lock -------------------------------------------------------------------------

class ScopedLock : public testing::Test {
protected:
    bool freeQ() { return freeForAnotherThreadQ(*m_handle); }

    void returnFromInsideAScope(bool& heldInside) {
        SVMutex lock;
        lock.setHandle(m_handle.get());
        heldInside = !freeQ();
        if (heldInside) {
            return;
        }
        heldInside = false;
    }

    HandlePointer m_handle = makeHandle();
};

TEST_F(ScopedLock, HoldsNothingByDefault) {
    m_handle->lock();
    {
        const SVMutex lock;
        EXPECT_FALSE(freeQ());
    }
    EXPECT_FALSE(freeQ());
    m_handle->unlock();
    EXPECT_TRUE(freeQ());
}

TEST_F(ScopedLock, HoldsNothingOfANullHandle) {
    SVMutex lock;
    lock.setHandle(nullptr);
    EXPECT_TRUE(freeQ());
}

TEST_F(ScopedLock, LocksInSetHandleAndUnlocksAtTheEndOfTheScope) {
    {
        SVMutex lock;
        EXPECT_TRUE(freeQ());
        lock.setHandle(m_handle.get());
        EXPECT_FALSE(freeQ());
    }
    EXPECT_TRUE(freeQ());
}

TEST_F(ScopedLock, UnlocksOnAnException) {
    bool heldInside = false;
    try {
        SVMutex lock;
        lock.setHandle(m_handle.get());
        heldInside = !freeQ();
        throw std::runtime_error("out of the scope");
    } catch (const std::runtime_error&) {
        EXPECT_TRUE(freeQ());
    }
    EXPECT_TRUE(heldInside);
    EXPECT_TRUE(freeQ());
}

TEST_F(ScopedLock, UnlocksOnAReturn) {
    bool heldInside = false;
    returnFromInsideAScope(heldInside);
    EXPECT_TRUE(heldInside);
    EXPECT_TRUE(freeQ());
}

TEST_F(ScopedLock, UnlocksOnABreakAndAContinue) {
    for (int round = 0; round < 2; ++round) {
        SVMutex lock;
        lock.setHandle(m_handle.get());
        EXPECT_FALSE(freeQ());
        if (round == 0) {
            continue;
        }
        break;
    }
    EXPECT_TRUE(freeQ());
}

TEST_F(ScopedLock, ScopesOfOneThreadNest) {
    {
        SVMutex outer;
        outer.setHandle(m_handle.get());
        {
            SVMutex inner;
            inner.setHandle(m_handle.get());
        }
        EXPECT_FALSE(freeQ());
    }
    EXPECT_TRUE(freeQ());
}

TEST_F(ScopedLock, LeavesTheHandleToItsOwner) {
    {
        SVMutex lock;
        lock.setHandle(m_handle.get());
    }
    m_handle->lock();
    EXPECT_FALSE(freeQ());
    m_handle->unlock();
}

TEST_F(ScopedLock, LetsOneThreadInAtATime) {
    constexpr int rounds = 20000;
    int counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                SVMutex lock;
                lock.setHandle(m_handle.get());
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counter, 4 * rounds);
}

}  // namespace
