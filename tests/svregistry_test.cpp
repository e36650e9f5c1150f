// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The published tables: when they are changed in place, when in a copy, and when what has been
// displaced is released.

#include <../registry/svgate.h>
#include <../registry/svpin.h>
#include <../registry/svregistry.h>
#include <../support/svstore.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <initializer_list>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/emulation.h"
#include "support/gate.h"
#include "support/joining_thread.h"
#include "support/memory_limit.h"
#include "support/sanitizers.h"
#include "support/single_steps.h"
#include "support/stepping.h"

namespace {

using Sorvane::signalKey;
using Sorvane::SVFailure;
using Sorvane::SVGate;
using Sorvane::SVPin;
using Sorvane::SVRegistry;
using Sorvane::SVSignalHandler;
using Sorvane::SVSignalHandlerTable;
using Sorvane::SVSignalTable;

constexpr SVFailure noTable("no table", "here", 1, Sorvane::svexceptionAllocationFailed, 0);

// Never called: the addresses are chosen for their slots, which are those of their lowest digits.
void* functionAt(std::uintptr_t address) {
    return reinterpret_cast<void*>(0x1000 + address);
}

SVSignalHandler recordOf(int signalNumber, std::uintptr_t address, bool valid = true) {
    const auto function = reinterpret_cast<void (*)(int)>(functionAt(address));
    return SVSignalHandler(signalNumber, function, false, false, valid);
}

class RegistryTest : public testing::Test {
protected:
    RegistryTest() {
        const SVGate gate;
        m_registry.begin();
    }
    ~RegistryTest() override {
        const SVGate gate;
        if (m_published != nullptr) {
            m_registry.end();
        }
        // What was retired goes with the end of the next one.
        m_registry.begin();
        m_registry.end();
    }

    bool addTable(int signalNumber) {
        const SVGate gate;
        return !m_registry.addTable(signalNumber, noTable);
    }
    bool store(int signalNumber, std::uintptr_t address, bool valid = true) {
        const SVGate gate;
        return !m_registry.addTable(signalNumber, noTable) &&
               !m_registry.store(recordOf(signalNumber, address, valid), noTable);
    }
    bool remove(int signalNumber, std::uintptr_t address) {
        const SVGate gate;
        return !m_registry.detach(signalNumber, noTable).then([&] {
            m_registry.remove(signalNumber, functionAt(address));
        });
    }
    void end() {
        const SVGate gate;
        m_registry.end();
    }
    void begin() {
        const SVGate gate;
        m_registry.begin();
    }

    SVSignalHandlerTable* tableOf(int signalNumber) const {
        return m_registry.tableOf(signalNumber);
    }
    bool hasQ(int signalNumber, std::uintptr_t address) const {
        return tableOf(signalNumber)->has_key(functionAt(address));
    }

    SVSignalTable* m_published = nullptr;
    SVRegistry m_registry{m_published};
};

// --- While nobody reads --------------------------------------------------------------------------

TEST_F(RegistryTest, BeginsWithAnEmptyTableAndEndsWithNone) {
    ASSERT_NE(m_published, nullptr);
    EXPECT_EQ(m_published->used, 0U);
    EXPECT_EQ(tableOf(SIGUSR1), nullptr);
    EXPECT_EQ(m_registry.timesEnded(), 0U);
    end();
    EXPECT_EQ(m_published, nullptr);
    EXPECT_EQ(tableOf(SIGUSR1), nullptr);
    EXPECT_EQ(m_registry.timesEnded(), 1U);
}

TEST_F(RegistryTest, WithoutATableHasNoneForASignalEither) {
    end();
    const SVGate gate;
    const SVFailure failure = m_registry.addTable(SIGUSR1, noTable);
    ASSERT_TRUE(failure);
    EXPECT_STREQ(failure.exception().getMessage(), "no table");
    EXPECT_EQ(m_published, nullptr);
}

// A free slot looks like one that pins no tables at all.
TEST_F(RegistryTest, WithoutATableEndsOnceMoreAlsoWhileAllSlotsArePinned) {
    end();
    constexpr std::size_t slotCount = 64;
    std::array<SVSignalTable, slotCount> others;
    std::array<SVSignalTable*, slotCount> places = {};
    std::deque<SVPin> pins;
    for (std::size_t i = 0; i < slotCount; ++i) {
        places.at(i) = &others.at(i);
        pins.emplace_back(places.at(i));
    }
    EXPECT_FALSE(SVPin::pinnedQ(nullptr));
    end();
    EXPECT_EQ(m_registry.timesEnded(), 2U);
}

TEST_F(RegistryTest, MakesATableForASignalOnce) {
    ASSERT_TRUE(addTable(SIGUSR1));
    SVSignalHandlerTable* const table = tableOf(SIGUSR1);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->used, 0U);
    ASSERT_TRUE(addTable(SIGUSR1));
    EXPECT_EQ(tableOf(SIGUSR1), table);
    EXPECT_EQ(m_published->used, 1U);
}

TEST_F(RegistryTest, HasATableForEveryNumber) {
    for (const int signalNumber : {INT_MIN, -1, 0, 1, 64, 1000, INT_MAX}) {
        ASSERT_TRUE(store(signalNumber, 1));
        ASSERT_NE(tableOf(signalNumber), nullptr) << signalNumber;
        EXPECT_EQ(m_published->get(signalKey(signalNumber))->value, tableOf(signalNumber));
    }
    EXPECT_EQ(m_published->used, 7U);
}

TEST_F(RegistryTest, KeepsAllAddressesWhileSignalsAreAddedAndTheOuterTableGrows) {
    const SVSignalTable* const outer = m_published;
    std::vector<SVSignalHandlerTable*> tables;
    for (int signalNumber = 1; signalNumber <= 60; ++signalNumber) {
        ASSERT_TRUE(addTable(signalNumber));
        tables.push_back(tableOf(signalNumber));
        ASSERT_EQ(m_published, outer) << signalNumber;
    }
    EXPECT_GT(m_published->mask, 31U);
    for (int signalNumber = 1; signalNumber <= 60; ++signalNumber) {
        EXPECT_EQ(tableOf(signalNumber), tables[static_cast<std::size_t>(signalNumber) - 1]);
    }
}

TEST_F(RegistryTest, KeepsTheAddressOfASignalsTableWhileItGrowsAndIsCleaned) {
    ASSERT_TRUE(addTable(SIGUSR1));
    const SVSignalHandlerTable* const table = tableOf(SIGUSR1);
    for (std::uintptr_t address = 0; address < 100; ++address) {
        ASSERT_TRUE(store(SIGUSR1, address));
        ASSERT_EQ(tableOf(SIGUSR1), table) << address;
    }
    EXPECT_EQ(table->used, 100U);
    for (std::uintptr_t address = 0; address < 100; ++address) {
        ASSERT_TRUE(remove(SIGUSR1, address));
    }
    for (std::uintptr_t address = 200; address < 700; ++address) {
        ASSERT_TRUE(store(SIGUSR1, address));
        ASSERT_TRUE(remove(SIGUSR1, address));
        ASSERT_EQ(tableOf(SIGUSR1), table) << address;
    }
    EXPECT_EQ(table->used, 0U);
}

TEST_F(RegistryTest, ChangesARecordInItsSlot) {
    ASSERT_TRUE(store(SIGUSR1, 1));
    const SVSignalHandlerTable::Entry* const slot = tableOf(SIGUSR1)->get(functionAt(1));
    ASSERT_TRUE(store(SIGUSR1, 1, false));
    EXPECT_EQ(tableOf(SIGUSR1)->get(functionAt(1)), slot);
    EXPECT_FALSE(slot->value.validQ());
    ASSERT_TRUE(remove(SIGUSR1, 1));
    EXPECT_EQ(slot->state, Sorvane::svslotDeleted);
    EXPECT_EQ(tableOf(SIGUSR1)->used, 0U);
}

// Their handlers may come in the middle of a change; afterwards there is nothing to be seen of
// that.
TEST_F(RegistryTest, KeepsTheAddressesOfTheTablesOfSignalsThatAreNotHeldBackToo) {
    for (const int signalNumber : {SIGTRAP, SIGSYS}) {
        ASSERT_TRUE(store(signalNumber, 1));
        const SVSignalHandlerTable* const table = tableOf(signalNumber);
        const SVSignalHandlerTable::Entry* const slots = table->table;
        ASSERT_TRUE(store(signalNumber, 2));
        ASSERT_TRUE(remove(signalNumber, 1));
        EXPECT_EQ(tableOf(signalNumber), table);
        EXPECT_EQ(table->table, slots);
        EXPECT_FALSE(hasQ(signalNumber, 1));
        EXPECT_TRUE(hasQ(signalNumber, 2));
    }
}

// The slots of that many lie in memory of their own, which goes at once.
TEST_F(RegistryTest, EndsWithManySignals) {
    for (int signalNumber = 1; signalNumber <= 400; ++signalNumber) {
        ASSERT_TRUE(addTable(signalNumber));
    }
    {
        const SVPin reader(m_published);
        ASSERT_TRUE(addTable(0));
    }
    ASSERT_TRUE(addTable(-1));
    end();
    EXPECT_EQ(m_published, nullptr);
}

// The storage of a table that is gone may be somebody else's.
TEST_F(RegistryTest, CountsNothingAnewAfterAChange) {
    for (const int signalNumber : {SIGUSR1, SIGTRAP}) {
        ASSERT_TRUE(addTable(signalNumber));
        ASSERT_TRUE(store(signalNumber, 1));
        end();
        using Storage = std::array<unsigned char, sizeof(SVSignalHandlerTable)>;
        Storage pattern;
        pattern.fill(0xa5);
        std::vector<void*> blocks(10);
        const SVGate gate;
        for (void*& block : blocks) {
            block = Sorvane::SVStore::take(sizeof(Storage));
            ASSERT_NE(block, nullptr);
            std::memcpy(block, pattern.data(), sizeof(Storage));
        }
        SVRegistry::countAnew();
        for (void* const block : blocks) {
            EXPECT_EQ(std::memcmp(block, pattern.data(), sizeof(Storage)), 0) << signalNumber;
            Sorvane::SVStore::giveBack(block, sizeof(Storage));
        }
        m_registry.begin();
    }
}

#if defined(__x86_64__) || defined(__i386__)

// --- At each instruction

struct Watched {
    SVSignalTable** place;
    SVSignalHandlerTable* table;
    unsigned int steps;
    unsigned int elsewhere;
    unsigned int wrong;
};
Watched watched;

// What a debugger's handler finds inside the gate.
void lookAtWhatIsPublished(int) {
    ++watched.steps;
    const SVSignalTable::Entry* const entry = (*watched.place)->get(signalKey(SIGUSR1));
    watched.wrong += entry == nullptr ? 1U : 0U;
    watched.elsewhere += entry != nullptr && entry->value != watched.table ? 1U : 0U;
}

class RegistryStepped : public RegistryTest {
protected:
    void SetUp() override {
        if (underValgrindQ() || builtWithThreadSanitizer) {
            GTEST_SKIP() << "there is no trap flag here, or the signal comes later";
        }
        ASSERT_TRUE(store(SIGUSR1, 1));
        watched = Watched{&m_published, tableOf(SIGUSR1), 0, 0, 0};
    }

    template <typename Change>
    static void stepThrough(Change change, void (*handler)(int) = lookAtWhatIsPublished) {
        std::signal(SIGTRAP, handler);
        {
            const SVGate gate;
            const SingleSteps steps;
            change();
        }
        std::signal(SIGTRAP, SIG_DFL);
    }

    template <typename Change>
    static void step(Change change, void (*handler)(int) = lookAtWhatIsPublished) {
        stepThrough(change, handler);
        EXPECT_GT(watched.steps, 100U);
        EXPECT_EQ(watched.wrong, 0U);
    }
};

// Nothing else takes the place of the table, not even for a moment.
TEST_F(RegistryStepped, ChangesATableInItsPlaceIfNobodyReads) {
    const SVSignalHandler record = recordOf(SIGUSR1, 2);
    step([&] {
        m_registry.store(record, noTable);
        m_registry.remove(SIGUSR1, functionAt(1));
    });
    EXPECT_EQ(watched.elsewhere, 0U);
}

bool countedRightQ(const SVSignalHandlerTable& table) {
    unsigned int used = 0;
    unsigned int fill = 0;
    for (unsigned int slot = 0; slot <= table.mask; ++slot) {
        used += table.table[slot].state == Sorvane::svslotOccupied ? 1 : 0;
        fill += table.table[slot].state != Sorvane::svslotEmpty ? 1 : 0;
    }
    return table.used == used && table.fill == fill;
}

// A child that tells whether all is right in it.
template <typename Body>
void splitOff(Body body) {
    ++watched.steps;
    const pid_t child = fork();
    if (child == 0) {
        _exit(body() ? 0 : 1);
    }
    int status = 1;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    watched.wrong += status == 0 ? 0U : 1U;
}

// Nobody goes on with the change there.
void splitAChildOff(int) {
    splitOff([] {
        SVSignalHandlerTable* const table = watched.table;
        SVRegistry::countAnew();
        const bool right = countedRightQ(*table);
        // Once is enough.
        table->used += 10;
        SVRegistry::countAnew();
        table->used -= 10;
        return right && countedRightQ(*table);
    });
}

TEST_F(RegistryStepped, ChangesATableInItsPlaceWithoutMemoryForAStandIn) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    const SVSignalHandler record = recordOf(SIGUSR1, 1, false);
    MemoryLimit limit;
    stepThrough([&] { m_registry.store(record, noTable); });
    limit.release();
    EXPECT_GT(watched.steps, 100U);
    EXPECT_EQ(watched.wrong, 0U);
    EXPECT_EQ(watched.elsewhere, 0U);
    EXPECT_FALSE(watched.table->get(functionAt(1))->value.validQ());
}

TEST_F(RegistryStepped, IsCountedRightInAChildAtAnyInstruction) {
    for (const std::uintptr_t address : {0U, 3U, 7U}) {
        ASSERT_TRUE(store(SIGUSR1, address));
    }
    ASSERT_TRUE(remove(SIGUSR1, 3));
    const SVSignalHandler record = recordOf(SIGUSR1, 5);
    step(
        [&] {
            m_registry.store(record, noTable);
            m_registry.remove(SIGUSR1, functionAt(7));
        },
        splitAChildOff);
    EXPECT_EQ(tableOf(SIGUSR1)->used, 3U);
    EXPECT_EQ(tableOf(SIGUSR1)->fill, 5U);
}

// A child in which somebody goes on with the walk that another thread's change leaves its tables
// to, and changes more.
const SVSignalTable* tablesBeingRead = nullptr;
SVRegistry* registryOfChild = nullptr;

void splitAChildOffThatReads(int) {
    splitOff([] {
        SVRegistry::countAnew();
        const SVSignalHandlerTable* const table = tablesBeingRead->get(signalKey(SIGUSR1))->value;
        unsigned char before[sizeof(table->smalltable)];
        std::memcpy(before, static_cast<const void*>(table->smalltable), sizeof(before));
        for (std::uintptr_t address = 10; address < 20; ++address) {
            registryOfChild->store(recordOf(SIGUSR1, address), noTable);
        }
        for (std::uintptr_t address = 10; address < 20; ++address) {
            registryOfChild->remove(SIGUSR1, functionAt(address));
        }
        return std::memcmp(before, static_cast<const void*>(table->smalltable), sizeof(before)) ==
               0;
    });
}

TEST_F(RegistryStepped, LeavesToAReaderWhatItReadsInAChildThatIsSplitOffAtAnyInstruction) {
    if (builtWithAddressSanitizer) {
        GTEST_SKIP() << "there are too many instructions here";
    }
    const SVPin pin(m_published);
    tablesBeingRead = pin.tables();
    registryOfChild = &m_registry;
    const SVSignalHandler record = recordOf(SIGUSR1, 2);
    step([&] { m_registry.store(record, noTable); }, splitAChildOffThatReads);
}

// Half of one record and half of another is nothing to be called.
TEST_F(RegistryStepped, ReplacesARecordAndRebuildsATableWhereNobodyFindsIt) {
    for (std::uintptr_t address = 2; address < 6; ++address) {
        ASSERT_TRUE(store(SIGUSR1, address));
    }
    ASSERT_TRUE(tableOf(SIGUSR1)->growsWithQ(functionAt(6)));
    for (const SVSignalHandler& record : {recordOf(SIGUSR1, 1, false), recordOf(SIGUSR1, 6)}) {
        watched = Watched{&m_published, tableOf(SIGUSR1), 0, 0, 0};
        step([&] { m_registry.store(record, noTable); });
        EXPECT_GT(watched.elsewhere, 20U);
        EXPECT_EQ(tableOf(SIGUSR1), watched.table);
    }
}

// The slots of that many lie in memory of their own, which goes at once.
TEST_F(RegistryStepped, IsThereWhileASignalIsAddedToMany) {
    for (int signalNumber = 1; signalNumber <= 400; ++signalNumber) {
        ASSERT_TRUE(addTable(signalNumber));
    }
    step([this] { m_registry.addTable(1000, noTable); });
}

#endif

// --- While somebody reads ------------------------------------------------------------------------

class RegistryWhileRead : public RegistryTest {
protected:
    RegistryWhileRead() {
        store(SIGUSR1, 1);
        store(SIGUSR2, 1);
        m_outer = m_published;
        m_first = tableOf(SIGUSR1);
        m_second = tableOf(SIGUSR2);
        m_reader.emplace(m_published);
    }

    // The reader finds what it found before.
    void expectReaderUndisturbed() const {
        ASSERT_EQ(m_reader->tables(), m_outer);
        EXPECT_EQ(m_outer->used, 2U);
        EXPECT_EQ(m_reader->tableOf(SIGUSR1), m_first);
        EXPECT_EQ(m_reader->tableOf(SIGUSR2), m_second);
        for (const SVSignalHandlerTable* const table : {m_first, m_second}) {
            EXPECT_EQ(table->used, 1U);
            ASSERT_TRUE(table->has_key(functionAt(1)));
            EXPECT_TRUE(table->get(functionAt(1))->value.validQ());
        }
    }

    // What has been released is used again, and so is no longer what it was.
    void storeForOthers() {
        for (int signalNumber = 20; signalNumber < 40; ++signalNumber) {
            ASSERT_TRUE(store(signalNumber, 5));
        }
    }

    SVSignalTable* m_outer = nullptr;
    SVSignalHandlerTable* m_first = nullptr;
    SVSignalHandlerTable* m_second = nullptr;
    std::optional<SVPin> m_reader;
};

TEST_F(RegistryWhileRead, PublishesACopyInWhichASignalIsAdded) {
    ASSERT_TRUE(addTable(SIGTERM));
    EXPECT_NE(m_published, m_outer);
    EXPECT_NE(tableOf(SIGTERM), nullptr);
    EXPECT_EQ(tableOf(SIGUSR1), m_first) << "what does not change is shared";
    EXPECT_EQ(m_reader->tableOf(SIGTERM), nullptr);
    expectReaderUndisturbed();
}

TEST_F(RegistryWhileRead, PublishesACopyInWhichARecordIsAddedOrChangedOrRemoved) {
    const std::function<void()> changes[] = {
        [this] { ASSERT_TRUE(store(SIGUSR1, 2)); },
        [this] { ASSERT_TRUE(store(SIGUSR1, 1, false)); },
        [this] { ASSERT_TRUE(remove(SIGUSR1, 1)); },
    };
    for (const auto& change : changes) {
        change();
        EXPECT_NE(m_published, m_outer);
        EXPECT_NE(tableOf(SIGUSR1), m_first);
        EXPECT_EQ(tableOf(SIGUSR2), m_second) << "what does not change is shared";
        expectReaderUndisturbed();
    }
    EXPECT_FALSE(hasQ(SIGUSR1, 1));
    EXPECT_TRUE(hasQ(SIGUSR1, 2));
}

TEST_F(RegistryWhileRead, PublishesACopyThatHasGrown) {
    for (std::uintptr_t address = 2; address < 30; ++address) {
        ASSERT_TRUE(store(SIGUSR1, address));
        ASSERT_TRUE(addTable(static_cast<int>(address)));
    }
    EXPECT_EQ(tableOf(SIGUSR1)->used, 29U);
    expectReaderUndisturbed();
}

TEST_F(RegistryWhileRead, ChangesTheCopyInItsPlaceOnceItHasOne) {
    ASSERT_TRUE(store(SIGUSR1, 2));
    const SVSignalTable* const outer = m_published;
    const SVSignalHandlerTable* const table = tableOf(SIGUSR1);
    ASSERT_TRUE(store(SIGUSR1, 3));
    EXPECT_EQ(m_published, outer);
    EXPECT_EQ(tableOf(SIGUSR1), table);
    expectReaderUndisturbed();
}

// The reader has it by way of the outer table that it has pinned.
TEST_F(RegistryWhileRead, CopiesATableThatWhatIsPublishedStillShares) {
    ASSERT_TRUE(store(SIGUSR1, 2));
    const SVSignalTable* const outer = m_published;
    ASSERT_TRUE(store(SIGUSR2, 2));
    EXPECT_EQ(m_published, outer) << "nobody reads that";
    EXPECT_NE(tableOf(SIGUSR2), m_second);
    expectReaderUndisturbed();
}

TEST_F(RegistryWhileRead, LetsEachReaderHaveWhatItHasPinned) {
    ASSERT_TRUE(store(SIGUSR1, 2));
    const SVPin second(m_published);
    ASSERT_TRUE(store(SIGUSR1, 3));
    const SVPin third(m_published);
    ASSERT_TRUE(remove(SIGUSR1, 1));
    EXPECT_EQ(second.tableOf(SIGUSR1)->used, 2U);
    EXPECT_EQ(third.tableOf(SIGUSR1)->used, 3U);
    EXPECT_EQ(tableOf(SIGUSR1)->used, 2U);
    EXPECT_EQ(tableOf(SIGUSR2), m_second);
    expectReaderUndisturbed();
}

TEST_F(RegistryWhileRead, ChangesInPlaceAgainAfterTheLastReader) {
    ASSERT_TRUE(store(SIGUSR1, 2));
    m_reader.reset();
    const SVSignalTable* const outer = m_published;
    ASSERT_TRUE(store(SIGUSR2, 2));
    EXPECT_EQ(m_published, outer);
    EXPECT_EQ(tableOf(SIGUSR2), m_second);
}

TEST_F(RegistryWhileRead, EndsWithoutTheReadersNotice) {
    end();
    EXPECT_EQ(m_published, nullptr);
    expectReaderUndisturbed();
    begin();
    ASSERT_TRUE(store(SIGUSR1, 5));
    EXPECT_FALSE(hasQ(SIGUSR1, 1));
    expectReaderUndisturbed();
}

// --- While somebody reads, and there is no memory ------------------------------------------------

class RegistryWhileReadWithoutMemory : public RegistryWhileRead {
protected:
    void SetUp() override { SKIP_WITHOUT_MEMORY_LIMIT(); }

    // With memory for no more than blocks of these sizes. Result: the failure's message.
    static std::string failureWith(std::initializer_list<std::size_t> sizes,
                                   const std::function<SVFailure()>& change) {
        SVFailure failure;
        {
            const MemoryLimit limit(sizes);
            const SVGate gate;
            failure = change();
        }
        return failure ? failure.exception().getMessage() : "none";
    }
    SVFailure tryToAddTable(int signalNumber) { return m_registry.addTable(signalNumber, noTable); }
    SVFailure tryToStore(int signalNumber, std::uintptr_t address) {
        return m_registry.store(recordOf(signalNumber, address), noTable);
    }

    // What keeps displaced tables for their readers.
    static constexpr std::size_t sizeOfRetired = 3 * sizeof(void*);
};

TEST_F(RegistryWhileReadWithoutMemory, EndsAndLeavesTheTablesToTheReadersForGood) {
    {
        const MemoryLimit limit;
        end();
    }
    EXPECT_EQ(m_published, nullptr);
    EXPECT_EQ(m_registry.timesEnded(), 1U);
    begin();
    ASSERT_TRUE(store(SIGUSR1, 5));
    EXPECT_FALSE(hasQ(SIGUSR1, 1));
    expectReaderUndisturbed();
}

TEST_F(RegistryWhileReadWithoutMemory, AddsNoSignalWithoutACopyOfTheOuterTableThatCanBeKeptApart) {
    const auto add = [this] { return tryToAddTable(SIGTERM); };
    constexpr std::size_t outer = sizeof(SVSignalTable);
    constexpr std::size_t inner = sizeof(SVSignalHandlerTable);
    for (const auto& sizes : {std::initializer_list<std::size_t>{inner},
                              {inner, outer},
                              {inner, sizeOfRetired},
                              {outer, sizeOfRetired}}) {
        EXPECT_EQ(failureWith(sizes, add), "no table");
        EXPECT_EQ(m_published, m_outer);
        EXPECT_EQ(tableOf(SIGTERM), nullptr);
        expectReaderUndisturbed();
    }
    EXPECT_EQ(failureWith({inner, outer, sizeOfRetired}, add), "none");
    EXPECT_NE(tableOf(SIGTERM), nullptr);
    expectReaderUndisturbed();
}

TEST_F(RegistryWhileReadWithoutMemory, ChangesNoTableThatTheReadersShareWithoutACopyOfIt) {
    ASSERT_TRUE(store(SIGUSR1, 2));
    const auto change = [this] { return tryToStore(SIGUSR2, 2); };
    EXPECT_EQ(failureWith({}, change), "no table");
    EXPECT_EQ(tableOf(SIGUSR2), m_second);
    expectReaderUndisturbed();
    EXPECT_EQ(failureWith({sizeof(SVSignalHandlerTable)}, change), "none");
    EXPECT_TRUE(hasQ(SIGUSR2, 2));
    expectReaderUndisturbed();
}

TEST_F(RegistryWhileReadWithoutMemory, ChangesNoTableThatTheReadersShareIfTheCopyCantGrow) {
    m_reader.reset();
    for (std::uintptr_t address = 2; address <= 5; ++address) {
        ASSERT_TRUE(store(SIGUSR2, address));
    }
    m_reader.emplace(m_published);
    ASSERT_TRUE(store(SIGUSR1, 2));
    const auto grow = [this] { return tryToStore(SIGUSR2, 6); };
    EXPECT_EQ(failureWith({sizeof(SVSignalHandlerTable)}, grow),
              "Unable to allocate space for new table.");
    EXPECT_EQ(tableOf(SIGUSR2)->used, 5U);
    EXPECT_EQ(m_second->used, 5U);
    ASSERT_TRUE(store(SIGUSR2, 6));
    EXPECT_EQ(tableOf(SIGUSR2)->used, 6U);
    EXPECT_EQ(m_second->used, 5U);
}

// --- In a child of a process in which another thread was changing a table ------------------------

class RegistryInAChild : public RegistryTest {
protected:
    void SetUp() override {
        SKIP_WITHOUT_STEPS();
        for (const std::uintptr_t address : {1U, 2U, 3U}) {
            ASSERT_TRUE(store(SIGUSR1, address));
        }
        ASSERT_TRUE(remove(SIGUSR1, 3));
        m_table = tableOf(SIGUSR1);
    }

    // As its slots say, not its counts.
    unsigned int slotsIn(unsigned int state) const {
        unsigned int slots = 0;
        for (unsigned int i = 0; i <= m_table->mask; ++i) {
            slots += m_table->table[i].state == state ? 1 : 0;
        }
        return slots;
    }

    // A child that is split off when a slot has changed and the count has not followed yet.
    void expectChildToCountAnew(const std::function<void()>& change) {
        Gate halfDone;
        Gate childEnded;
        bool waited = false;
        JoiningThread other([&] {
            step(change, [&](const Standing&) {
                waited = slotsIn(Sorvane::svslotOccupied) != m_table->used;
                if (waited) {
                    halfDone.open();
                    childEnded.pass();
                }
                return !waited;
            });
            if (!waited) {
                halfDone.open();
            }
        });
        halfDone.pass();
        EXPECT_TRUE(waited) << "the moment did not come";
        const unsigned int usedBefore = m_table->used;
        const ChildEnd end = inChild([&] {
            SVGate::goOnInChild();
            const unsigned int used = slotsIn(Sorvane::svslotOccupied);
            EXPECT_NE(used, usedBefore);
            EXPECT_EQ(m_table->used, used);
            EXPECT_EQ(m_table->fill, used + slotsIn(Sorvane::svslotDeleted));
            EXPECT_TRUE(store(SIGUSR1, 7));
            EXPECT_EQ(m_table->used, used + 1);
        });
        EXPECT_TRUE(end.wentOnQ()) << end;
        childEnded.open();
        other.join();
        EXPECT_EQ(m_table->used, slotsIn(Sorvane::svslotOccupied));
    }

    SVSignalHandlerTable* m_table = nullptr;
};

TEST_F(RegistryInAChild, CountsARecordThatHadJustComeToItsSlot) {
    expectChildToCountAnew([this] { store(SIGUSR1, 5); });
}

TEST_F(RegistryInAChild, CountsARecordNoMoreThatHadJustGoneFromItsSlot) {
    expectChildToCountAnew([this] { remove(SIGUSR1, 2); });
}

TEST_F(RegistryWhileRead, KeepsWhatItSharesWithWhatIsReleased) {
    ASSERT_TRUE(store(SIGUSR1, 2));
    m_reader.reset();
    storeForOthers();
    EXPECT_EQ(tableOf(SIGUSR2), m_second);
    EXPECT_EQ(m_second->used, 1U);
    EXPECT_TRUE(m_second->has_key(functionAt(1)));
}

TEST_F(RegistryWhileRead, KeepsWhatOneReaderSharesWithAnother) {
    ASSERT_TRUE(store(SIGUSR1, 2));
    {
        const SVPin second(m_published);
        ASSERT_TRUE(store(SIGUSR2, 2));
    }
    storeForOthers();
    expectReaderUndisturbed();
}

// What is retired has tables that are published still.
TEST_F(RegistryWhileRead, EndsWithoutTheNoticeOfReadersOfWhatIsRetired) {
    ASSERT_TRUE(store(SIGUSR1, 2));
    end();
    EXPECT_EQ(m_published, nullptr);
    begin();
    storeForOthers();
    expectReaderUndisturbed();
}

// The language notes how many slots it has to destroy: with the end slot one more than are used.
TEST_F(RegistryWhileRead, CopiesTheEndSlotToo) {
    for (std::uintptr_t address = 2; address < 30; ++address) {
        ASSERT_TRUE(store(SIGUSR1, address));
    }
    const SVPin second(m_published);
    const SVSignalHandlerTable* const former = tableOf(SIGUSR1);
    ASSERT_TRUE(remove(SIGUSR1, 1));
    const SVSignalHandlerTable* const copy = tableOf(SIGUSR1);
    ASSERT_NE(copy, former);
    std::size_t slots = 0;
    std::memcpy(&slots, reinterpret_cast<const unsigned char*>(copy->table) - sizeof(slots),
                sizeof(slots));
    EXPECT_EQ(slots, std::size_t{former->mask} + 2);
}

// --- Without memory ------------------------------------------------------------------------------

// No larger than what a reader's tables are remembered in.
struct Small : Sorvane::SVObject {};

template <typename Object>
bool canBeHadQ() {
    const SVGate gate;
    const auto* const object = new Object;
    delete object;
    return object != nullptr;
}

// The table is as full of deleted slots as it may be, and has as many slots after its rebuild as
// before. So what a stand-in for it takes is what it needs itself.
TEST_F(RegistryTest, IsRebuiltInSightWithMemoryForThatAlone) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    for (std::uintptr_t address = 0; address < 21; ++address) {
        ASSERT_TRUE(store(SIGUSR1, address));
        ASSERT_TRUE(address < 6 || remove(SIGUSR1, address));
    }
    for (std::uintptr_t address = 3; address < 6; ++address) {
        ASSERT_TRUE(remove(SIGUSR1, address));
    }
    const SVSignalHandlerTable* const table = tableOf(SIGUSR1);
    ASSERT_TRUE(table->growsWithQ(functionAt(21)));
    const unsigned int mask = table->mask;
    const std::size_t slots = sizeof(std::size_t) + (mask + 2) * sizeof(*table->table);
    MemoryLimit limit({sizeof(*table), slots});
    const bool stored = store(SIGUSR1, 21);
    limit.release();
    EXPECT_TRUE(stored);
    EXPECT_EQ(tableOf(SIGUSR1), table);
    EXPECT_EQ(table->mask, mask);
    EXPECT_EQ(table->fill, 4U);
    EXPECT_TRUE(hasQ(SIGUSR1, 21));
}

// A stand-in can be done without, and leaves nothing behind.
TEST_F(RegistryTest, ReplacesARecordWithoutMemoryForTheSlotsOfAStandIn) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    for (std::uintptr_t address = 0; address < 10; ++address) {
        ASSERT_TRUE(store(SIGUSR1, address));
    }
    MemoryLimit limit({sizeof(SVSignalHandlerTable)});
    const bool stored = store(SIGUSR1, 1, false);
    const bool leftNothing = canBeHadQ<SVSignalHandlerTable>();
    limit.release();
    EXPECT_TRUE(stored);
    EXPECT_TRUE(leftNothing);
    EXPECT_FALSE(tableOf(SIGUSR1)->get(functionAt(1))->value.validQ());
}

TEST_F(RegistryWhileRead, ChangesNothingWithoutMemoryForACopy) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    for (const std::size_t had : {sizeof(Small), sizeof(SVSignalTable)}) {
        MemoryLimit limit({had});
        const bool stored = store(SIGUSR1, 2);
        const bool removed = remove(SIGUSR1, 1);
        const bool leftNothing =
            had == sizeof(Small) ? canBeHadQ<Small>() : canBeHadQ<SVSignalTable>();
        limit.release();
        EXPECT_FALSE(stored);
        EXPECT_FALSE(removed);
        EXPECT_TRUE(leftNothing);
        ASSERT_EQ(m_published, m_outer);
        expectReaderUndisturbed();
    }
}

TEST_F(RegistryWhileRead, AddsNoTableWithoutMemoryForACopy) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    MemoryLimit limit({sizeof(SVSignalHandlerTable)});
    const bool added = addTable(SIGTERM);
    const bool leftNothing = canBeHadQ<SVSignalHandlerTable>();
    limit.release();
    EXPECT_FALSE(added);
    EXPECT_TRUE(leftNothing);
    EXPECT_EQ(m_published, m_outer);
    EXPECT_EQ(tableOf(SIGTERM), nullptr);
    expectReaderUndisturbed();
}

TEST_F(RegistryWhileRead, LeavesASharedTableWithoutMemoryForItsCopy) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    ASSERT_TRUE(store(SIGUSR1, 2));
    MemoryLimit limit;
    const bool stored = store(SIGUSR2, 2);
    limit.release();
    EXPECT_FALSE(stored);
    EXPECT_EQ(tableOf(SIGUSR2), m_second);
    expectReaderUndisturbed();
}

TEST_F(RegistryTest, LeavesTheRecordsWithoutMemoryForTheGrowthOfASharedTable) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    for (std::uintptr_t address = 0; address < 5; ++address) {
        ASSERT_TRUE(store(SIGUSR2, address));
    }
    const SVSignalHandlerTable* const table = tableOf(SIGUSR2);
    ASSERT_TRUE(table->growsWithQ(functionAt(5)));
    const SVPin reader(m_published);
    ASSERT_TRUE(store(SIGUSR1, 1));
    MemoryLimit limit({sizeof(SVSignalHandlerTable)});
    const bool stored = store(SIGUSR2, 5);
    limit.release();
    EXPECT_FALSE(stored);
    EXPECT_EQ(tableOf(SIGUSR2)->used, 5U);
    EXPECT_EQ(table->used, 5U);
}

TEST_F(RegistryWhileRead, GivesAllBackThatItHadForAReader) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    ASSERT_TRUE(store(SIGUSR1, 2));
    m_reader.reset();
    MemoryLimit limit;
    const bool removed = remove(SIGUSR1, 2);
    const bool small = canBeHadQ<Small>();
    const bool outer = canBeHadQ<SVSignalTable>();
    const bool inner = canBeHadQ<SVSignalHandlerTable>();
    limit.release();
    EXPECT_TRUE(removed);
    EXPECT_TRUE(small);
    EXPECT_TRUE(outer);
    EXPECT_TRUE(inner);
}

TEST_F(RegistryTest, EndsWithoutMemoryAndGivesBackWhatItHad) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    ASSERT_TRUE(store(SIGUSR1, 1));
    MemoryLimit limit;
    end();
    const bool ended = m_published == nullptr;
    begin();
    const bool begun = m_published != nullptr;
    const bool added = begun && addTable(SIGUSR2);
    limit.release();
    EXPECT_TRUE(ended);
    EXPECT_TRUE(begun);
    EXPECT_TRUE(added);
}

TEST_F(RegistryWhileRead, EndsWithoutMemory) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    MemoryLimit limit;
    end();
    limit.release();
    EXPECT_EQ(m_published, nullptr);
    expectReaderUndisturbed();
}

// What is retired goes at once if nobody reads it any more.
TEST_F(RegistryWhileRead, EndsAndGivesBackWhatIsRetired) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    ASSERT_TRUE(store(SIGUSR1, 2));
    m_reader.reset();
    MemoryLimit limit({sizeof(Small)});
    end();
    std::array<SVSignalTable*, 2> had{};
    std::array<SVSignalHandlerTable*, 3> hadOfSignals{};
    {
        const SVGate gate;
        std::ranges::generate(had, [] { return new SVSignalTable; });
        std::ranges::generate(hadOfSignals, [] { return new SVSignalHandlerTable; });
    }
    limit.release();
    for (const SVSignalTable* const table : had) {
        EXPECT_NE(table, nullptr);
        delete table;
    }
    for (const SVSignalHandlerTable* const table : hadOfSignals) {
        EXPECT_NE(table, nullptr);
        delete table;
    }
}

// --- What has been displaced ---------------------------------------------------------------------

// Where tables lie tells whether they are released: their storage is then had again.
class ReleasedTables : public RegistryTest {
protected:
    ReleasedTables() {
        store(SIGUSR1, 1);
        store(SIGUSR2, 1);
    }

    void noteAddresses() {
        m_addresses.insert(m_published);
        for (const int signalNumber : {SIGUSR1, SIGUSR2}) {
            m_addresses.insert(tableOf(signalNumber));
        }
    }

    static constexpr int rounds = 300;
    std::set<const void*> m_addresses;
};

TEST_F(ReleasedTables, AreThoseThatWereReadDuringAChange) {
    for (int round = 0; round < rounds; ++round) {
        const SVPin reader(m_published);
        ASSERT_TRUE(store(SIGUSR1, 1));
        ASSERT_TRUE(store(SIGUSR2, 1));
        noteAddresses();
    }
    EXPECT_LT(m_addresses.size(), 15U);
}

TEST_F(ReleasedTables, AreThoseThatWereReadWhenASignalWasAdded) {
    for (int signalNumber = 1; signalNumber <= rounds; ++signalNumber) {
        const SVPin reader(m_published);
        ASSERT_TRUE(store(signalNumber, 1));
        noteAddresses();
    }
    EXPECT_LT(m_addresses.size(), 15U);
}

TEST_F(ReleasedTables, AreThoseThatWereReadAtTheEnd) {
    for (int round = 0; round < rounds; ++round) {
        {
            const SVPin reader(m_published);
            end();
        }
        begin();
        store(SIGUSR1, 1);
        store(SIGUSR2, 1);
        noteAddresses();
    }
    EXPECT_LT(m_addresses.size(), 15U);
}

TEST_F(ReleasedTables, AreThoseOfTheEndThatNobodyRead) {
    for (int round = 0; round < rounds; ++round) {
        end();
        begin();
        for (std::uintptr_t address = 0; address < 30; ++address) {
            store(SIGUSR1, address);
        }
        store(SIGUSR2, 1);
        noteAddresses();
    }
    EXPECT_LT(m_addresses.size(), 15U);
}

// A reader that is never done keeps what it has, and nothing of what came between.
TEST_F(ReleasedTables, AreAllButThoseOfTheOneReaderWhoIsNotDone) {
    const SVPin stays(m_published);
    for (int round = 0; round < rounds; ++round) {
        const SVPin reader(m_published);
        ASSERT_TRUE(store(SIGUSR1, 1));
        ASSERT_TRUE(store(SIGUSR2, 1));
        noteAddresses();
    }
    EXPECT_LT(m_addresses.size(), 20U);
    EXPECT_EQ(stays.tableOf(SIGUSR1)->used, 1U);
}

// --- Whether a walk can go on with another table -------------------------------------------------

class SameSlots : public testing::Test {
protected:
    static void insert(SVSignalHandlerTable& table, std::uintptr_t address) {
        table.insert(functionAt(address), recordOf(SIGUSR1, address));
    }
    SameSlots() {
        for (const std::uintptr_t address : {1U, 2U}) {
            insert(m_before, address);
            insert(m_now, address);
        }
    }

    SVSignalHandlerTable m_before;
    SVSignalHandlerTable m_now;
};

TEST_F(SameSlots, AreThoseOfACopy) {
    EXPECT_TRUE(Sorvane::svsameSlotsQ(m_before, m_now));
}

TEST_F(SameSlots, AreThoseAfterAnInsertionOrARemovalOrAReplacement) {
    insert(m_now, 3);
    EXPECT_TRUE(Sorvane::svsameSlotsQ(m_before, m_now));
    m_now.remove(functionAt(1));
    EXPECT_TRUE(Sorvane::svsameSlotsQ(m_before, m_now));
    insert(m_now, 1);
    EXPECT_TRUE(Sorvane::svsameSlotsQ(m_before, m_now));
}

// What was removed may leave its slot to another key.
TEST_F(SameSlots, AreThoseInWhichAnotherRecordHasTakenTheSlotOfOneThatIsGone) {
    m_now.remove(functionAt(1));
    insert(m_now, 9);
    ASSERT_EQ(m_now.table[1].key, functionAt(9));
    EXPECT_TRUE(Sorvane::svsameSlotsQ(m_before, m_now));
}

TEST_F(SameSlots, AreNotThoseAfterARebuild) {
    m_before.remove(functionAt(2));
    m_now.remove(functionAt(2));
    m_now.resize(0);
    EXPECT_FALSE(Sorvane::svsameSlotsQ(m_before, m_now)) << "the deleted slot is gone";
}

TEST_F(SameSlots, AreNotThoseOfAnotherSize) {
    m_now.resize(16);
    EXPECT_FALSE(Sorvane::svsameSlotsQ(m_before, m_now));
}

// A key behind a collision comes into its home slot, and leaves its own to another key.
TEST_F(SameSlots, AreNotThoseOfWhichTheFirstIsEmptyNow) {
    insert(m_before, 0);
    ASSERT_EQ(m_before.table[0].key, functionAt(0));
    EXPECT_FALSE(Sorvane::svsameSlotsQ(m_before, m_now));
    EXPECT_TRUE(Sorvane::svsameSlotsQ(m_now, m_before));
}

// Who is registered again stands behind what has taken the slot; before it was not there at all.
TEST_F(SameSlots, AreThoseInWhichARecordThatWasGoneIsElsewhere) {
    m_before.remove(functionAt(1));
    m_now.remove(functionAt(1));
    insert(m_now, 9);
    insert(m_now, 1);
    ASSERT_EQ(m_before.table[1].key, functionAt(1));
    ASSERT_EQ(m_now.table[1].key, functionAt(9));
    EXPECT_TRUE(Sorvane::svsameSlotsQ(m_before, m_now));
}

TEST(SlotsAfterARebuild, AreNotTheSameIfAnotherRecordHasTheSlotOfOneThatHasMoved) {
    SVSignalHandlerTable behind;
    SVSignalHandlerTable moved;
    for (const std::uintptr_t address : {1U, 9U}) {
        behind.insert(functionAt(address), recordOf(SIGUSR1, address));
    }
    for (const std::uintptr_t address : {9U, 15U}) {
        moved.insert(functionAt(address), recordOf(SIGUSR1, address));
    }
    ASSERT_EQ(behind.table[7].key, functionAt(9));
    ASSERT_EQ(moved.table[7].key, functionAt(15));
    EXPECT_FALSE(Sorvane::svsameSlotsQ(behind, moved));
    moved.remove(functionAt(15));
    EXPECT_FALSE(Sorvane::svsameSlotsQ(behind, moved)) << "whoever goes on there misses one";
}

// A key behind a collision comes into its home slot.
TEST_F(SameSlots, AreNotThoseInWhichARecordHasMoved) {
    SVSignalHandlerTable behind;
    insert(behind, 1);
    insert(behind, 9);
    ASSERT_EQ(behind.table[7].key, functionAt(9));
    SVSignalHandlerTable moved;
    insert(moved, 9);
    insert(moved, 7);
    ASSERT_EQ(moved.table[1].key, functionAt(9));
    ASSERT_EQ(moved.table[7].key, functionAt(7));
    EXPECT_FALSE(Sorvane::svsameSlotsQ(behind, moved));
}

}  // namespace
