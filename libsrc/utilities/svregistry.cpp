#include "svregistry.h"

#include <memory>

#include "../support/svmemoryrefusal.h"
#include "../support/svsignalsheldback.h"
#include "../support/svwait.h"
#include "svmanagerfailure.h"

namespace Sorvane {

namespace {

using Version = SVRegistryVersion;

std::atomic<bool> changingInPlace{false};

// --- Changes -----------------------------------------------------------------------------

// One change to the table of one signal. It may be applied several times, to one copy after
// another, until one of them is published. While it is under way it stands on its thread's list,
// where a handler that changes something finds it and does it first.
class Change {
public:
    Change(int signalNumber, unsigned int line) noexcept
        : m_signalNumber(signalNumber), m_line(line) {}
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

    // Puts a change on its thread's list for the length of a scope.
    class UnderWay {
    public:
        explicit UnderWay(Change& change) noexcept {
            change.m_interrupted = innermost;
            // A handler that finds the change on the list finds it whole.
            std::atomic_signal_fence(std::memory_order_release);
            innermost = &change;
        }
        UnderWay(const UnderWay&) = delete;
        UnderWay& operator=(const UnderWay&) = delete;
        ~UnderWay() { innermost = innermost->m_interrupted; }
    };

    // The changes of this thread: the one that nothing has interrupted, and from each the one that
    // it interrupted.
    static Change* current() noexcept { return innermost; }
    Change* interrupted() const noexcept { return m_interrupted; }

    int signalNumber() const noexcept { return m_signalNumber; }

    // Whether a published version has, or had, the change.
    bool doneQ() const noexcept {
        if (m_done.load()) {
            return true;
        }
        for (const Change* later = innermost; later != this; later = later->m_interrupted) {
            if (later->m_helps && later->candidatePublishedQ()) {
                return true;
            }
        }
        return candidatePublishedQ();
    }
    void setDone() noexcept { m_done.store(true); }

    // Whether its copies are also to have the changes that it interrupted.
    bool helpsQ() const noexcept { return m_helps; }
    void dontHelp() noexcept { m_helps = false; }

    // The version that has the change, and those that it helps, as soon as it is published. Once
    // it is, they are done for good, and the candidate need not be asked any more.
    void setCandidate(const Version& candidate) noexcept { m_candidate.store(&candidate); }
    void settle(bool published) noexcept {
        if (published) {
            setDone();
            for (Change* earlier = m_interrupted; m_helps && earlier != nullptr;
                 earlier = earlier->m_interrupted) {
                earlier->setDone();
            }
        }
        m_candidate.store(nullptr);
    }

    // Whether there is anything to change, and the change itself, with the strong guarantee.
    virtual bool neededQ(const Version& version) const = 0;
    virtual void applyTo(Version& version) const = 0;
    // What to do when there is no registry at all.
    virtual void withoutRegistry() const { throw noMemory(); }

    SVException noMemory() const noexcept {
        return managerFailure("Unable to allocate new table", m_line, svexceptionAllocationFailed,
                              0);
    }

protected:
    ~Change() = default;

    SVSignalHandlerTable& tableIn(Version& version) const {
        SVSignalHandlerTable* const present = version.tableOf(m_signalNumber);
        if (present != nullptr) {
            return *present;
        }
        std::unique_ptr<SVSharedTable> made(new SVSharedTable);
        if (made == nullptr) {
            throw noMemory();
        }
        version.insert(signalKey(m_signalNumber), made.get());
        return *made.release();
    }

private:
    bool candidatePublishedQ() const noexcept {
        const Version* const candidate = m_candidate.load();
        return candidate != nullptr && candidate->everPublishedQ();
    }

    // Volatile, because handlers on the same thread put their own changes there.
    static constinit thread_local Change* volatile innermost
        __attribute__((tls_model("initial-exec")));

    const int m_signalNumber;
    const unsigned int m_line;
    Change* m_interrupted = nullptr;
    bool m_helps = true;
    std::atomic<const Version*> m_candidate{nullptr};
    std::atomic<bool> m_done{false};
};

constinit thread_local Change* volatile Change::innermost = nullptr;

class TableAddition final : public Change {
public:
    using Change::Change;
    bool neededQ(const Version& version) const override {
        return version.tableOf(signalNumber()) == nullptr;
    }
    void applyTo(Version& version) const override { tableIn(version); }
};

class RecordStorage final : public Change {
public:
    RecordStorage(const SVSignalHandler& record, bool replace, unsigned int line)
        : Change(record.getSignalNumber(), line), m_record(record), m_replace(replace) {}
    bool neededQ(const Version& version) const override {
        const SVSignalHandlerTable* const table = version.tableOf(signalNumber());
        return m_replace || table == nullptr || !table->has_key(m_record.getHandlerFunction());
    }
    void applyTo(Version& version) const override {
        SVSignalHandlerTable& table = tableIn(version);
        const unsigned int fill = table.fill;
        const unsigned int mask = table.mask;
        table.insert(m_record.getHandlerFunction(), m_record);
        // A rebuild leaves deleted slots behind, or changes the size, or both.
        SVSharedTable* const shared = SVSharedTable::from(&table);
        if (shared != nullptr && (table.mask != mask || table.fill < fill)) {
            shared->layout = SVSharedTable::newLayout();
        }
    }

private:
    const SVSignalHandler& m_record;
    const bool m_replace;
};

class RecordRemoval final : public Change {
public:
    RecordRemoval(int signalNumber, void* function, unsigned int line)
        : Change(signalNumber, line), m_function(function) {}
    bool neededQ(const Version& version) const override {
        const SVSignalHandlerTable* const table = version.tableOf(signalNumber());
        return table != nullptr && table->has_key(m_function);
    }
    void applyTo(Version& version) const override {
        version.tableOf(signalNumber())->remove(m_function);
    }
    void withoutRegistry() const override {}

private:
    void* const m_function;
};

// Does something for a change and for every one that it interrupted and that is not done, the
// earliest first.
template <typename Action>
void forEachPending(Change* change, Action action) {
    if (change != nullptr) {
        forEachPending(change->interrupted(), action);
        if (!change->doneQ()) {
            action(*change);
        }
    }
}

bool interruptedOneQ(const Change& change) noexcept {
    bool any = false;
    forEachPending(change.interrupted(), [&any](const Change&) { any = true; });
    return any;
}

// Nothing but what it interrupted.
class Completion final : public Change {
public:
    Completion() noexcept : Change(0, 0) {}
    bool neededQ(const Version&) const override { return interruptedOneQ(*this); }
    void applyTo(Version&) const override {}
    void withoutRegistry() const override {}
};

// --- Copies ------------------------------------------------------------------------------

// A copy of a version, with an inner table of its own for each change that it is to have. It is
// held until the end of its scope, published or not.
class Draft {
public:
    Draft(Version& base, Change& change)
        : m_base(base), m_change(change), m_version(Version::make()) {
        if (m_version != nullptr) {
            m_version->pin();
            m_complete = m_version->copyFrom(base);
            forEachChange([this](const Change& wanted) {
                m_complete = m_complete && m_version->copyTableOf(wanted.signalNumber());
            });
        }
    }
    Draft(const Draft&) = delete;
    Draft& operator=(const Draft&) = delete;
    ~Draft() {
        if (m_version != nullptr) {
            m_version->unpin();
            if (!m_published) {
                m_version->discard();
            }
        }
    }

    bool completeQ() const { return m_complete; }
    Version& version() const { return *m_version; }

    // Makes the changes. False when a change that was interrupted can't be made: it is left to be
    // tried again, and to fail, where it was begun.
    bool applyChanges() {
        try {
            if (m_change.helpsQ()) {
                forEachPending(m_change.interrupted(), [this](const Change& wanted) {
                    if (wanted.neededQ(*m_version)) {
                        wanted.applyTo(*m_version);
                    }
                });
            }
        } catch (const SVException&) {
            return false;
        }
        if (m_change.neededQ(*m_version)) {
            m_change.applyTo(*m_version);
        }
        return true;
    }

    // Swaps the copy in, with its changes made. False: something else is published by now.
    bool publish() {
        m_change.setCandidate(*m_version);
        const bool published = publishAsItIs();
        m_change.settle(published);
        if (published) {
            m_base.retire();
        }
        return published;
    }

    // The same without its changes, as a stand-in; the base is not retired.
    bool publishAsItIs() {
        m_published = m_base.replaceBy(m_version);
        return m_published;
    }

private:
    // The change itself also if a handler has done it meanwhile: it is then made in vain, but not
    // in a table that others read.
    template <typename Action>
    void forEachChange(Action action) {
        if (m_change.helpsQ()) {
            forEachPending(m_change.interrupted(), action);
        }
        action(m_change);
    }

    Version& m_base;
    Change& m_change;
    Version* const m_version;
    bool m_complete = false;
    bool m_published = false;
};

// Changes a copy of a version and publishes that. False: start over.
bool changeCopy(Version& base, Change& change) {
    Draft draft(base, change);
    if (!draft.completeQ()) {
        throw change.noMemory();
    }
    if (!draft.applyChanges()) {
        change.dontHelp();
        return false;
    }
    return draft.publish();
}

// --- In place ----------------------------------------------------------------------------

// The right to change in place, which one change at a time has. Nobody waits for it.
class InPlaceRight {
public:
    // Acquire and release pair: the holder comes after all that the former one did.
    InPlaceRight() noexcept : m_held(!changingInPlace.exchange(true, std::memory_order_acquire)) {}
    InPlaceRight(const InPlaceRight&) = delete;
    InPlaceRight& operator=(const InPlaceRight&) = delete;
    ~InPlaceRight() {
        if (m_held) {
            changingInPlace.store(false, std::memory_order_release);
        }
    }
    bool heldQ() const noexcept { return m_held; }

private:
    const bool m_held;
};

// A version that is out of sight while a copy stands in for it, and is published again at the end
// of the scope at the latest, whether its change was made or failed and left it as it was. The
// copy is held meanwhile, so that it can't be reclaimed and come back as another version.
class OutOfSight {
public:
    OutOfSight(Version& version, Version& standIn, Change& change)
        : m_version(version), m_standIn(standIn), m_change(change) {
        m_version.setUnpublished();
        m_change.setCandidate(m_version);
    }
    OutOfSight(const OutOfSight&) = delete;
    OutOfSight& operator=(const OutOfSight&) = delete;
    ~OutOfSight() {
        if (!m_over) {
            m_change.settle(false);
            end(m_standIn.replaceBy(&m_version));
        }
    }

    // With its change made. False: others have gone on from the copy.
    bool publishChanged() noexcept {
        m_over = true;
        const bool published = m_standIn.replaceBy(&m_version);
        m_change.settle(published);
        end(published);
        return published;
    }

private:
    void end(bool published) noexcept {
        if (published) {
            m_standIn.retire();
        } else {
            m_version.discard();
        }
    }

    Version& m_version;
    Version& m_standIn;
    Change& m_change;
    bool m_over = false;
};

// Whether nobody else reads a version, and no other version has the table that is to be changed.
bool soleOwnerQ(const Version& version, const Change& change) noexcept {
    const SVSharedTable* const table = SVSharedTable::from(version.tableOf(change.signalNumber()));
    return version.pins() == 1 &&
           (table == nullptr || table->versions.load(std::memory_order_acquire) == 1);
}

// A version that is out of sight without a stand-in, for the length of a scope.
class Closed {
public:
    explicit Closed(Version& version) noexcept
        : m_version(version), m_closed(version.replaceBy(Version::closed())) {}
    Closed(const Closed&) = delete;
    Closed& operator=(const Closed&) = delete;
    ~Closed() {
        if (m_closed) {
            m_version.publishInsteadOf(Version::closed());
        }
    }
    bool closedQ() const noexcept { return m_closed; }

private:
    Version& m_version;
    const bool m_closed;
};

// Changes a version for which there is no memory for a copy. False: start over.
bool changeWithoutCopy(Version& base, Change& change) {
    const SVSignalsHeldBack signalsHeldBack;
    const SVMemoryRefusal refusal;
    const Closed closed(base);
    if (!closed.closedQ()) {
        return false;
    }
    if (base.pins() != 1) {
        throw change.noMemory();
    }
    change.applyTo(base);
    change.setDone();
    return true;
}

// Changes a version that nobody else reads, out of sight. False: start over.
bool changeInPlace(Version& base, Change& change) {
    Draft standIn(base, change);
    if (!standIn.completeQ()) {
        return changeWithoutCopy(base, change);
    }
    if (!standIn.publishAsItIs()) {
        return false;
    }
    if (base.pins() != 1) {
        base.retire();
        return false;
    }
    OutOfSight outOfSight(base, standIn.version(), change);
    change.applyTo(base);
    return outOfSight.publishChanged();
}

// --- Carrying out ------------------------------------------------------------------------

void changeOnce(Version& base, Change& change) {
    Version::reclaimUnread();
    const InPlaceRight right;
    if (right.heldQ() && !interruptedOneQ(change) && soleOwnerQ(base, change)) {
        changeInPlace(base, change);
    } else {
        changeCopy(base, change);
    }
}

void attempt(Change& change) {
    const SVRegistryPin pin;
    Version* const base = pin.version();
    // Asked under the pin: see "Why nothing is done twice".
    if (change.doneQ()) {
        return;
    }
    if (base == nullptr) {
        change.withoutRegistry();
        change.setDone();
    } else if (!change.neededQ(*base)) {
        change.setDone();
    } else {
        changeOnce(*base, change);
    }
}

void carryOut(Change& change) {
    {
        const Change::UnderWay underWay(change);
        while (!change.doneQ()) {
            try {
                attempt(change);
            } catch (const SVException&) {
                // A handler may have found the memory that there was none of before.
                if (!change.doneQ()) {
                    throw;
                }
            }
        }
    }
    Version::reclaimUnread();
}

// Null without memory.
Version* emptyRegistry() noexcept {
    Version* const version = Version::make();
    if (version != nullptr) {
        version->beginRegistry();
    }
    return version;
}

}  // namespace

SVRegistryVersion* SVRegistryPin::pinned() noexcept {
    for (;;) {
        Version* const version = Version::published();
        if (version == nullptr) {
            return version;
        }
        if (version == Version::closed()) {
            waitALittle();
            continue;
        }
        version->pin();
        if (version->publishedQ()) {
            return version;
        }
        version->unpin();
    }
}

bool SVRegistry::create() noexcept {
    if (Version::published() != nullptr) {
        return false;
    }
    Version* const version = emptyRegistry();
    if (version == nullptr) {
        return false;
    }
    if (!version->publishInsteadOf(nullptr)) {
        version->discard();
        return false;
    }
    return true;
}

bool SVRegistry::retire(const SVRegistryPin& pin, bool othersQ) noexcept {
    Version* const version = pin.version();
    if (version == nullptr) {
        return false;
    }
    Version* const successor = othersQ ? emptyRegistry() : nullptr;
    while (!version->replaceBy(successor)) {
        // If this version is published again by now, only the attempt came too early.
        const Version* const published = Version::published();
        if (published != version && published != Version::closed()) {
            if (successor != nullptr) {
                successor->discard();
            }
            return false;
        }
        waitALittle();
    }
    version->retireAsLastOne();
    return true;
}

void SVRegistry::tidy() noexcept {
    Version::reclaimUnread();
}

bool SVRegistry::sameSlotsQ(SVSignalHandlerTable* one, SVSignalHandlerTable* other) noexcept {
    const SVSharedTable* const shared = SVSharedTable::from(one);
    const SVSharedTable* const otherShared = SVSharedTable::from(other);
    return one == other ||
           (shared != nullptr && otherShared != nullptr && shared->layout == otherShared->layout);
}

void SVRegistry::completeInterrupted() noexcept {
    try {
        Completion completion;
        carryOut(completion);
    } catch (const SVException&) {
        // Each is tried again, and fails, where it was begun.
    }
}

void SVRegistry::addTable(int signalNumber, unsigned int line) {
    TableAddition change(signalNumber, line);
    carryOut(change);
}

void SVRegistry::storeRecord(const SVSignalHandler& record, bool replace, unsigned int line) {
    RecordStorage change(record, replace, line);
    carryOut(change);
}

void SVRegistry::removeRecord(int signalNumber, void* function, unsigned int line) {
    RecordRemoval change(signalNumber, function, line);
    carryOut(change);
}

}  // namespace Sorvane
