// The table against a model of it: long random histories, from fixed seeds, in both of the
// instantiations that the manager uses. The model is written from the rules alone, with arrays and
// loops, and shares nothing with the table; after every step the two must agree about every slot.

#include <gtest/gtest.h>

#include <cstdint>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/table_kinds.h"

namespace {

// What has to happen in the histories, so that agreement means something.
struct Events {
    unsigned growths = 0;
    unsigned shrinksToSmallerHeapArray = 0;
    unsigned shrinksToInlineArray = 0;
    unsigned heapCleansAtTheSameSize = 0;
    unsigned inlineCleans = 0;
    unsigned resizesWithNothingToDo = 0;
    unsigned replacements = 0;
    unsigned deletedSlots = 0;
    unsigned deletedHomeSlotsPassedOver = 0;
    unsigned deletedHomeSlotsReused = 0;
    unsigned walksEndedByDeletedSlot = 0;
    unsigned unreachableCopies = 0;
    unsigned copiesMerged = 0;
    unsigned differentKeysWithOneHash = 0;
    unsigned longWalks = 0;
};

constexpr unsigned emptyState = 0;
constexpr unsigned occupiedState = 1;
constexpr unsigned deletedState = 2;

// Values are numbers here; 0 stands for the value of a slot that was never used.
struct ModelSlot {
    unsigned state = emptyState;
    std::uint64_t key = 0;
    std::uint32_t hash = 0;
    int value = 0;
};

class Model {
public:
    static constexpr std::size_t inlineSize = 8;

    std::vector<ModelSlot> slots = std::vector<ModelSlot>(inlineSize);
    std::uint32_t used = 0;
    std::uint32_t fill = 0;
    Events events;

    bool inlineQ() const { return slots.size() == inlineSize; }

    std::size_t find(std::uint64_t key) {
        const std::uint32_t hash = hashOf(key);
        const std::size_t home = hash % slots.size();
        if (slots[home].state == emptyState) {
            return home;
        }
        const bool homeDeleted = slots[home].state == deletedState;
        if (!homeDeleted && slots[home].hash == hash) {
            if (slots[home].key == key) {
                return home;
            }
            ++events.differentKeysWithOneHash;
        }
        return findBeyondHome(key, home, homeDeleted);
    }

    bool hasKey(std::uint64_t key) { return slots[find(key)].state == occupiedState; }

    void store(std::uint64_t key, int value) {
        ModelSlot& slot = slots[find(key)];
        slot.key = key;
        slot.value = value;
        if (slot.state == occupiedState) {
            ++events.replacements;
            return;
        }
        if (slot.state == emptyState) {
            ++fill;
        }
        slot.hash = hashOf(key);
        slot.state = occupiedState;
        ++used;
    }

    void insert(std::uint64_t key, int value) {
        store(key, value);
        if (copiesOf(key) > 1) {
            ++events.unreachableCopies;
        }
        if (3 * std::uint64_t{fill} >= 2 * slots.size()) {
            rebuild(used < 30000 ? 4 * used : 2 * used);
        }
    }

    void remove(std::uint64_t key) {
        ModelSlot& slot = slots[find(key)];
        if (slot.state == occupiedState) {
            slot.state = deletedState;
            --used;
            ++events.deletedSlots;
        }
    }

    static std::size_t sizeAbove(std::uint32_t minimum) {
        std::size_t size = inlineSize;
        while (size <= minimum) {
            size *= 2;
        }
        return size;
    }

    unsigned rebuild(std::uint32_t minimum) {
        const std::size_t size = sizeAbove(minimum);
        if (inlineQ() && size == inlineSize && used == fill) {
            ++events.resizesWithNothingToDo;
            return 0;
        }
        countRebuild(size);
        const std::vector<ModelSlot> former = slots;
        const std::uint32_t formerUsed = used;
        slots.assign(size, ModelSlot());
        used = 0;
        fill = 0;
        for (const ModelSlot& slot : former) {
            if (slot.state == occupiedState) {
                store(slot.key, slot.value);
            }
        }
        events.copiesMerged += formerUsed - used;
        return 2;
    }

private:
    static std::uint32_t hashOf(std::uint64_t key) { return static_cast<std::uint32_t>(key); }

    std::size_t findBeyondHome(std::uint64_t key, std::size_t home, bool homeDeleted) {
        std::uint32_t step = hashOf(key);
        auto position = static_cast<std::uint32_t>(home);
        for (unsigned visited = 2;; ++visited) {
            position = position * 5 + 1 + step;
            const std::size_t index = position % slots.size();
            const ModelSlot& slot = slots[index];
            if (slot.state != occupiedState) {
                events.walksEndedByDeletedSlot += (slot.state == deletedState) ? 1 : 0;
                events.deletedHomeSlotsReused += homeDeleted ? 1 : 0;
                return homeDeleted ? home : index;
            }
            if (slot.key == key) {
                events.deletedHomeSlotsPassedOver += homeDeleted ? 1 : 0;
                return index;
            }
            events.longWalks += (visited == 4) ? 1 : 0;
            step /= 32;
        }
    }

    unsigned copiesOf(std::uint64_t key) const {
        unsigned copies = 0;
        for (const ModelSlot& slot : slots) {
            copies += (slot.state == occupiedState && slot.key == key) ? 1 : 0;
        }
        return copies;
    }

    void countRebuild(std::size_t size) {
        if (size > slots.size()) {
            ++events.growths;
        } else if (size == inlineSize) {
            ++(inlineQ() ? events.inlineCleans : events.shrinksToInlineArray);
        } else {
            ++(size < slots.size() ? events.shrinksToSmallerHeapArray
                                   : events.heapCleansAtTheSameSize);
        }
    }
};

// The model's keys are the bits of the table's.
std::uint64_t bitsOf(int key) {
    return static_cast<std::uint32_t>(key);
}
std::uint64_t bitsOf(const void* key) {
    return reinterpret_cast<std::uintptr_t>(key);
}

// Where a table and its model disagree; empty when they don't.
template <typename Kind>
class Comparison {
public:
    Comparison(typename Kind::Table& table, Model& model) : m_table(table), m_model(model) {}

    std::string difference() {
        compareHeader();
        if (m_difference.str().empty()) {
            compareSlots();
        }
        if (m_difference.str().empty()) {
            compareIteration();
        }
        return m_difference.str();
    }

    std::string differenceInLookup(std::uint64_t key) {
        const auto tableKey = Kind::key(key);
        const std::size_t expected = m_model.find(key);
        const bool present = m_model.slots[expected].state == occupiedState;
        const auto* const found = m_table.lookup(tableKey, static_cast<std::uint32_t>(key));
        if (found != &m_table.table[expected]) {
            m_difference << "lookup: slot " << found - m_table.table << ", expected " << expected;
        }
        if (m_table.has_key(tableKey) != present) {
            m_difference << "has_key: expected " << present;
        }
        if (m_table.get(tableKey) != (present ? &m_table.table[expected] : nullptr)) {
            m_difference << "get: not slot " << expected << ", which holds it: " << present;
        }
        return m_difference.str();
    }

private:
    void compareHeader() {
        compare("used", m_table.used, m_model.used);
        compare("fill", m_table.fill, m_model.fill);
        compare("mask", m_table.mask, m_model.slots.size() - 1);
        compare("inline", m_table.table == m_table.smalltable, m_model.inlineQ());
    }

    void compareSlots() {
        for (std::size_t i = 0; i < m_model.slots.size(); ++i) {
            compareSlot(i, m_model.slots[i]);
        }
        compareSlot(m_model.slots.size(), ModelSlot());
    }

    void compareSlot(std::size_t index, const ModelSlot& expected) {
        const auto& slot = m_table.table[index];
        const std::size_t before = static_cast<std::size_t>(m_difference.tellp());
        compare("state", slot.state, expected.state);
        if (expected.state != emptyState) {
            compare("hash", slot.hash, expected.hash);
            if (slot.key != Kind::key(expected.key)) {
                m_difference << "key differs; ";
            }
        }
        if ((expected.state != emptyState || Kind::valuesStartDefined) &&
            !Kind::same(slot.value, Kind::value(expected.value))) {
            m_difference << "value is not number " << expected.value << "; ";
        }
        if (static_cast<std::size_t>(m_difference.tellp()) != before) {
            m_difference << "in slot " << index << "; ";
        }
    }

    void compareIteration() {
        auto position = m_table.begin();
        for (std::size_t i = 0; i < m_model.slots.size(); ++i) {
            if (m_model.slots[i].state != occupiedState) {
                continue;
            }
            if (position == m_table.end()) {
                m_difference << "the iteration ends before slot " << i;
                return;
            }
            if (&position.GetValue() != &m_table.table[i].value) {
                m_difference << "the iteration is not at slot " << i;
                return;
            }
            position++;
        }
        if (!(position == m_table.end())) {
            m_difference << "the iteration goes on behind the last occupied slot";
        }
    }

    template <typename Actual, typename Expected>
    void compare(const char* what, Actual actual, Expected expected) {
        if (actual != expected) {
            m_difference << what << " is " << actual << ", expected " << expected << "; ";
        }
    }

    typename Kind::Table& m_table;
    Model& m_model;
    std::ostringstream m_difference;
};

// One random history.
template <typename Kind>
class History {
public:
    explicit History(unsigned seed) : m_random(seed) { chooseKeys(); }

    // Describes the first disagreement; empty when there is none.
    std::string play(unsigned steps) {
        for (unsigned step = 1; step <= steps; ++step) {
            if (step % 150 == 1) {
                m_wantedKeys = wantedKeyCounts[below(std::size(wantedKeyCounts))];
            }
            const std::string done = takeStep();
            const std::string difference = differences();
            if (!difference.empty()) {
                return "step " + std::to_string(step) + ", after " + done + ": " + difference;
            }
        }
        return "";
    }

    const Events& events() const { return m_model.events; }

private:
    // Few, so that a rebuild finds little to keep; and many, so that there are several growths.
    static constexpr std::uint32_t wantedKeyCounts[] = {1, 1, 2, 3, 4, 12, 40, 100};
    static constexpr std::uint32_t resizeArguments[] = {0,  0,  1,  4,  5,  6,  7,  7,   8,   9,
                                                        15, 16, 24, 31, 32, 63, 64, 100, 127, 128};
    static constexpr std::size_t keyCount = 110;

    std::size_t below(std::size_t bound) { return m_random() % bound; }

    // Three families: few home slots and many high bits; keys that differ in the high bits of a
    // 64-bit pointer only, so that their hashes are alike; and the small numbers of signals.
    void chooseKeys() {
        for (std::size_t i = 0; i < keyCount; ++i) {
            const std::uint64_t home = 2 + 3 * below(2);
            const std::uint64_t high = m_random();
            const std::uint64_t bits[] = {home | (high << 5), home | (high << 32), i - 3};
            m_keys.push_back(bitsOf(Kind::key(bits[i % 3])));
        }
    }

    std::uint64_t anyKey() { return m_keys[below(keyCount)]; }

    std::string takeStep() {
        switch (below(16)) {
            case 0:
                return resizeTable();
            case 1:
                return insertWithoutGrowth();
            case 2:
            case 3:
                return readOrWriteThroughReference();
            case 4:
                return insertKey(occupiedKey());
            default:
                return changeNumberOfKeys();
        }
    }

    // Inserts and removes, around the wanted number of keys.
    std::string changeNumberOfKeys() {
        const bool insert = m_model.used < m_wantedKeys || (m_wantedKeys > 1 && below(4) == 0);
        return insert ? insertKey(anyKey()) : removeKey(below(4) == 0 ? anyKey() : occupiedKey());
    }

    std::string insertKey(std::uint64_t key) {
        const int value = ++m_lastValue;
        m_table.insert(Kind::key(key), Kind::value(value));
        m_model.insert(key, value);
        return "insert " + std::to_string(key);
    }

    std::string removeKey(std::uint64_t key) {
        m_table.remove(Kind::key(key));
        m_model.remove(key);
        return "remove " + std::to_string(key);
    }

    std::string readOrWriteThroughReference() {
        const std::uint64_t key = below(4) == 0 ? anyKey() : occupiedKey();
        const bool present = m_model.hasKey(key);
        auto& value = m_table[Kind::key(key)];
        if (!present) {
            m_model.insert(key, 0);
        }
        ModelSlot& slot = m_model.slots[m_model.find(key)];
        if (!present || below(2) == 0) {
            slot.value = ++m_lastValue;
            value = Kind::value(slot.value);
        }
        return "operator[] " + std::to_string(key) +
               (Kind::same(value, Kind::value(slot.value)) ? "" : ", which gave another value");
    }

    // Only where it leaves an empty slot: a walk through a full table has no end.
    std::string insertWithoutGrowth() {
        const std::uint64_t key = anyKey();
        if (m_model.fill + 1 >= m_model.slots.size()) {
            return "nothing";
        }
        const int value = ++m_lastValue;
        const unsigned result = m_table.insert_helper(Kind::key(key), Kind::value(value));
        m_model.store(key, value);
        return "insert_helper " + std::to_string(key) + resultText(result, 2);
    }

    std::string resizeTable() {
        const std::uint32_t minimum = resizeArguments[below(std::size(resizeArguments))];
        if (Model::sizeAbove(minimum) <= m_model.used) {
            return "nothing";
        }
        const unsigned result = m_table.resize(minimum);
        return "resize " + std::to_string(minimum) + resultText(result, m_model.rebuild(minimum));
    }

    std::string resultText(unsigned result, unsigned expected) {
        m_wrongResult = m_wrongResult || result != expected;
        return " = " + std::to_string(result);
    }

    std::uint64_t occupiedKey() {
        const std::size_t start = below(m_model.slots.size());
        for (std::size_t i = 0; i < m_model.slots.size(); ++i) {
            const ModelSlot& slot = m_model.slots[(start + i) % m_model.slots.size()];
            if (slot.state == occupiedState) {
                return slot.key;
            }
        }
        return anyKey();
    }

    std::string differences() {
        std::string difference = m_wrongResult ? "the result is wrong; " : "";
        difference += Comparison<Kind>(m_table, m_model).difference();
        for (int i = 0; difference.empty() && i < 3; ++i) {
            difference += Comparison<Kind>(m_table, m_model).differenceInLookup(anyKey());
        }
        return difference;
    }

    std::mt19937 m_random;
    std::vector<std::uint64_t> m_keys;
    typename Kind::Table m_table;
    Model m_model;
    std::uint32_t m_wantedKeys = 0;
    int m_lastValue = 0;
    bool m_wrongResult = false;
};

void expectThatEverythingHappened(const Events& events, bool hashesCanCollide) {
    EXPECT_GT(events.growths, 0U);
    EXPECT_GT(events.shrinksToSmallerHeapArray, 0U);
    EXPECT_GT(events.shrinksToInlineArray, 0U);
    EXPECT_GT(events.heapCleansAtTheSameSize, 0U);
    EXPECT_GT(events.inlineCleans, 0U);
    EXPECT_GT(events.resizesWithNothingToDo, 0U);
    EXPECT_GT(events.replacements, 0U);
    EXPECT_GT(events.deletedSlots, 0U);
    EXPECT_GT(events.deletedHomeSlotsPassedOver, 0U);
    EXPECT_GT(events.deletedHomeSlotsReused, 0U);
    EXPECT_GT(events.walksEndedByDeletedSlot, 0U);
    EXPECT_GT(events.unreachableCopies, 0U);
    EXPECT_GT(events.copiesMerged, 0U);
    EXPECT_GT(events.longWalks, 0U);
    EXPECT_EQ(events.differentKeysWithOneHash > 0, hashesCanCollide);
}

// One test for each seed, so that each has a process and a line in the report of its own.
class SVHashTableModel : public testing::TestWithParam<unsigned> {
protected:
    static constexpr unsigned steps = 15000;

    template <typename Kind>
    void play(bool hashesCanCollide) {
        History<Kind> history(GetParam());
        const std::string disagreement = history.play(steps);
        ASSERT_EQ(disagreement, "") << "with seed " << GetParam();
        expectThatEverythingHappened(history.events(), hashesCanCollide);
    }
};

TEST_P(SVHashTableModel, OuterTableAgreesAfterEveryStep) {
    play<OuterTableKind>(false);
}

TEST_P(SVHashTableModel, InnerTableAgreesAfterEveryStep) {
    play<InnerTableKind>(sizeof(void*) > sizeof(std::uint32_t));
}

INSTANTIATE_TEST_SUITE_P(Histories, SVHashTableModel,
                         testing::Values(1U, 7U, 1960U, 40499U, 3141592653U),
                         [](const testing::TestParamInfo<unsigned>& seed) {
                             return "FromSeed" + std::to_string(seed.param);
                         });

}  // namespace
