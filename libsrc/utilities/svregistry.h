// The registry: the published tables, how they are read while signals arrive, and how they change.
//
// The problem. A signal may arrive at any instruction, on any thread, the ones that change the
// tables included. What it runs reads the tables without a lock, may take as long as it likes, may
// itself change the tables, and must never meet one that is half changed or already released.
//
// The mechanism.
// - Version. The outer table with its inner tables is one version of the registry. The published
//   one is SVSignalHandlerManager::handlerTables. Versions are recycled and never released, so
//   that a pointer to one, however old, can always be asked for its count of pins.
// - Pin. A reader loads the published version, adds a pin to it, and looks whether it is still the
//   published one; if not, it takes the pin away again and starts over. What is pinned is neither
//   changed nor released. A handler is called under its dispatch's pin.
// - Publish. A published version is not changed. A change copies it, and the inner table that it is
//   about, changes the copy, and swaps it in with one compare-and-swap. If that fails, because a
//   handler on the same thread or another thread has published meanwhile, it starts over from what
//   is published now. The inner tables that a change is not about are shared between versions.
// - Retire. The version swapped out is retired. It is reclaimed by the next change or
//   teardown that finds it without a pin; an inner table goes with the last of the versions that
//   have it, for which it counts them.
// - Help. A change that a handler makes does the changes that its own thread was interrupted in
//   first, in the same copy, so that they are done when the handler returns, however often one
//   interrupts.
// - Done once. A change is done when a copy that has it is published, which is one instruction, and
//   a handler may come right after it. So whether a change is done is not written down afterwards
//   but read off that copy, its candidate: the candidate is the published version, or it was, and
//   whoever replaced it said so before. Whoever makes a candidate holds it until everybody on its
//   thread who might ask has the answer.
// - In place. Whoever watches the tables undisturbed sees the objects that it knows change, rather
//   than others take their place. So when nobody else reads a version, and nobody else is changing
//   anything in place, the copy is published unchanged, the original is changed while nobody can
//   see it, and published again. The right to do so is nobody's to wait for: whoever does not get
//   it publishes a copy.
//
// Which orders pair.
// - A pin is added, then the published version read again; a version is swapped out, then its pins
//   are read. These four are sequentially consistent: at least one side sees the other, so a
//   reader that goes on was seen by the one that swapped, and no weaker order says that.
// - Publishing releases, pinning acquires: a reader sees all of what is published.
// - Taking a pin away releases, reading no pins (or only one's own) acquires: whoever changes or
//   reclaims comes after all that readers did. Later pins continue the release sequence.
// - That a version is superseded is stored before it is swapped out, and read after another one was
//   found published: whoever finds another one finds out about this one, too.
// - A version becomes retired or free with release, and is taken out of that state with acquire.
//
// Why nothing is released too early. A version is retired only after it was swapped out, so whoever
// takes it out of that state and then finds no pin has it to himself: a pin that comes later finds
// another version published. It can't be published again either, since the one version that is
// published twice, the original of a change in place, is not retired in between, and its stand-in
// is pinned by the change. A compare-and-swap can't mistake a version for an earlier one that was
// reclaimed and used again, because whoever expects it to be published has it pinned. An inner
// table is shared only from a version that is pinned, and so counted. The tables that are changed
// in place are in no other version, or the change is not made in place; none can come to share
// them, because the original is out of sight.
//
// Why nothing is done twice. Whether a change is done is asked under the pin of the version from
// which it is to be tried. A handler that does it before, does it in that version or an earlier
// one; one that does it later replaces that version, and the attempt is not published. A version
// says that it is superseded only if somebody had it pinned, so a copy that was never published
// does not, and neither does an original out of sight, which nobody else has pinned and whose word
// is taken back while nobody can see it.
//
// Without memory for the copy. A change that needs none itself must be possible even so. It is made
// in the original, while nothing is published but the mark that says so, and with all signals held
// back from its thread. Only then does a reader on another thread wait, for the length of one
// change that nothing can interrupt. If others are reading already, the change fails.
//
// What is assumed. Pointers, 32-bit counters and flags are lock-free. A handler that leaves by
// siglongjmp leaves its pin behind: that version and its tables then stay for good, and nothing
// else does. It must not leave so a change that it interrupted.
#ifndef SORVANE_SVREGISTRY_H
#define SORVANE_SVREGISTRY_H

#include "svregistryversion.h"

namespace Sorvane {

/// Keeps the published version, if there is one, as it is for the length of a scope.
/// Signal context: any context.
class SVRegistryPin {
public:
    SVRegistryPin() noexcept : m_version(pinned()) {}
    SVRegistryPin(const SVRegistryPin&) = delete;
    SVRegistryPin& operator=(const SVRegistryPin&) = delete;
    ~SVRegistryPin() { letGo(); }

    SVRegistryVersion* version() const noexcept { return m_version; }

    /// Whether nothing else has been published since.
    bool publishedQ() const noexcept { return SVRegistryVersion::published() == m_version; }

    SVSignalHandlerTable* tableOf(int signalNumber) const noexcept {
        return m_version == nullptr ? nullptr : m_version->tableOf(signalNumber);
    }

    /// Exchanges what two pins keep.
    void swap(SVRegistryPin& other) noexcept {
        SVRegistryVersion* const version = m_version;
        m_version = other.m_version;
        other.m_version = version;
    }

private:
    static SVRegistryVersion* pinned() noexcept;
    void letGo() noexcept {
        if (m_version != nullptr) {
            m_version->unpin();
        }
    }

    SVRegistryVersion* m_version;
};

/// What is done to the registry. Everything here may be called in any context, by any thread.
namespace SVRegistry {

/// Publishes an empty registry if there is none.
/// Result: whether this call did it; false also when there is no memory.
bool create() noexcept;

/// Takes the pinned version out of sight, unless another one is published by now, and releases it
/// when nobody reads it any more. Where others go on, an empty registry takes its place, so that
/// they are never without one; null only if there is no memory.
/// Result: whether this call did it.
bool retire(const SVRegistryPin& pin, bool othersQ) noexcept;

/// Releases what is retired and not read any more.
void tidy() noexcept;

/// Whether the records of two tables of one signal stand in the same slots, as far as both have
/// them: whether one has become the other without a rebuild.
bool sameSlotsQ(SVSignalHandlerTable* one, SVSignalHandlerTable* other) noexcept;

/// Does what this thread was interrupted in, as far as there is memory for it.
void completeInterrupted() noexcept;

/// Makes sure that a signal has a table.
/// Errors: SVException "Unable to allocate new table", of the given line, kind 5, code 0; those of
///   the outer table's insert(). Guarantee: strong.
void addTable(int signalNumber, unsigned int line);

/// Stores a record, under its function's address, in the table of its signal, which is made if
/// there is none; a record that is there already is replaced, or kept, as told.
/// Errors: SVException "Unable to allocate new table", of the given line, kind 5, code 0; those of
///   the tables' insert(). Guarantee: strong.
void storeRecord(const SVSignalHandler& record, bool replace, unsigned int line);

/// Removes the record of a function from the table of a signal; does nothing if there is none.
/// Errors: SVException "Unable to allocate new table", of the given line, kind 5, code 0, when
///   there is no memory for a copy and others may be reading. Guarantee: strong.
void removeRecord(int signalNumber, void* function, unsigned int line);

}  // namespace SVRegistry

}  // namespace Sorvane

#endif
