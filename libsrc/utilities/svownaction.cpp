#include "svownaction.h"

#include <atomic>
#include <cstdint>
#include <cstring>

#include "../registry/svownership.h"
#include "../support/svsignalnumber.h"
#include "svsignalhandlermanager.h"

namespace Sorvane {

namespace {

constexpr int flagsOfChildren = SA_NOCLDSTOP | SA_NOCLDWAIT;
constexpr int flagsIfAnyHas = SA_NODEFER | flagsOfChildren;
constexpr int flagIfAllHave = SA_RESTART;
constexpr int markingFlag = 0x800;  // SA_EXPOSE_TAGBITS

// What is followed of an action.
struct Manner {
    std::uint64_t heldBack = 0;
    int flags = SA_RESTART;
    bool marked = false;

    friend bool operator==(const Manner&, const Manner&) = default;
};

// Without a handler only the flags that tell the system how to treat children mean anything. Who
// ignores the end of children leaves none behind either.
Manner mannerOf(int signalNumber, const struct sigaction& action) noexcept {
    Manner manner;
    if (svnobodysActionQ(action)) {
        const bool ignored = signalNumber == SIGCHLD && action.sa_handler == SIG_IGN;
        manner.flags |= (action.sa_flags & flagsOfChildren) | (ignored ? SA_NOCLDWAIT : 0);
    } else {
        std::memcpy(&manner.heldBack, &action.sa_mask, sizeof(manner.heldBack));
        manner.flags = action.sa_flags & (flagIfAllHave | flagsIfAnyHas);
    }
    return manner;
}

Manner both(const Manner& one, const Manner& other) noexcept {
    return Manner{one.heldBack | other.heldBack, (one.flags & other.flags & flagIfAllHave) |
                                                     ((one.flags | other.flags) & flagsIfAnyHas)};
}

// In words, because a dispatch may read it while it changes.
struct KeptManner {
    std::atomic<unsigned int> words[2] = {0, 0};
    std::atomic<int> flags{SA_RESTART};
    std::atomic<bool> marked{false};
    std::atomic<unsigned int> changes{0};
};
constinit KeptManner kept[highestSignal + 1];

KeptManner& keptFor(int signalNumber) noexcept {
    return kept[signalExistsQ(signalNumber) ? signalNumber : 0];
}

Manner load(int signalNumber) noexcept {
    const KeptManner& manner = keptFor(signalNumber);
    return Manner{manner.words[0].load() | std::uint64_t{manner.words[1].load()} << 32U,
                  manner.flags.load(), manner.marked.load()};
}

void store(int signalNumber, const Manner& manner) noexcept {
    KeptManner& stored = keptFor(signalNumber);
    stored.words[0].store(static_cast<unsigned int>(manner.heldBack));
    stored.words[1].store(static_cast<unsigned int>(manner.heldBack >> 32U));
    stored.flags.store(manner.flags);
    stored.marked.store(manner.marked);
    stored.changes.fetch_add(1);
}

// Of the host's handlers that are on record, but for the one that has just been asked for.
Manner mannerOnRecord(const SVSignalHandlerTable* table, const struct sigaction& asked) noexcept {
    Manner all;
    if (table != nullptr) {
        for (auto position = table->begin(); position != table->end(); position++) {
            SVSignalHandler record = position.GetValue();
            const struct sigaction action = record.getOSStruct();
            if (record.preExistsQ() && action.sa_handler != asked.sa_handler) {
                all = both(all, mannerOf(record.getSignalNumber(), action));
            }
        }
    }
    return all;
}

}  // namespace

unsigned int SVOwnAction::changes(int signalNumber) noexcept {
    return keptFor(signalNumber).changes.load();
}

struct sigaction SVOwnAction::of(int signalNumber) noexcept {
    const Manner manner = load(signalNumber);
    struct sigaction action = {};
    action.sa_sigaction = &actualSignalHandler;
    std::memcpy(&action.sa_mask, &manner.heldBack, sizeof(manner.heldBack));
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | manner.flags | (manner.marked ? markingFlag : 0);
    return action;
}

void SVOwnAction::follow(int signalNumber, const struct sigaction& hosts,
                         const SVSignalHandlerTable* table) noexcept {
    if (svownActionQ(hosts) || !signalExistsQ(signalNumber)) {
        return;
    }
    const Manner before = load(signalNumber);
    const Manner others =
        SVOwnership::librarysQ(signalNumber) ? before : mannerOnRecord(table, hosts);
    struct sigaction action = hosts;
    const bool ignoredByLibrary =
        SVOwnership::hostsActionIf(signalNumber, hosts).sa_handler != hosts.sa_handler;
    if (ignoredByLibrary) {
        action.sa_handler = SIG_DFL;
    }
    Manner now = both(mannerOf(signalNumber, action), others);
    now.marked = before.marked;
    const bool librarysFound =
        SVOwnership::librarysQ(signalNumber) || SVOwnership::displacedByHostQ(signalNumber);
    if (librarysFound && now == before) {
        now.marked = !before.marked;
    }
    if (now != before) {
        store(signalNumber, now);
    }
}

bool svownActionQ(const struct sigaction& action) noexcept {
    return action.sa_sigaction == &actualSignalHandler;
}

bool svnobodysActionQ(const struct sigaction& action) noexcept {
    return svownActionQ(action) || action.sa_handler == SIG_DFL || action.sa_handler == SIG_IGN;
}

}  // namespace Sorvane
