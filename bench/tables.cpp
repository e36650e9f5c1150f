// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The library's table beside one that is written by hand with the same layout, hash and probing,
// and beside others, by Google Benchmark. A benchmark is named after its work, its key, the size of
// its value, the number of its keys, and its table. Each checks what it has done.

#include <benchmark/benchmark.h>
#include <sorvane/svhashtable.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <random>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "reference_table.h"

// What of it there is, CMake has found out.
#ifdef SORVANE_BENCH_boost_unordered_unordered_flat_map_hpp
#include <boost/unordered/unordered_flat_map.hpp>
#endif
#ifdef SORVANE_BENCH_absl
#include <absl/container/flat_hash_map.h>
#endif
#ifdef SORVANE_BENCH_tsl_robin_map_h
#include <tsl/robin_map.h>
#endif

namespace {

// --- Keys and values -----------------------------------------------------------------------------

struct Large {
    long number;
    unsigned char others[168];
};
static_assert(sizeof(Large) == 176);

// Made before they are stored, so that making them takes no time of a work's.
template <typename V>
std::vector<V> makeValues(std::size_t count) {
    std::vector<V> values(count);
    for (std::size_t i = 0; i < count; ++i) {
        if constexpr (std::is_same_v<V, long>) {
            values[i] = static_cast<long>(i);
        } else {
            values[i].number = static_cast<long>(i);
        }
    }
    return values;
}

long numberOf(long value) {
    return value;
}

long numberOf(const Large& value) {
    return value.number;
}

// Small numbers, as signals are, or addresses, as those of functions. The latter half is not
// stored.
template <typename K>
std::vector<K> makeKeys(std::size_t count) {
    std::mt19937 random(42);
    std::vector<K> keys(2 * count);
    const auto half = keys.begin() + static_cast<std::ptrdiff_t>(count);
    if constexpr (std::is_same_v<K, int>) {
        for (std::size_t i = 0; i < keys.size(); ++i) {
            keys[i] = static_cast<int>(i);
        }
    } else {
        std::uintptr_t address = 0x555555554000;
        for (K& key : keys) {
            address += 16 * (1 + random() % 15);
            key = reinterpret_cast<K>(address);
        }
        std::shuffle(keys.begin(), keys.end(), random);
    }
    std::shuffle(keys.begin(), half, random);
    std::shuffle(half, keys.end(), random);
    return keys;
}

// --- Tables --------------------------------------------------------------------------------------

template <typename K, typename V>
class Library {
public:
    void reserve(std::size_t count) { m_table.resize(static_cast<unsigned int>(4 * count)); }
    void insert(const K& key, const V& value) { m_table.insert(key, value); }
    void erase(const K& key) { m_table.remove(key); }
    const V* find(const K& key) const {
        const auto* const entry = m_table.get(key);
        return entry == nullptr ? nullptr : &entry->value;
    }
    std::size_t size() const { return m_table.used; }

private:
    Sorvane::SVHashTable<K, V> m_table;
};

template <typename K, typename V>
class Reference {
public:
    static_assert(sizeof(typename Bench::ReferenceTable<K, V>::Slot) ==
                  sizeof(Sorvane::SVHashTableEntry<K, V>));

    void reserve(std::size_t count) { m_table.resize(static_cast<unsigned int>(4 * count)); }
    void insert(const K& key, const V& value) { m_table.insert(key, value); }
    void erase(const K& key) { m_table.erase(key); }
    const V* find(const K& key) const { return m_table.find(key); }
    std::size_t size() const { return m_table.size(); }

private:
    Bench::ReferenceTable<K, V> m_table;
};

// One with the interface of the standard's.
template <typename Map>
class Standard {
public:
    using K = typename Map::key_type;
    using V = typename Map::mapped_type;

    void reserve(std::size_t count) { m_map.reserve(count); }
    void insert(const K& key, const V& value) { m_map.insert({key, value}); }
    void erase(const K& key) { m_map.erase(key); }
    const V* find(const K& key) const {
        const auto found = m_map.find(key);
        return found == m_map.end() ? nullptr : &found->second;
    }
    std::size_t size() const { return m_map.size(); }

private:
    Map m_map;
};

// --- Works ---------------------------------------------------------------------------------------

template <typename Table, typename K, typename V>
void fill(Table& table, const std::vector<K>& keys, const std::vector<V>& values) {
    for (std::size_t i = 0; i < values.size(); ++i) {
        table.insert(keys[i], values[i]);
    }
}

template <typename Table, typename K>
long sumOf(const Table& table, const K* first, const K* last) {
    long sum = 0;
    for (; first != last; ++first) {
        if (const auto* const value = table.find(*first)) {
            sum += numberOf(*value);
        }
    }
    return sum;
}

long sumBelow(std::size_t count) {
    return static_cast<long>(count * (count - 1) / 2);
}

void expect(benchmark::State& state, bool right) {
    if (!right) {
        state.SkipWithError("wrong result");
    }
}

template <typename Table, typename K, typename V>
void build(benchmark::State& state, std::size_t count) {
    const std::vector<K> keys = makeKeys<K>(count);
    const std::vector<V> values = makeValues<V>(count);
    std::size_t wrong = 0;
    for ([[maybe_unused]] auto step : state) {
        Table table;
        fill(table, keys, values);
        benchmark::DoNotOptimize(table);
        wrong += static_cast<std::size_t>(table.size() != count);
    }
    expect(state, wrong == 0);
}

template <typename Table, typename K, typename V>
void hit(benchmark::State& state, std::size_t count) {
    const std::vector<K> keys = makeKeys<K>(count);
    const std::vector<V> values = makeValues<V>(count);
    Table table;
    fill(table, keys, values);
    long sum = 0;
    for ([[maybe_unused]] auto step : state) {
        sum += sumOf(table, keys.data(), keys.data() + count);
        benchmark::ClobberMemory();
    }
    expect(state, sum == sumBelow(count) * state.iterations());
}

template <typename Table, typename K, typename V>
void miss(benchmark::State& state, std::size_t count) {
    const std::vector<K> keys = makeKeys<K>(count);
    const std::vector<V> values = makeValues<V>(count);
    Table table;
    fill(table, keys, values);
    std::size_t found = 0;
    for ([[maybe_unused]] auto step : state) {
        for (std::size_t i = count; i < 2 * count; ++i) {
            found += static_cast<std::size_t>(table.find(keys[i]) != nullptr);
        }
        benchmark::ClobberMemory();
    }
    expect(state, found == 0);
}

template <typename Work>
double seconds(Work work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// All keys are erased and inserted again, without growth, from so many tables that this takes
// longer than reading the clock. The last one comes first, so that none lies behind a deleted slot.
template <typename Table, typename K, typename V>
void eraseAndInsert(benchmark::State& state, std::size_t count, bool erasing) {
    const std::vector<K> keys = makeKeys<K>(count);
    const std::vector<V> values = makeValues<V>(count);
    std::deque<Table> tables(std::max<std::size_t>(1, 500 / count));
    for (Table& table : tables) {
        table.reserve(count);
        fill(table, keys, values);
    }
    std::size_t wrong = 0;
    const auto expectSizes = [&](std::size_t size) {
        for (const Table& table : tables) {
            wrong += static_cast<std::size_t>(table.size() != size);
        }
    };
    for ([[maybe_unused]] auto step : state) {
        const double erased = seconds([&] {
            for (Table& table : tables) {
                for (std::size_t i = count; i > 0; --i) {
                    table.erase(keys[i - 1]);
                }
            }
        });
        expectSizes(0);
        const double inserted = seconds([&] {
            for (Table& table : tables) {
                fill(table, keys, values);
            }
        });
        expectSizes(count);
        state.SetIterationTime(erasing ? erased : inserted);
    }
    expect(state,
           wrong == 0 && sumOf(tables.back(), keys.data(), keys.data() + count) == sumBelow(count));
}

template <typename Table, typename K, typename V>
void erase(benchmark::State& state, std::size_t count) {
    eraseAndInsert<Table, K, V>(state, count, true);
}

template <typename Table, typename K, typename V>
void insert(benchmark::State& state, std::size_t count) {
    eraseAndInsert<Table, K, V>(state, count, false);
}

template <typename Table, typename K, typename V>
void offer(const std::string& middle, const std::string& name) {
    for (const std::size_t count : {5U, 20U, 100U, 1000U}) {
        const auto named = [&](const char* work) {
            return work + middle + std::to_string(count) + "/" + name;
        };
        const auto offerOne = [&](const char* work, auto function) {
            return benchmark::RegisterBenchmark(named(work).c_str(), function, count);
        };
        offerOne("build", &build<Table, K, V>);
        offerOne("hit", &hit<Table, K, V>);
        offerOne("miss", &miss<Table, K, V>);
        offerOne("erase", &erase<Table, K, V>)->UseManualTime();
        offerOne("insert", &insert<Table, K, V>)->UseManualTime();
    }
}

template <typename K, typename V>
void offerAll(const std::string& key) {
    const std::string middle = "/" + key + "/" + std::to_string(sizeof(V)) + "/";
    offer<Library<K, V>, K, V>(middle, "library");
    offer<Reference<K, V>, K, V>(middle, "reference");
    offer<Standard<std::unordered_map<K, V>>, K, V>(middle, "std");
#ifdef SORVANE_BENCH_boost_unordered_unordered_flat_map_hpp
    offer<Standard<boost::unordered_flat_map<K, V>>, K, V>(middle, "boost");
#endif
#ifdef SORVANE_BENCH_absl
    offer<Standard<absl::flat_hash_map<K, V>>, K, V>(middle, "absl");
#endif
#ifdef SORVANE_BENCH_tsl_robin_map_h
    offer<Standard<tsl::robin_map<K, V>>, K, V>(middle, "tsl");
#endif
}

}  // namespace

int main(int count, char** arguments) {
    offerAll<int, long>("int");
    offerAll<int, Large>("int");
    offerAll<void*, long>("pointer");
    offerAll<void*, Large>("pointer");
    benchmark::Initialize(&count, arguments);
    if (benchmark::ReportUnrecognizedArguments(count, arguments)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
