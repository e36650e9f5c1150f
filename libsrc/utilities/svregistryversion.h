// One version of the registry, and how long it lives. The argument is in svregistry.h.
#ifndef SORVANE_SVREGISTRYVERSION_H
#define SORVANE_SVREGISTRYVERSION_H

#include <atomic>

#include "../support/svatomicref.h"
#include "svsignalhandlermanager.h"

namespace Sorvane {

/// The key of a signal in the outer table. Defined for every int: the lowest one wraps.
/// Signal context: any context.
inline int signalKey(int signalNumber) noexcept {
    return static_cast<int>(static_cast<unsigned int>(signalNumber) - 1U);
}

/// An inner table, and how many versions have it.
class SVSharedTable final : public SVSignalHandlerTable {
public:
    SVSharedTable() noexcept = default;
    ~SVSharedTable() noexcept override {}

    /// The table as a shared one, or null. Whoever puts a table into the outer one by hand, past
    /// the manager, has put in a plain one.
    static SVSharedTable* from(SVSignalHandlerTable* table) noexcept;

    /// Short, like the one below, so that the table is hardly larger than a plain one: whoever has
    /// just the memory for that has it for this.
    std::atomic<unsigned short> versions{1};

    /// Stays the same from copy to copy until a rebuild moves the records to other slots.
    unsigned short layout = newLayout();
    static unsigned short newLayout() noexcept;
};

/// One version of the registry: an outer table and who reads it.
class SVRegistryVersion final : public SVSignalTable {
public:
    /// In use: being built, published, or just being looked at by whoever may reclaim it.
    /// Retired: swapped out. Gone: destroyed by hand.
    enum State : unsigned int { free, inUse, retired, gone };

    SVRegistryVersion() noexcept = default;

    /// The library never deletes a version. Whoever deletes the published tables by hand gets the
    /// destructor run, and the storage stays, because readers may still ask it for its pins.
    ~SVRegistryVersion() noexcept override { m_state.store(gone, std::memory_order_release); }
    static void operator delete(void*) noexcept {}

    // --- Which version is published. Signal context: any context.

    static SVRegistryVersion* published() noexcept {
        return static_cast<SVRegistryVersion*>(place().load(std::memory_order_seq_cst));
    }
    bool publishedQ() const noexcept { return place().load(std::memory_order_seq_cst) == this; }

    /// What is published while a version is changed for which there is no memory for a stand-in. It
    /// is no version: whoever reads waits until there is one again.
    static SVRegistryVersion* closed() noexcept;

    /// Whether it is published, or was and has been replaced. For whoever made it and holds it.
    bool everPublishedQ() const noexcept { return publishedQ() || m_superseded.load(); }

    /// Publishes this version instead of null, or of the closed registry; false when something else
    /// is published.
    bool publishInsteadOf(SVRegistryVersion* noVersion) noexcept;

    /// Publishes another version, or null, instead of this one, which the caller has pinned; false
    /// when this one is not the published one any more.
    bool replaceBy(SVRegistryVersion* successor) noexcept;

    // --- Who reads it. Signal context: any context.

    void pin() noexcept { m_pins.fetch_add(1, std::memory_order_seq_cst); }
    void unpin() noexcept { m_pins.fetch_sub(1, std::memory_order_release); }
    unsigned int pins() const noexcept { return m_pins.load(std::memory_order_seq_cst); }

    /// The table of a signal in this version, or null.
    SVSignalHandlerTable* tableOf(int signalNumber) const noexcept {
        const Entry* const entry = get(signalKey(signalNumber));
        return entry == nullptr ? nullptr : entry->value;
    }

    /// Which registry it is a version of: those between two ends of the last manager are one.
    unsigned int registry() const noexcept { return m_registry; }
    void beginRegistry() noexcept;

    // --- Its life. Signal context: any context.

    /// An empty version for the caller alone, recycled or new; null without memory.
    static SVRegistryVersion* make() noexcept;
    bool takeQ() noexcept;

    /// Makes this empty version one with the same contents as another, which the caller has pinned.
    /// The inner tables are shared. False without memory: it then holds what discard() lets go.
    bool copyFrom(const SVRegistryVersion& other) noexcept;

    /// Gives this version an inner table of its own for a signal, if it has a shared one. False
    /// without memory.
    bool copyTableOf(int signalNumber) noexcept;

    /// Lets everything go and makes the version free. For whoever has it for himself.
    void discard() noexcept;

    /// To be released when nobody reads it any more.
    void retire() noexcept { m_state.store(retired, std::memory_order_release); }
    void retireAsLastOne() noexcept;

    /// Releases every retired version that nobody reads.
    static void reclaimUnread() noexcept;

    /// Forgets that it was ever published. For whoever has it out of sight.
    void setUnpublished() noexcept { m_superseded.store(false); }

    SVRegistryVersion* nextMade = nullptr;

private:
    static SVAtomicRef<SVSignalTable*> place() noexcept {
        return SVAtomicRef<SVSignalTable*>(SVSignalHandlerManager::handlerTables);
    }
    void reclaimIfUnread() noexcept;
    void empty() noexcept;

    std::atomic<unsigned int> m_pins{0};
    std::atomic<State> m_state{inUse};
    std::atomic<bool> m_superseded{false};
    unsigned int m_registry = 0;
    bool m_lastOne = false;  ///< of its registry, and so owner of every table
};

}  // namespace Sorvane

#endif
