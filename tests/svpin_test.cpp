// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Who reads the published tables, and who is told of it.

#include <../registry/svgate.h>
#include <../registry/svpin.h>
#include <../support/svatomicref.h>
#include <../support/svhandlercontext.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstddef>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "support/child_process.h"
#include "support/gate.h"
#include "support/gate_waiter.h"
#include "support/joining_thread.h"
#include "support/single_steps.h"
#include "support/stepping.h"

namespace {

using Sorvane::signalKey;
using Sorvane::SVGate;
using Sorvane::SVPin;
using Sorvane::SVSignalHandlerTable;
using Sorvane::SVSignalTable;

constexpr int usedSignal = 10;
constexpr int unusedSignal = 12;

using Pins = std::vector<std::unique_ptr<SVPin>>;

class PinTest : public testing::Test {
protected:
    PinTest() { m_tables.insert(signalKey(usedSignal), &m_table); }

    SVSignalHandlerTable m_table;
    SVSignalTable m_tables;
    SVSignalTable m_others;
    SVSignalTable* m_published = &m_tables;
};

// --- One pin -------------------------------------------------------------------------------------

TEST_F(PinTest, IsOfWhatIsPublishedAsLongAsItLives) {
    EXPECT_FALSE(SVPin::pinnedQ(&m_tables));
    {
        const SVPin pin(m_published);
        EXPECT_EQ(pin.tables(), &m_tables);
        EXPECT_TRUE(SVPin::pinnedQ(&m_tables));
        EXPECT_FALSE(SVPin::pinnedQ(&m_others));
    }
    EXPECT_FALSE(SVPin::pinnedQ(&m_tables));
}

TEST_F(PinTest, OfNothingPinsNothing) {
    m_published = nullptr;
    {
        const SVPin pin(m_published);
        EXPECT_EQ(pin.tables(), nullptr);
        EXPECT_TRUE(pin.publishedQ());
        EXPECT_EQ(pin.tableOf(usedSignal), nullptr);
        EXPECT_FALSE(SVPin::pinnedQ(&m_tables));
    }
    EXPECT_FALSE(SVPin::pinnedQ(&m_tables));
}

TEST_F(PinTest, FindsTheTableOfASignal) {
    const SVPin pin(m_published);
    EXPECT_EQ(pin.tableOf(usedSignal), &m_table);
    EXPECT_EQ(pin.tableOf(unusedSignal), nullptr);
    EXPECT_EQ(pin.tableOf(INT_MIN), nullptr);
}

TEST(SignalKey, IsTheNumberLessOneAndWraps) {
    EXPECT_EQ(signalKey(1), 0);
    EXPECT_EQ(signalKey(0), -1);
    EXPECT_EQ(signalKey(60), 59);
    EXPECT_EQ(signalKey(INT_MIN), INT_MAX);
}

TEST_F(PinTest, StaysWithWhatItHasWhenSomethingElseIsPublished) {
    const SVPin pin(m_published);
    EXPECT_TRUE(pin.publishedQ());
    m_published = &m_others;
    EXPECT_FALSE(pin.publishedQ());
    EXPECT_EQ(pin.tables(), &m_tables);
    EXPECT_TRUE(SVPin::pinnedQ(&m_tables));
    m_published = &m_tables;
    EXPECT_TRUE(pin.publishedQ());
}

TEST_F(PinTest, EndsWhenTheLastOneOfTheTablesDoes) {
    auto first = std::make_unique<SVPin>(m_published);
    auto second = std::make_unique<SVPin>(m_published);
    first.reset();
    EXPECT_TRUE(SVPin::pinnedQ(&m_tables));
    second.reset();
    EXPECT_FALSE(SVPin::pinnedQ(&m_tables));
}

TEST_F(PinTest, ExchangesWhatItKeeps) {
    SVPin former(m_published);
    m_published = &m_others;
    {
        SVPin newer(m_published);
        former.swap(newer);
        EXPECT_EQ(newer.tables(), &m_tables);
        EXPECT_EQ(former.tables(), &m_others);
        EXPECT_TRUE(former.publishedQ());
    }
    EXPECT_FALSE(SVPin::pinnedQ(&m_tables));
    EXPECT_TRUE(SVPin::pinnedQ(&m_others));
}

// --- Many of them --------------------------------------------------------------------------------

// One for each of many tables, which take a slot each, and then do without one.
class ManyPins : public PinTest {
protected:
    Pins pinsOf(std::size_t count) {
        Pins made;
        for (std::size_t i = 0; i < count; ++i) {
            Sorvane::SVAtomicRef<SVSignalTable*>(m_published).store(&m_manyTables[i]);
            made.push_back(std::make_unique<SVPin>(m_published));
        }
        return made;
    }
    Pins pins() { return pinsOf(m_manyTables.size()); }

    std::size_t pinnedTables() const {
        return static_cast<std::size_t>(std::ranges::count_if(
            m_manyTables, [](const SVSignalTable& tables) { return SVPin::pinnedQ(&tables); }));
    }

    static constexpr std::size_t slotCount = 64;
    std::array<SVSignalTable, 100> m_manyTables;
};

// Where there is no slot left, everything counts as read.
TEST_F(ManyPins, PinEverythingWhenNoSlotIsLeft) {
    Pins made = pins();
    EXPECT_EQ(pinnedTables(), m_manyTables.size());
    EXPECT_TRUE(SVPin::pinnedQ(&m_others));
    for (std::size_t i = 0; i < made.size(); ++i) {
        EXPECT_EQ(made[i]->tables(), &m_manyTables[i]);
    }
    made.clear();
    EXPECT_EQ(pinnedTables(), 0U);
    EXPECT_FALSE(SVPin::pinnedQ(&m_others));
}

TEST_F(ManyPins, TakeASlotEachWhileThereAreSome) {
    const Pins made = pinsOf(slotCount);
    EXPECT_EQ(pinnedTables(), slotCount);
    EXPECT_FALSE(SVPin::pinnedQ(&m_others));
    // One of the same tables, but of another thread: a slot has only one owner.
    bool everythingPinned = false;
    JoiningThread([&] {
        const SVPin pin(m_published);
        everythingPinned = SVPin::pinnedQ(&m_others);
    }).join();
    EXPECT_TRUE(everythingPinned);
    EXPECT_FALSE(SVPin::pinnedQ(&m_others));
    EXPECT_EQ(pinnedTables(), slotCount);
}

TEST_F(ManyPins, AreLetGoOneByOne) {
    Pins made = pins();
    while (!made.empty()) {
        made.erase(made.begin() + static_cast<std::ptrdiff_t>(made.size() / 2));
        ASSERT_GE(pinnedTables(), made.size());
    }
    EXPECT_EQ(pinnedTables(), 0U);
}

TEST_F(ManyPins, GetASlotAgainWhenOneIsFree) {
    pins().clear();
    Pins made = pins();
    made.resize(made.size() / 4);
    EXPECT_EQ(pinnedTables(), made.size());
    EXPECT_FALSE(SVPin::pinnedQ(&m_others));
}

TEST_F(ManyPins, CanBeExchangedWithOrWithoutASlot) {
    Pins made = pins();
    made.front()->swap(*made.back());
    EXPECT_EQ(made.front()->tables(), &m_manyTables.back());
    EXPECT_EQ(made.back()->tables(), &m_manyTables.front());
    made.resize(1);
    EXPECT_TRUE(SVPin::pinnedQ(&m_manyTables.back()));
    made.clear();
    EXPECT_EQ(pinnedTables(), 0U);
    EXPECT_FALSE(SVPin::pinnedQ(&m_others));
}

TEST_F(PinTest, TakesOneSlotForAllOfAThreadAndItsTables) {
    Pins pins;
    for (int i = 0; i < 1000; ++i) {
        pins.push_back(std::make_unique<SVPin>(m_published));
    }
    EXPECT_TRUE(SVPin::pinnedQ(&m_tables));
    EXPECT_FALSE(SVPin::pinnedQ(&m_others)) << "there are slots left";
    pins.resize(1);
    EXPECT_TRUE(SVPin::pinnedQ(&m_tables));
    pins.clear();
    EXPECT_FALSE(SVPin::pinnedQ(&m_tables));
}

// In a child, because it is left behind for good.
TEST_F(PinTest, ThatIsLeftBehindUsesNoMoreThanItsSlot) {
    const ChildEnd end = inChild([this] {
        alignas(SVPin) unsigned char places[300][sizeof(SVPin)];
        for (auto& place : places) {
            new (place) SVPin(m_published);
        }
        EXPECT_TRUE(SVPin::pinnedQ(&m_tables));
        EXPECT_FALSE(SVPin::pinnedQ(&m_others));
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

TEST_F(PinTest, IsCountedForEachOfManyThreads) {
    std::atomic<unsigned int> notPinned{0};
    {
        std::vector<JoiningThread> threads;
        for (std::size_t i = 0; i < 4; ++i) {
            threads.emplace_back([&] {
                for (int round = 0; round < 3000; ++round) {
                    const SVPin outer(m_published);
                    { const SVPin inner(m_published); }
                    notPinned += SVPin::pinnedQ(&m_tables) ? 0U : 1U;
                }
            });
        }
    }
    EXPECT_EQ(notPinned, 0U);
    EXPECT_FALSE(SVPin::pinnedQ(&m_tables));
    EXPECT_FALSE(SVPin::pinnedQ(&m_others));
}

#if defined(__x86_64__) || defined(__i386__)

SVSignalTable* publishedForHandler;
unsigned int pinsOfHandler;

void pinInHandler(int) {
    const SVPin outer(publishedForHandler);
    const SVPin inner(publishedForHandler);
    pinsOfHandler += SVPin::pinnedQ(publishedForHandler) ? 1U : 0U;
}

TEST_F(PinTest, IsOneMoreThanThoseOfAHandlerAtAnyInstruction) {
    SKIP_WITHOUT_STEPS();
    publishedForHandler = m_published;
    std::signal(SIGTRAP, pinInHandler);
    unsigned int notPinned = 0;
    {
        const SingleSteps steps;
        for (int round = 0; round < 3; ++round) {
            const SVPin outer(m_published);
            { const SVPin inner(m_published); }
            notPinned += SVPin::pinnedQ(&m_tables) ? 0U : 1U;
        }
    }
    std::signal(SIGTRAP, SIG_DFL);
    EXPECT_GT(pinsOfHandler, 300U);
    EXPECT_EQ(notPinned, 0U);
    EXPECT_FALSE(SVPin::pinnedQ(&m_tables));
    EXPECT_FALSE(SVPin::pinnedQ(&m_others));
}

// A pin that is made while a handler counts itself and does something at each instruction of it.
class PinWithHandler : public PinTest {
protected:
    void expectPinnedAlthoughAtEachInstruction(void (*handler)(int)) {
        pinsOfHandler = 0;
        std::signal(SIGTRAP, handler);
        bool pinned = false;
        {
            const SingleSteps steps;
            const SVPin pin(m_published);
            pinned = SVPin::pinnedQ(&m_tables);
        }
        std::signal(SIGTRAP, SIG_DFL);
        EXPECT_GT(pinsOfHandler, 20U);
        EXPECT_TRUE(pinned);
        EXPECT_FALSE(SVPin::pinnedQ(&m_tables));
    }
};

// A slot that nobody has had yet.
void pinInHandlerWhatIsPinned(int) {
    if (SVPin::pinnedQ(publishedForHandler)) {
        const SVPin pin(publishedForHandler);
        ++pinsOfHandler;
    }
}

TEST_F(PinWithHandler, IsNotEndedAtAnyInstructionOfTheFirst) {
    SKIP_WITHOUT_STEPS();
    publishedForHandler = m_published;
    expectPinnedAlthoughAtEachInstruction(pinInHandlerWhatIsPinned);
}

// What a child does if its only thread was split off just here.
void forgetOtherThreadsInHandler(int) {
    SVPin::forgetOtherThreads();
    ++pinsOfHandler;
}

TEST_F(PinWithHandler, IsNotForgottenByItsOwnThreadAtAnyInstruction) {
    SKIP_WITHOUT_STEPS();
    expectPinnedAlthoughAtEachInstruction(forgetOtherThreadsInHandler);
}

TEST_F(PinTest, HasASlotOfItsOwnWhicheverInstructionAnotherIsMadeAt) {
    SKIP_WITHOUT_STEPS();
    const unsigned int instructions = atEachInstruction([this](unsigned int instruction) {
        SVSignalTable* publishedElsewhere = &m_others;
        std::optional<SVPin> pin;
        std::optional<SVPin> other;
        const bool reached = disturb([&] { pin.emplace(m_published); }, instruction,
                                     [&] { other.emplace(publishedElsewhere); });
        EXPECT_TRUE(SVPin::pinnedQ(&m_tables));
        EXPECT_EQ(SVPin::pinnedQ(&m_others), reached);
        return reached;
    });
    EXPECT_GT(instructions, 20U);
}

// Whoever finds nobody who reads publishes something else, and may release what was published.
TEST_F(PinTest, IsOfWhatIsPublishedWhicheverInstructionThatComesAt) {
    SKIP_WITHOUT_STEPS();
    unsigned int publications = 0;
    const unsigned int instructions = atEachInstruction([&](unsigned int instruction) {
        m_published = &m_tables;
        bool unseen = false;
        std::optional<SVPin> pin;
        const bool reached = disturb([&] { pin.emplace(m_published); }, instruction,
                                     [&] {
                                         unseen = !SVPin::pinnedQ(m_published);
                                         if (unseen) {
                                             m_published = &m_others;
                                             ++publications;
                                         }
                                     });
        EXPECT_EQ(pin->tables(), unseen ? &m_others : &m_tables);
        return reached;
    });
    EXPECT_GT(publications, 10U);
    EXPECT_LT(publications, instructions);
}

#endif

// --- Together with the gate ----------------------------------------------------------------------

TEST_F(PinTest, IsMadeWhenTheGateIsOpenAgainAndOfWhatIsPublishedThen) {
    std::atomic<const SVSignalTable*> found{nullptr};
    std::optional<SVGate> gate(std::in_place);
    GateWaiter reader([&] { found = SVPin(m_published).tables(); });
    reader.waitUntilAsleep();
    EXPECT_FALSE(SVPin::pinnedQ(&m_tables)) << "whoever waits has let go";
    Sorvane::SVAtomicRef<SVSignalTable*>(m_published).store(&m_others);
    gate.reset();
    reader.join();
    EXPECT_EQ(found, &m_others);
}

// Whoever waits has let go, and others may have taken all slots meanwhile.
TEST_F(ManyPins, HaveNothingToDoWithTheSlotOfOneWhoWaited) {
    std::optional<SVGate> gate(std::in_place);
    GateWaiter reader([this] { const SVPin pin(m_published); });
    reader.waitUntilAsleep();
    const Pins made = pinsOf(slotCount);
    gate.reset();
    reader.join();
    EXPECT_EQ(pinnedTables(), slotCount);
    EXPECT_FALSE(SVPin::pinnedQ(&m_others));
}

TEST_F(PinTest, IsMadeInsideTheGateByTheThreadThatHasClosedIt) {
    const SVGate gate;
    const SVPin pin(m_published);
    EXPECT_EQ(pin.tables(), &m_tables);
}

// Whoever changes something inside the gate finds nobody who reads, or leaves it as it is: a
// reader never sees a change of what it has pinned.
TEST_F(PinTest, KeepsWhatIsReadAsItIs) {
    constexpr unsigned int rounds = 20000;
    std::atomic<bool> over{false};
    std::atomic<unsigned int> sawAChange{0};
    std::atomic<unsigned int> changes{0};
    unsigned int number = 0;
    std::vector<JoiningThread> readers;
    for (int i = 0; i < 2; ++i) {
        readers.emplace_back([&] {
            while (!over) {
                const SVPin pin(m_published);
                const unsigned int before = number;
                for (int look = 0; look < 20; ++look) {
                    sawAChange += number == before ? 0 : 1;
                }
            }
        });
    }
    for (unsigned int round = 0; round < rounds || changes == 0; ++round) {
        const SVGate gate;
        if (!SVPin::pinnedQ(&m_tables)) {
            ++number;
            ++changes;
        }
    }
    over = true;
    readers.clear();
    EXPECT_EQ(sawAChange, 0U);
    EXPECT_EQ(number, changes);
}

// --- Children ------------------------------------------------------------------------------------

// Splits a child off while another thread has pinned something.
ChildEnd endOfChildBeside(const std::function<Pins()>& makePins,
                          const std::function<void()>& body) {
    Gate pinned;
    Gate done;
    JoiningThread other([&] {
        const Pins pins = makePins();
        pinned.open();
        done.pass();
    });
    pinned.pass();
    const ChildEnd end = inChild(body);
    done.open();
    return end;
}

class PinInAChild : public ManyPins {
protected:
    Pins threePins() {
        Pins pins;
        for (int i = 0; i < 3; ++i) {
            pins.push_back(std::make_unique<SVPin>(m_published));
        }
        return pins;
    }
};

TEST_F(PinInAChild, OfAnotherThreadIsForgotten) {
    const ChildEnd end = endOfChildBeside([this] { return threePins(); },
                                          [this] {
                                              EXPECT_TRUE(SVPin::pinnedQ(&m_tables));
                                              SVPin::forgetOtherThreads();
                                              EXPECT_FALSE(SVPin::pinnedQ(&m_tables));
                                          });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

TEST_F(PinInAChild, OfTheOnlyThreadStays) {
    Pins own = threePins();
    const ChildEnd end = endOfChildBeside([this] { return threePins(); },
                                          [&] {
                                              SVPin::forgetOtherThreads();
                                              own.resize(1);
                                              EXPECT_TRUE(SVPin::pinnedQ(&m_tables));
                                              own.clear();
                                              EXPECT_FALSE(SVPin::pinnedQ(&m_tables));
                                          });
    EXPECT_TRUE(end.wentOnQ()) << end;
    own.clear();
    EXPECT_FALSE(SVPin::pinnedQ(&m_tables));
}

TEST_F(PinInAChild, WithoutASlotIsForgottenUnlessItMayBeOfTheOnlyThread) {
    const ChildEnd end = endOfChildBeside([this] { return pins(); },
                                          [this] {
                                              {
                                                  const Sorvane::SVHandlerContext::Scope dispatch;
                                                  SVPin::forgetOtherThreads();
                                                  EXPECT_TRUE(SVPin::pinnedQ(&m_others));
                                              }
                                              SVPin::forgetOtherThreads();
                                              EXPECT_FALSE(SVPin::pinnedQ(&m_others));
                                              EXPECT_EQ(pinnedTables(), 0U);
                                          });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

#if defined(__x86_64__) || defined(__i386__)

// No slot tells any more that it was another thread's.
TEST_F(PinInAChild, IsNotForgottenAtAnyInstructionAfterThoseOfOthers) {
    SKIP_WITHOUT_STEPS();
    const ChildEnd end = endOfChildBeside([this] { return pins(); },
                                          [this] {
                                              SVPin::forgetOtherThreads();
                                              std::signal(SIGTRAP, forgetOtherThreadsInHandler);
                                              bool pinned = false;
                                              {
                                                  const SingleSteps steps;
                                                  const SVPin pin(m_published);
                                                  pinned = SVPin::pinnedQ(m_published);
                                              }
                                              std::signal(SIGTRAP, SIG_DFL);
                                              EXPECT_TRUE(pinned);
                                          });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

#endif

}  // namespace
