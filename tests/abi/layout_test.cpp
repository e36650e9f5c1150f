// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What a client that was compiled earlier has in its code: the sizes of the classes, where their
// members lie, and in which order their virtual functions come. A test that fails here says that
// such clients break.

#include <../support/svhandlercontext.h>
#include <../support/svthreadsfactory.h>
#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>

#include "abi/private_members.h"
#include "support/virtual_table.h"

using namespace Sorvane;

using InnerTable = SVSignalHandlerTable;
using OuterTable = SVSignalTable;

REVEAL_MEMBER(MessageText, SVExceptionMessage, m_message);
REVEAL_MEMBER(MessageFile, SVExceptionMessage, m_file);
REVEAL_MEMBER(ExceptionMessage, SVException, m_message);
REVEAL_MEMBER(ExceptionLine, SVException, m_line);
REVEAL_MEMBER(ExceptionType, SVException, m_type);
REVEAL_MEMBER(ExceptionCode, SVException, m_code);
REVEAL_MEMBER(HandleMutex, SVMutexHandle, m_mutex);
REVEAL_MEMBER(ScopeHandle, SVMutex, m_handle);
REVEAL_MEMBER(RecordSignalNumber, SVSignalHandler, m_signalNumber);
REVEAL_MEMBER(RecordOSRecord, SVSignalHandler, m_osRecord);
REVEAL_MEMBER(RecordPreExists, SVSignalHandler, m_preExists);
REVEAL_MEMBER(RecordExternal, SVSignalHandler, m_external);
REVEAL_MEMBER(RecordValid, SVSignalHandler, m_valid);
REVEAL_MEMBER(SetAnswers, SVSignalHandlerDispositionSet, m_answers);
REVEAL_MEMBER(ManagerLocking, SVSignalHandlerManager, m_locking);
REVEAL_MEMBER(ManagerDispatching, SVSignalHandlerManager, m_dispatching);

#if defined(__GLIBCXX__) && (defined(__x86_64__) || defined(__i386__))

namespace {

// One number for each architecture.
constexpr std::size_t on(std::size_t x86_64, std::size_t i386) {
    return sizeof(void*) == 8 ? x86_64 : i386;
}

// ---- Sizes -----------------------------------------------------------------------------------

static_assert(sizeof(SVObject) == on(8, 4));
static_assert(sizeof(SVThreadsFactory) == on(8, 4));
static_assert(sizeof(SVStdAllocator<char>) == on(8, 4));
static_assert(sizeof(SVStdAllocator<SVSignalHandler>) == on(8, 4));
static_assert(sizeof(SVExceptionMessage) == on(88, 60));
static_assert(sizeof(SVException) == on(112, 76));
static_assert(sizeof(SVMutexHandle) == on(72, 44));
static_assert(sizeof(SVMutex) == on(16, 8));
static_assert(sizeof(SVSignalHandler) == on(176, 152));
static_assert(sizeof(SVSignalHandlerDispositionSet) == on(16, 16));
static_assert(sizeof(SVSignalHandlerList) == on(32, 16));
static_assert(sizeof(SVSignalHandlerManager) == on(16, 8));
static_assert(sizeof(SVGenericHashFunction<int>) == on(8, 4));
static_assert(sizeof(SVGenericHashFunction<void*>) == on(8, 4));
static_assert(sizeof(OuterTable::Iterator) == on(24, 16));
static_assert(sizeof(InnerTable::Iterator) == on(24, 16));
static_assert(sizeof(OuterTable::Entry) == on(32, 20));
static_assert(sizeof(InnerTable::Entry) == on(200, 168));
static_assert(sizeof(OuterTable) == on(328, 204));
static_assert(sizeof(InnerTable) == on(1840, 1536));

// ---- The manager's shared state --------------------------------------------------------------

static_assert(std::is_same_v<decltype(SVSignalHandlerManager::currentlyHandlingSignals), bool>);
static_assert(std::is_same_v<decltype(SVSignalHandlerManager::numberOfManagers), unsigned int>);
static_assert(std::is_same_v<decltype(SVSignalHandlerManager::handlerTables), OuterTable*>);
static_assert(std::is_same_v<decltype(SVSignalHandlerManager::handlerTableLock), SVMutexHandle*>);
static_assert(std::is_same_v<decltype(SVSignalHandlerManager::signalDispositionSet),
                             SVSignalHandlerDispositionSet>);
static_assert(std::is_same_v<decltype(&actualSignalHandler), void (*)(int, siginfo_t*, void*)>);

// ---- Where the members lie -------------------------------------------------------------------

TEST(MemberOffsets, OfTheExceptionsTexts) {
    const SVExceptionMessage texts("", "");
    EXPECT_EQ(offsetOf(texts, memberOf(MessageText())), on(8, 4));
    EXPECT_EQ(offsetOf(texts, memberOf(MessageFile())), on(48, 32));
}

TEST(MemberOffsets, OfTheException) {
    const SVException exception("", "", 0, svexceptionIteratorMisused, 0);
    EXPECT_EQ(offsetOf(exception, memberOf(ExceptionMessage())), on(8, 4));
    EXPECT_EQ(offsetOf(exception, memberOf(ExceptionLine())), on(96, 64));
    EXPECT_EQ(offsetOf(exception, memberOf(ExceptionType())), on(100, 68));
    EXPECT_EQ(offsetOf(exception, memberOf(ExceptionCode())), on(104, 72));
}

TEST(MemberOffsets, OfTheLockAndItsScope) {
    const SVMutexHandle handle;
    EXPECT_EQ(offsetOf(handle, memberOf(HandleMutex())), on(8, 4));
    const SVMutex scope;
    EXPECT_EQ(offsetOf(scope, memberOf(ScopeHandle())), on(8, 4));
}

TEST(MemberOffsets, OfTheRecord) {
    const SVSignalHandler record;
    EXPECT_EQ(offsetOf(record, memberOf(RecordSignalNumber())), on(8, 4));
    EXPECT_EQ(offsetOf(record, memberOf(RecordOSRecord())), on(16, 8));
    EXPECT_EQ(offsetOf(record, memberOf(RecordPreExists())), on(168, 148));
    EXPECT_EQ(offsetOf(record, memberOf(RecordExternal())), on(169, 149));
    EXPECT_EQ(offsetOf(record, memberOf(RecordValid())), on(170, 150));
}

TEST(MemberOffsets, OfTheDispositions) {
    const SVSignalHandlerDispositionSet set;
    EXPECT_EQ(offsetOf(set, memberOf(SetAnswers())), on(8, 8));
}

TEST(MemberOffsets, OfTheManager) {
    const SVSignalHandlerManager manager(false);
    EXPECT_EQ(offsetOf(manager, memberOf(ManagerLocking())), on(8, 4));
    EXPECT_EQ(offsetOf(manager, memberOf(ManagerDispatching())), on(9, 5));
}

TEST(MemberOffsets, OfTheOuterTable) {
    const OuterTable table;
    EXPECT_EQ(offsetOf(table, &OuterTable::used), on(8, 4));
    EXPECT_EQ(offsetOf(table, &OuterTable::fill), on(12, 8));
    EXPECT_EQ(offsetOf(table, &OuterTable::mask), on(16, 12));
    EXPECT_EQ(offsetOf(table, &OuterTable::table), on(24, 16));
    EXPECT_EQ(offsetOf(table, &OuterTable::smalltable), on(32, 20));
    EXPECT_EQ(offsetOf(table, &OuterTable::hashFunction), on(320, 200));
}

TEST(MemberOffsets, OfTheInnerTable) {
    const InnerTable table;
    EXPECT_EQ(offsetOf(table, &InnerTable::used), on(8, 4));
    EXPECT_EQ(offsetOf(table, &InnerTable::fill), on(12, 8));
    EXPECT_EQ(offsetOf(table, &InnerTable::mask), on(16, 12));
    EXPECT_EQ(offsetOf(table, &InnerTable::table), on(24, 16));
    EXPECT_EQ(offsetOf(table, &InnerTable::smalltable), on(32, 20));
    EXPECT_EQ(offsetOf(table, &InnerTable::hashFunction), on(1832, 1532));
}

TEST(MemberOffsets, OfTheOuterTablesEntry) {
    using Entry = OuterTable::Entry;
    const Entry entry;
    EXPECT_EQ(offsetOf(entry, &Entry::key), on(8, 4));
    EXPECT_EQ(offsetOf(entry, &Entry::value), on(16, 8));
    EXPECT_EQ(offsetOf(entry, &Entry::hash), on(24, 12));
    EXPECT_EQ(offsetOf(entry, &Entry::state), on(28, 16));
}

TEST(MemberOffsets, OfTheInnerTablesEntry) {
    using Entry = InnerTable::Entry;
    const Entry entry;
    EXPECT_EQ(offsetOf(entry, &Entry::key), on(8, 4));
    EXPECT_EQ(offsetOf(entry, &Entry::value), on(16, 8));
    EXPECT_EQ(offsetOf(entry, &Entry::hash), on(192, 160));
    EXPECT_EQ(offsetOf(entry, &Entry::state), on(196, 164));
}

template <typename Iterator>
class IteratorOffsets : public testing::Test {};

using Iterators = testing::Types<OuterTable::Iterator, InnerTable::Iterator>;
TYPED_TEST_SUITE(IteratorOffsets, Iterators);

TYPED_TEST(IteratorOffsets, AreAsTheyWere) {
    const TypeParam iterator;
    EXPECT_EQ(offsetOf(iterator, &TypeParam::entries), on(8, 4));
    EXPECT_EQ(offsetOf(iterator, &TypeParam::size), on(16, 8));
    EXPECT_EQ(offsetOf(iterator, &TypeParam::index), on(20, 12));
}

// ---- The order of the virtual functions ------------------------------------------------------

template <typename Class>
struct Maker {
    static Class* make() { return new Class; }
};
template <>
struct Maker<SVExceptionMessage> {
    static SVExceptionMessage* make() { return new SVExceptionMessage("", ""); }
};
template <>
struct Maker<SVException> {
    static SVException* make() { return new SVException("", "", 0, svexceptionIteratorMisused, 0); }
};
template <>
struct Maker<SVSignalHandlerManager> {
    static SVSignalHandlerManager* make() { return new SVSignalHandlerManager(false); }
};

// Where a signal handler makes it, an object's storage comes from the library's own store.
template <typename Class>
Class* madeInTheStore() {
    const SVHandlerContext::Scope scope;
    return Maker<Class>::make();
}

// Tells whether storage from there has been given back: what came back last goes out first.
template <typename Class>
class Storage {
public:
    explicit Storage(const Class* object) : m_address(reinterpret_cast<std::uintptr_t>(object)) {}

    bool givenBackQ() const {
        const SVHandlerContext::Scope scope;
        void* const next = SVObject::operator new(sizeof(Class));
        const auto address = reinterpret_cast<std::uintptr_t>(next);
        SVObject::operator delete(next);
        return address == m_address;
    }

private:
    std::uintptr_t m_address;
};

// The lock's further ones are the lock's own tests' business.
template <typename Class>
constexpr std::size_t numberOfVirtualFunctions = std::is_same_v<Class, SVMutexHandle> ? 5 : 2;

template <typename Class>
class VirtualFunctions : public testing::Test {};

using Classes =
    testing::Types<SVObject, SVThreadsFactory, SVStdAllocator<char>,
                   SVStdAllocator<SVSignalHandler>, SVExceptionMessage, SVException, SVMutexHandle,
                   SVMutex, SVSignalHandler, SVSignalHandlerDispositionSet, SVSignalHandlerManager,
                   SVGenericHashFunction<int>, SVGenericHashFunction<void*>, OuterTable::Iterator,
                   InnerTable::Iterator, OuterTable::Entry, InnerTable::Entry, OuterTable,
                   InnerTable>;
TYPED_TEST_SUITE(VirtualFunctions, Classes);

TYPED_TEST(VirtualFunctions, AreAsManyAsTheyWere) {
    const std::unique_ptr<TypeParam> object(Maker<TypeParam>::make());
    EXPECT_EQ(VirtualTable(*object).size(), numberOfVirtualFunctions<TypeParam>);
}

TYPED_TEST(VirtualFunctions, BeginWithTheDestructorThatLeavesTheStorage) {
    TypeParam* const object = madeInTheStore<TypeParam>();
    const Storage storage(object);
    VirtualTable(*object).template function<void(TypeParam*)>(0)(object);
    ASSERT_FALSE(storage.givenBackQ());
    SVObject::operator delete(object);
    EXPECT_TRUE(storage.givenBackQ());
}

TYPED_TEST(VirtualFunctions, GoOnWithTheDestructorThatGivesTheStorageBack) {
    TypeParam* const object = madeInTheStore<TypeParam>();
    const Storage storage(object);
    ASSERT_FALSE(storage.givenBackQ());
    VirtualTable(*object).template function<void(TypeParam*)>(1)(object);
    EXPECT_TRUE(storage.givenBackQ());
}

}  // namespace

#else

TEST(Layout, IsWrittenDownForThisPlatform) {
    GTEST_SKIP() << "the numbers are those of x86 with libstdc++: strings, lists and locks differ";
}

#endif
