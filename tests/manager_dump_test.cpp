// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The dump for those who read logs, character by character.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <ios>
#include <memory>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <string_view>
#include <vector>

#include "support/manager_fixture.h"
#include "support/watched_lock.h"

namespace {

constexpr const char* dumpOfOneIdleManager =
    "<SVSignalHandlerManager><numberOfManagers>1</numberOfManagers><currentlyHandlingSignals>0"
    "</currentlyHandlingSignals></SVSignalHandlerManager>";

// Only ever registered, never called: the addresses make the slots, and so the order, known.
SimpleHandler handlerAt(std::uintptr_t address) {
    return reinterpret_cast<SimpleHandler>(address);
}

const SimpleHandler lowHandler = handlerAt(0x10a2c);
const SimpleHandler highHandler = handlerAt(0x10b40);

std::string dumpOf(const Manager& manager) {
    std::ostringstream stream;
    manager.print(stream);
    return stream.str();
}

std::string textOf(const Record& record) {
    std::ostringstream stream;
    stream << record;
    return stream.str();
}

std::size_t occurrences(std::string_view text, std::string_view part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

class Dump : public OneManagerTest {};

TEST_F(Dump, WithoutRecordsIsOneLineWithoutALineFeed) {
    EXPECT_EQ(dumpOf(m_manager), dumpOfOneIdleManager);
}

TEST_F(Dump, SignalWhoseRecordsWereAllClearedIsAbsent) {
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    m_manager.clearHandlerWithFunction(SIGUSR1, userHandler);
    EXPECT_EQ(dumpOf(m_manager), dumpOfOneIdleManager);
}

TEST_F(Dump, KeyZeroIsWrittenAsOneDigit) {
    m_manager.setHandlerFromFunction(SIGUSR1, SIG_DFL);
    EXPECT_NE(dumpOf(m_manager).find("\t\t<K>0</K>\n"), std::string::npos);
}

TEST_F(Dump, KeyOneIsWrittenInHexadecimal) {
    m_manager.setHandlerFromFunction(SIGUSR1, SIG_IGN);
    EXPECT_NE(dumpOf(m_manager).find("\t\t<K>0x1</K>\n"), std::string::npos);
}

TEST_F(Dump, RecordsFollowTheirSlotsAndNotTheirRegistration) {
    m_manager.setHandlerFromFunction(SIGTERM, lowHandler);
    m_manager.setHandlerFromFunction(SIGTERM, highHandler);
    ASSERT_EQ(tableOf(SIGTERM)->mask, 7U);
    EXPECT_EQ(tableOf(SIGTERM)->table[0].key, reinterpret_cast<void*>(highHandler));
    EXPECT_EQ(tableOf(SIGTERM)->table[4].key, reinterpret_cast<void*>(lowHandler));
    const std::string dump = dumpOf(m_manager);
    const std::size_t high = dump.find("<K>0x10b40</K>");
    const std::size_t low = dump.find("<K>0x10a2c</K>");
    ASSERT_NE(high, std::string::npos);
    ASSERT_NE(low, std::string::npos);
    EXPECT_LT(high, low);
}

TEST_F(Dump, RecordsOfSignalZeroAndOfThoseAboveSixtyAreNeverWritten) {
    for (const int signalNumber : {-1, 0, 61, 64}) {
        makeTableOf(m_manager, signalNumber);
        putIntoTable(userRecord(signalNumber, userHandler));
    }
    EXPECT_EQ(dumpOf(m_manager), dumpOfOneIdleManager);
}

TEST_F(Dump, RecordsOfTheFirstAndOfTheSixtiethSignalAreWritten) {
    m_manager.setHandlerFromFunction(SIGHUP, userHandler);
    m_manager.setHandlerFromFunction(60, userHandler);
    EXPECT_EQ(occurrences(dumpOf(m_manager), "<SVHashTable>"), 2U);
}

TEST_F(Dump, OperatorAndPrintGiveTheSameTextAndTheStreamForMore) {
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    std::ostringstream stream;
    EXPECT_EQ(&m_manager.print(stream), &stream);
    EXPECT_EQ(&(stream << m_manager), &stream);
    EXPECT_EQ(stream.str(), dumpOf(m_manager) + dumpOf(m_manager));

    std::ostringstream chained;
    m_manager.print(chained << '[') << ']' << m_manager << '.';
    EXPECT_EQ(chained.str(), '[' + dumpOf(m_manager) + ']' + dumpOf(m_manager) + '.');
}

TEST_F(Dump, OfTwoSignalsUnderHandlingIsThisCharacterByCharacter) {
    m_manager.setHandlerFromFunction(SIGINT, lowHandler);
    m_manager.setHandlerFromFunction(SIGTERM, lowHandler);
    m_manager.setHandlerFromFunction(SIGTERM, highHandler);
    m_manager.startHandlingSignals();
    EXPECT_EQ(dumpOf(m_manager),
              "<SVSignalHandlerManager><numberOfManagers>1</numberOfManagers>"
              "<currentlyHandlingSignals>1</currentlyHandlingSignals><SVHashTable>\n"
              "\t<SVHashTableEntry>\n"
              "\t\t<K>0x10a2c</K>\n"
              "\t\t<V>" +
                  textOf(userRecord(SIGINT, lowHandler)) +
                  "</V>\n"
                  "\t</SVHashTableEntry>\n"
                  "</SVHashTable><SVHashTable>\n"
                  "\t<SVHashTableEntry>\n"
                  "\t\t<K>0x10b40</K>\n"
                  "\t\t<V>" +
                  textOf(userRecord(SIGTERM, highHandler)) +
                  "</V>\n"
                  "\t</SVHashTableEntry>\n"
                  "\n"
                  "\t<SVHashTableEntry>\n"
                  "\t\t<K>0x10a2c</K>\n"
                  "\t\t<V>" +
                  textOf(userRecord(SIGTERM, lowHandler)) +
                  "</V>\n"
                  "\t</SVHashTableEntry>\n"
                  "</SVHashTable></SVSignalHandlerManager>");
}

TEST_F(Dump, TextOfARecordHasNoLineFeed) {
    EXPECT_EQ(textOf(userRecord(SIGINT, lowHandler)).find('\n'), std::string::npos);
}

TEST_F(Dump, TablesFollowTheSignalNumbersWhateverTheOrderOfRegistration) {
    m_manager.setHandlerFromFunction(SIGTERM, handlerAt(0x3000));
    m_manager.setHandlerFromFunction(SIGHUP, handlerAt(0x1000));
    m_manager.setHandlerFromFunction(SIGINT, handlerAt(0x2000));
    const std::string dump = dumpOf(m_manager);
    EXPECT_LT(dump.find("<K>0x1000</K>"), dump.find("<K>0x2000</K>"));
    EXPECT_LT(dump.find("<K>0x2000</K>"), dump.find("<K>0x3000</K>"));
}

TEST_F(Dump, ClearedRecordIsNotWrittenAlthoughItStillLiesInItsSlot) {
    m_manager.setHandlerFromFunction(SIGTERM, lowHandler);
    m_manager.setHandlerFromFunction(SIGTERM, highHandler);
    m_manager.clearHandlerWithFunction(SIGTERM, highHandler);
    ASSERT_EQ(tableOf(SIGTERM)->fill, 2U);
    const std::string dump = dumpOf(m_manager);
    EXPECT_EQ(dump.find("0x10b40"), std::string::npos);
    EXPECT_NE(dump.find("<SVHashTable>\n\t<SVHashTableEntry>\n\t\t<K>0x10a2c</K>\n"),
              std::string::npos);
}

TEST_F(Dump, WritesEveryRecordOfATableThatHasGrown) {
    for (std::uintptr_t i = 1; i <= 40; ++i) {
        m_manager.setHandlerFromFunction(SIGTERM, handlerAt(0x1000 * i));
    }
    const std::string dump = dumpOf(m_manager);
    EXPECT_EQ(occurrences(dump, "<SVHashTableEntry>"), 40U);
    EXPECT_EQ(occurrences(dump, "<SVHashTable>"), 1U);
    std::size_t last = 0;
    for (void* const function : functionsInSlotOrder(SIGTERM)) {
        std::ostringstream key;
        key << "<K>" << function << "</K>";
        const std::size_t at = dump.find(key.str());
        ASSERT_NE(at, std::string::npos) << key.str();
        EXPECT_GT(at, last) << key.str();
        last = at;
    }
}

TEST_F(Dump, CountsEveryLiveManager) {
    const Manager second(true);
    const Manager third(false);
    EXPECT_NE(dumpOf(m_manager).find("<numberOfManagers>3</numberOfManagers>"), std::string::npos);
}

TEST_F(Dump, InvalidRecordsAndThoseOfTheHostAreWrittenToo) {
    Record invalid(SIGTERM, lowHandler, false, false, false);
    Record host = hostRecord(SIGTERM, highHandler);
    m_manager.setHandler(invalid);
    m_manager.setHandler(host);
    const std::string dump = dumpOf(m_manager);
    EXPECT_EQ(occurrences(dump, "<SVHashTableEntry>"), 2U);
    EXPECT_EQ(occurrences(dump, "<V>" + textOf(invalid) + "</V>"), 1U);
    EXPECT_EQ(occurrences(dump, "<V>" + textOf(host) + "</V>"), 1U);
}

TEST_F(Dump, ObeysBoolalphaOfTheStreamAndLeavesItSet) {
    std::ostringstream stream;
    stream << std::boolalpha << m_manager;
    EXPECT_NE(stream.str().find("<currentlyHandlingSignals>false</currentlyHandlingSignals>"),
              std::string::npos);
    EXPECT_NE(stream.flags() & std::ios_base::boolalpha, 0);
    m_manager.startHandlingSignals();
    stream.str("");
    stream << m_manager;
    EXPECT_NE(stream.str().find("<currentlyHandlingSignals>true</currentlyHandlingSignals>"),
              std::string::npos);
}

TEST_F(Dump, ObeysTheNumberBaseOfTheStreamForTheCountAndNotForTheKeys) {
    // Sixteen managers, so that the base can be seen.
    std::vector<std::unique_ptr<Manager>> others;
    for (int i = 1; i < 16; ++i) {
        others.push_back(std::make_unique<Manager>(false));
    }
    m_manager.setHandlerFromFunction(SIGTERM, lowHandler);
    std::ostringstream stream;
    stream << std::hex << m_manager;
    EXPECT_NE(stream.str().find("<numberOfManagers>10</numberOfManagers>"), std::string::npos);
    EXPECT_NE(stream.str().find("<K>0x10a2c</K>"), std::string::npos);
    EXPECT_NE(stream.flags() & std::ios_base::hex, 0);

    stream.str("");
    stream << std::oct << m_manager;
    EXPECT_NE(stream.str().find("<numberOfManagers>20</numberOfManagers>"), std::string::npos);
    EXPECT_NE(stream.str().find("<K>0x10a2c</K>"), std::string::npos);
}

TEST_F(Dump, IntoAStreamThatHasFailedWritesNothingAndLeavesItFailed) {
    m_manager.setHandlerFromFunction(SIGTERM, lowHandler);
    std::ostringstream stream;
    stream.setstate(std::ios_base::failbit);
    EXPECT_NO_THROW(stream << m_manager);
    EXPECT_EQ(stream.str(), "");
    EXPECT_TRUE(stream.fail());
    EXPECT_TRUE(lockIsFree());
}

// Takes a number of characters, and then no more.
class FullBuffer : public std::streambuf {
public:
    explicit FullBuffer(std::size_t room) : m_room(room) {}
    const std::string& text() const { return m_text; }

protected:
    int_type overflow(int_type character) override {
        if (m_text.size() == m_room) {
            throw std::length_error("full");
        }
        m_text.push_back(traits_type::to_char_type(character));
        return character;
    }

private:
    std::size_t m_room;
    std::string m_text;
};

TEST_F(Dump, ExceptionOfTheStreamPassesThroughReleasesTheLockAndLeavesTheTextSoFar) {
    m_manager.setHandlerFromFunction(SIGTERM, lowHandler);
    const std::string whole = dumpOf(m_manager);
    for (std::size_t room = 0; room < whole.size(); ++room) {
        FullBuffer buffer(room);
        std::ostream stream(&buffer);
        stream.exceptions(std::ios_base::badbit);
        ASSERT_THROW(stream << m_manager, std::length_error) << room;
        ASSERT_EQ(buffer.text(), whole.substr(0, room));
        ASSERT_TRUE(Manager::handlerTableLock->tryLock());
        Manager::handlerTableLock->unlock();
    }
    EXPECT_TRUE(lockIsFree());
}

TEST_F(Dump, ChangesNothing) {
    m_manager.setHandlerFromFunction(SIGTERM, lowHandler);
    const std::string first = dumpOf(m_manager);
    EXPECT_EQ(dumpOf(m_manager), first);
    EXPECT_EQ(Manager::handlerTables->used, 1U);
    EXPECT_EQ(Manager::handlerTables->fill, 1U);
}

}  // namespace
