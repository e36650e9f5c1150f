#include "svregistry.h"

#include <pthread.h>

#include <csignal>
#include <memory>
#include <typeinfo>

#include "svmanagerfailure.h"

namespace Sorvane {

SVRegistryVersion::~SVRegistryVersion() noexcept {
    state.store(gone, std::memory_order_release);
}

void SVRegistryVersion::operator delete(void*) noexcept {}

namespace {

using Version = SVRegistryVersion;

static_assert(SVAtomicRef<SVSignalTable*>::is_always_lock_free);
static_assert(std::atomic<unsigned int>::is_always_lock_free);
static_assert(std::atomic<bool>::is_always_lock_free);

std::atomic<Version*> newestVersion{nullptr};
std::atomic<bool> changingInPlace{false};

// --- The published version ---------------------------------------------------------------

Version* published() noexcept {
    const SVAtomicRef<SVSignalTable*> tables(SVSignalHandlerManager::handlerTables);
    return static_cast<Version*>(tables.load(std::memory_order_seq_cst));
}

bool publish(Version* expected, Version* wanted) noexcept {
    const SVAtomicRef<SVSignalTable*> tables(SVSignalHandlerManager::handlerTables);
    SVSignalTable* current = expected;
    return tables.compare_exchange_strong(current, wanted, std::memory_order_seq_cst);
}

void markRetired(Version& version) noexcept {
    version.state.store(Version::retired, std::memory_order_release);
}

// --- Versions as storage -----------------------------------------------------------------

Version* recycledVersion() noexcept {
    for (Version* version = newestVersion.load(std::memory_order_acquire); version != nullptr;
         version = version->nextMade) {
        Version::State state = Version::free;
        // Acquire pairs with the release in emptied(): the table is empty again.
        if (version->state.compare_exchange_strong(state, Version::inUse, std::memory_order_acquire,
                                                   std::memory_order_relaxed)) {
            return version;
        }
    }
    return nullptr;
}

Version* anyVersion() noexcept {
    if (Version* const version = recycledVersion()) {
        return version;
    }
    Version* const version = new Version;
    if (version != nullptr) {
        version->nextMade = newestVersion.load(std::memory_order_relaxed);
        while (!newestVersion.compare_exchange_weak(
            version->nextMade, version, std::memory_order_release, std::memory_order_relaxed)) {
        }
    }
    return version;
}

// Makes a version an empty table again, without the inner tables, and free to be used.
void emptied(Version& version) noexcept {
    if (version.table != version.smalltable) {
        delete[] version.table;
        version.table = version.smalltable;
        version.mask = sizeof(version.smalltable) / sizeof(version.smalltable[0]) - 2;
    }
    for (auto& slot : version.smalltable) {
        slot.state = svslotEmpty;
    }
    version.used = 0;
    version.fill = 0;
    version.lastOne = false;
    version.state.store(Version::free, std::memory_order_release);
}

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

// --- Inner tables ------------------------------------------------------------------------

// An inner table, and how many versions have it.
class SharedTable final : public SVSignalHandlerTable {
public:
    SharedTable() noexcept = default;
    ~SharedTable() noexcept override {}

    std::atomic<unsigned int> versions{1};
};

// Whoever puts a table into the outer one by hand, past the manager, has put in a plain one.
SharedTable* sharedTable(SVSignalHandlerTable* table) noexcept {
    const bool shared = table != nullptr && typeid(*table) == typeid(SharedTable);
    return shared ? static_cast<SharedTable*>(table) : nullptr;
}

void share(SVSignalHandlerTable* table) noexcept {
    if (SharedTable* const shared = sharedTable(table)) {
        // Whoever shares a table has it in a version that is pinned, so it can't go meanwhile.
        shared->versions.fetch_add(1, std::memory_order_relaxed);
    }
}

// Acquire and release: whoever deletes the table comes after all that was done with it.
void letGo(SVSignalHandlerTable* table) noexcept {
    SharedTable* const shared = sharedTable(table);
    if (shared != nullptr && shared->versions.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete shared;
    }
}

// The last version of a registry owns what was put into it by hand, too.
void letGoOrDelete(SVSignalHandlerTable* table) noexcept {
    if (sharedTable(table) != nullptr) {
        letGo(table);
    } else {
        delete table;
    }
}

template <typename Action>
void forEachTable(const Version& version, Action action) {
    for (unsigned int i = 0; i <= version.mask; ++i) {
        if (version.table[i].state == svslotOccupied) {
            action(version.table[i].value);
        }
    }
}

// --- Changes -----------------------------------------------------------------------------

// One change to the table of one signal. It may be applied several times, to one version after
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

    // Whether the version last tried has the change, and whether one that is published has.
    void setApplied(bool applied) noexcept { m_applied = applied; }
    void setDoneIfApplied() noexcept { m_done = m_done || m_applied; }
    void setDone() noexcept { m_done = true; }
    bool doneQ() const noexcept { return m_done; }

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
        std::unique_ptr<SharedTable> made(new SharedTable);
        if (made == nullptr) {
            throw noMemory();
        }
        version.insert(signalKey(m_signalNumber), made.get());
        return *made.release();
    }

private:
    // Volatile, like the flags below, because handlers on the same thread read and set them.
    static constinit thread_local Change* volatile innermost
        __attribute__((tls_model("initial-exec")));

    const int m_signalNumber;
    const unsigned int m_line;
    Change* m_interrupted = nullptr;
    volatile bool m_applied = false;
    volatile bool m_done = false;
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
        tableIn(version).insert(m_record.getHandlerFunction(), m_record);
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

// Does something for every change of this thread that is not done, the outermost one first.
template <typename Action>
void forEachPending(Change* change, Action action) {
    if (change != nullptr) {
        forEachPending(change->interrupted(), action);
        if (!change->doneQ()) {
            action(*change);
        }
    }
}

// Lets a version's inner tables go and makes it free to be used again. Only for whoever has the
// version to himself.
void discard(Version& version) noexcept {
    forEachTable(version, letGo);
    emptied(version);
}

// A copy of a version that nobody has seen yet. Of the signals to be changed it has inner tables
// of its own.
class Draft {
public:
    explicit Draft(const Version& base) : m_base(base), m_version(anyVersion()) {
        if (m_version == nullptr) {
            return;
        }
        m_complete = copyTable<SVSignalTable>(base, *m_version);
        forEachTable(*m_version, share);
        forEachPending(Change::current(), [this](const Change& change) {
            m_complete = m_complete && copyInnerTable(change.signalNumber());
        });
    }
    Draft(const Draft&) = delete;
    Draft& operator=(const Draft&) = delete;
    ~Draft() {
        if (m_version != nullptr) {
            discard(*m_version);
        }
    }

    bool completeQ() const { return m_complete; }
    Version& version() const { return *m_version; }

    // Swaps the draft in; false, and the draft stays one, when something else is published by now.
    bool publishInsteadOf(Version& base) {
        if (!publish(&base, m_version)) {
            return false;
        }
        m_version = nullptr;
        return true;
    }

private:
    bool copyInnerTable(int signalNumber) {
        SVSignalHandlerTable* const shared = m_base.tableOf(signalNumber);
        if (shared == nullptr || m_version->tableOf(signalNumber) != shared) {
            return true;
        }
        std::unique_ptr<SharedTable> copy(new SharedTable);
        if (copy == nullptr || !copyTable<SVSignalHandlerTable>(*shared, *copy)) {
            return false;
        }
        m_version->get(signalKey(signalNumber))->value = copy.release();
        letGo(shared);
        return true;
    }

    const Version& m_base;
    Version* m_version;
    bool m_complete = false;
};

// --- Reclaiming --------------------------------------------------------------------------

// Any number of threads may be at it: each version is reclaimed by the one who takes it out of its
// retired state. The pins are read again after that, because the version may have been reclaimed,
// used and retired once more since they were read first.
void reclaimIfUnread(Version& version) noexcept {
    if (version.state.load(std::memory_order_relaxed) != Version::retired ||
        version.pins.load(std::memory_order_relaxed) != 0) {
        return;
    }
    Version::State state = Version::retired;
    if (!version.state.compare_exchange_strong(state, Version::inUse, std::memory_order_acquire,
                                               std::memory_order_relaxed)) {
        return;
    }
    if (version.pins.load(std::memory_order_seq_cst) == 0) {
        if (version.lastOne) {
            forEachTable(version, letGoOrDelete);
            emptied(version);
        } else {
            discard(version);
        }
    } else {
        markRetired(version);
    }
}

// --- The two ways of changing ------------------------------------------------------------

// Holds back what can be held back from this thread: not the faults, which are the code's own.
class SignalsHeldBack {
public:
    SignalsHeldBack() noexcept {
        sigset_t signals;
        sigfillset(&signals);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
            sigdelset(&signals, fault);
        }
        pthread_sigmask(SIG_BLOCK, &signals, &m_before);
    }
    SignalsHeldBack(const SignalsHeldBack&) = delete;
    SignalsHeldBack& operator=(const SignalsHeldBack&) = delete;
    ~SignalsHeldBack() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

private:
    sigset_t m_before;
};

// Does all changes of this thread that are not done. One that was interrupted and can't be done is
// left to be tried again, and to fail, where it was begun.
void applyPending(Version& version) {
    Change* const own = Change::current();
    forEachPending(own->interrupted(), [&version](Change& change) {
        change.setApplied(false);
        try {
            if (change.neededQ(version)) {
                change.applyTo(version);
            }
            change.setApplied(true);
        } catch (const SVException&) {
        }
    });
    own->applyTo(version);
    own->setApplied(true);
}

void setAppliedDone() noexcept {
    forEachPending(Change::current(), [](Change& change) { change.setDoneIfApplied(); });
}

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
// copy is pinned meanwhile, so that it can't be reclaimed and come back as another version.
class OutOfSight {
public:
    OutOfSight(Version& version, Version& standIn) : m_version(version), m_standIn(standIn) {}
    OutOfSight(const OutOfSight&) = delete;
    OutOfSight& operator=(const OutOfSight&) = delete;
    ~OutOfSight() {
        if (!m_over) {
            publishAgain();
        }
    }

    // False: others have gone on from the copy, and this version is no longer wanted.
    bool publishAgain() noexcept {
        m_over = true;
        if (publish(&m_standIn, &m_version)) {
            markRetired(m_standIn);
            return true;
        }
        discard(m_version);
        return false;
    }

private:
    Version& m_version;
    Version& m_standIn;
    bool m_over = false;
};

// Keeps a version from being reclaimed for the length of a scope; see SVRegistryPin.
class Hold {
public:
    explicit Hold(Version& version) noexcept : m_version(version) {
        m_version.pins.fetch_add(1, std::memory_order_seq_cst);
    }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    ~Hold() { m_version.pins.fetch_sub(1, std::memory_order_release); }

private:
    Version& m_version;
};

// Changes a version that nobody else reads, out of sight. False: start over.
bool changeInPlace(Version& base) {
    Draft draft(base);
    if (!draft.completeQ()) {
        // No memory for a copy: a change that needs none of its own must be possible even so.
        const SignalsHeldBack signalsHeldBack;
        applyPending(base);
        return true;
    }
    Version& standIn = draft.version();
    const Hold hold(standIn);
    if (!draft.publishInsteadOf(base)) {
        return false;
    }
    if (base.pins.load(std::memory_order_seq_cst) != 1) {
        markRetired(base);
        return false;
    }
    OutOfSight outOfSight(base, standIn);
    applyPending(base);
    return outOfSight.publishAgain();
}

// Changes a copy of a version and publishes that. False: start over.
bool changeCopy(Version& base) {
    Draft draft(base);
    if (!draft.completeQ()) {
        throw Change::current()->noMemory();
    }
    applyPending(draft.version());
    if (!draft.publishInsteadOf(base)) {
        return false;
    }
    markRetired(base);
    return true;
}

// Whether nobody else reads a version, and no other version has a table that is to be changed.
bool soleOwnerQ(const Version& version) noexcept {
    bool sole = version.pins.load(std::memory_order_seq_cst) == 1;
    forEachPending(Change::current(), [&](const Change& change) {
        const SharedTable* const table = sharedTable(version.tableOf(change.signalNumber()));
        sole = sole && (table == nullptr || table->versions.load(std::memory_order_acquire) == 1);
    });
    return sole;
}

bool changeOnce(Version& base) {
    SVRegistry::tidy();
    const InPlaceRight right;
    return right.heldQ() && soleOwnerQ(base) ? changeInPlace(base) : changeCopy(base);
}

void attempt(Change& change) {
    const SVRegistryPin pin;
    Version* const base = pin.version();
    // Asked under the pin: a handler that did the change before, did it in this version, where
    // doing it again may store a record twice; one that does it from here on keeps this attempt
    // from being published.
    if (change.doneQ()) {
        return;
    }
    if (base == nullptr) {
        change.withoutRegistry();
        change.setDone();
    } else if (!change.neededQ(*base)) {
        change.setDone();
    } else if (changeOnce(*base)) {
        setAppliedDone();
    }
}

void carryOut(Change& change) {
    {
        const Change::UnderWay underWay(change);
        while (!change.doneQ()) {
            attempt(change);
        }
    }
    SVRegistry::tidy();
}

}  // namespace

SVRegistryPin::SVRegistryPin() noexcept
    : m_version([] {
          for (;;) {
              Version* const version = published();
              if (version == nullptr) {
                  return version;
              }
              version->pins.fetch_add(1, std::memory_order_seq_cst);
              if (published() == version) {
                  return version;
              }
              version->pins.fetch_sub(1, std::memory_order_release);
          }
      }()) {}

SVRegistryPin::~SVRegistryPin() {
    if (m_version != nullptr) {
        m_version->pins.fetch_sub(1, std::memory_order_release);
    }
}

bool SVRegistry::create() noexcept {
    if (published() != nullptr) {
        return false;
    }
    Version* const version = anyVersion();
    if (version == nullptr) {
        return false;
    }
    if (!publish(nullptr, version)) {
        emptied(*version);
        return false;
    }
    return true;
}

bool SVRegistry::retire(const SVRegistryPin& pin) noexcept {
    if (pin.version() == nullptr || !publish(pin.version(), nullptr)) {
        return false;
    }
    pin.version()->lastOne = true;
    markRetired(*pin.version());
    return true;
}

void SVRegistry::tidy() noexcept {
    for (Version* version = newestVersion.load(std::memory_order_acquire); version != nullptr;
         version = version->nextMade) {
        reclaimIfUnread(*version);
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
