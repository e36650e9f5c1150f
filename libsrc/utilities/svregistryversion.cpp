#include "svregistryversion.h"

#include <memory>
#include <typeinfo>

#include "../support/svrecycler.h"

namespace Sorvane {

namespace {

using Version = SVRegistryVersion;

static_assert(SVAtomicRef<SVSignalTable*>::is_always_lock_free);
static_assert(std::atomic<unsigned int>::is_always_lock_free);
static_assert(std::atomic<bool>::is_always_lock_free);

constinit SVRecycler<Version> versions;
constinit std::atomic<unsigned short> layouts{0};
constinit std::atomic<unsigned int> registries{0};

// Copies a table slot by slot, deleted ones included, into an empty one. False without memory.
template <typename Table>
bool copyTable(const Table& from, Table& to) {
    if (from.mask != to.mask) {
        auto* const slots = new typename Table::Entry[from.mask + 2];
        if (slots == nullptr) {
            return false;
        }
        to.table = slots;
        to.mask = from.mask;
    }
    for (unsigned int i = 0; i <= from.mask; ++i) {
        if (from.table[i].state != svslotEmpty) {
            to.table[i] = from.table[i];
        }
    }
    to.used = from.used;
    to.fill = from.fill;
    return true;
}

template <typename Action>
void forEachTable(const Version& version, Action action) {
    for (unsigned int i = 0; i <= version.mask; ++i) {
        if (version.table[i].state == svslotOccupied) {
            action(version.table[i].value);
        }
    }
}

void share(SVSignalHandlerTable* table) noexcept {
    if (SVSharedTable* const shared = SVSharedTable::from(table)) {
        // Whoever shares a table has it in a version that is pinned, so it can't go meanwhile.
        shared->versions.fetch_add(1, std::memory_order_relaxed);
    }
}

// Acquire and release: whoever deletes the table comes after all that was done with it.
void letGo(SVSignalHandlerTable* table) noexcept {
    SVSharedTable* const shared = SVSharedTable::from(table);
    if (shared != nullptr && shared->versions.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete shared;
    }
}

// The last version of a registry owns what was put into it by hand, too.
void letGoOrDelete(SVSignalHandlerTable* table) noexcept {
    if (SVSharedTable::from(table) != nullptr) {
        letGo(table);
    } else {
        delete table;
    }
}

}  // namespace

SVSharedTable* SVSharedTable::from(SVSignalHandlerTable* table) noexcept {
    if (table == nullptr) {
        return nullptr;
    }
    const SVSignalHandlerTable& present = *table;
    return typeid(present) == typeid(SVSharedTable) ? static_cast<SVSharedTable*>(table) : nullptr;
}

unsigned short SVSharedTable::newLayout() noexcept {
    return layouts.fetch_add(1, std::memory_order_relaxed);
}

Version* Version::closed() noexcept {
    alignas(Version) static constinit char place[1] = {};
    return reinterpret_cast<Version*>(place);
}

bool Version::publishInsteadOf(Version* noVersion) noexcept {
    SVSignalTable* current = noVersion;
    return place().compare_exchange_strong(current, this, std::memory_order_seq_cst);
}

// Said before it is done: who finds that this version is not published any more finds out that it
// was. If it is not done, somebody else has done it.
bool Version::replaceBy(Version* successor) noexcept {
    m_superseded.store(true);
    SVSignalTable* current = this;
    return place().compare_exchange_strong(current, successor, std::memory_order_seq_cst);
}

void Version::beginRegistry() noexcept {
    m_registry = registries.fetch_add(1, std::memory_order_relaxed);
}

Version* Version::make() noexcept {
    return versions.take();
}

bool Version::takeQ() noexcept {
    State expected = free;
    // Acquire pairs with the release in empty().
    return m_state.compare_exchange_strong(expected, inUse, std::memory_order_acquire,
                                           std::memory_order_relaxed);
}

bool Version::copyFrom(const Version& other) noexcept {
    m_registry = other.m_registry;
    const bool complete = copyTable<SVSignalTable>(other, *this);
    forEachTable(*this, share);
    return complete;
}

bool Version::copyTableOf(int signalNumber) noexcept {
    Entry* const entry = get(signalKey(signalNumber));
    if (entry == nullptr) {
        return true;
    }
    SVSharedTable* const shared = SVSharedTable::from(entry->value);
    if (shared != nullptr && shared->versions.load(std::memory_order_relaxed) == 1) {
        return true;  // a copy already
    }
    std::unique_ptr<SVSharedTable> copy(new SVSharedTable);
    if (copy == nullptr || !copyTable<SVSignalHandlerTable>(*entry->value, *copy)) {
        return false;
    }
    if (shared != nullptr) {
        copy->layout = shared->layout;
    }
    letGo(entry->value);
    entry->value = copy.release();
    return true;
}

void Version::empty() noexcept {
    if (table != smalltable) {
        delete[] table;
        table = smalltable;
        mask = sizeof(smalltable) / sizeof(smalltable[0]) - 2;
    }
    for (auto& slot : smalltable) {
        slot.state = svslotEmpty;
    }
    used = 0;
    fill = 0;
    m_lastOne = false;
    m_superseded.store(false, std::memory_order_relaxed);
    m_state.store(free, std::memory_order_release);
}

void Version::discard() noexcept {
    forEachTable(*this, m_lastOne ? letGoOrDelete : letGo);
    empty();
}

void Version::retireAsLastOne() noexcept {
    m_lastOne = true;
    retire();
}

// Any number of threads may be at it: each version is reclaimed by the one who takes it out of its
// retired state. The pins are read again after that, because the version may have been reclaimed,
// used and retired once more since they were read first.
void Version::reclaimIfUnread() noexcept {
    State expected = retired;
    if (m_state.load(std::memory_order_relaxed) != expected ||
        m_pins.load(std::memory_order_relaxed) != 0 ||
        !m_state.compare_exchange_strong(expected, inUse, std::memory_order_acquire,
                                         std::memory_order_relaxed)) {
        return;
    }
    if (pins() == 0) {
        discard();
    } else {
        retire();
    }
}

void Version::reclaimUnread() noexcept {
    versions.forEach([](Version& version) { version.reclaimIfUnread(); });
}

}  // namespace Sorvane
