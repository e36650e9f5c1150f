#include "svlifecycle.h"

#include <atomic>
#include <cstdint>

#include "../support/svatomicref.h"
#include "svsignalhandlermanager.h"

namespace Sorvane {

namespace {

// The word: the number of managers in its lower half; two flags and the generation in its upper
// half, which is what a teardown is called by. The generation is odd during a teardown.
using Word = std::uint64_t;
constexpr unsigned int upperHalf = 32;
constexpr Word manager = 1;
constexpr Word handlingFlag = Word{1} << upperHalf;
constexpr Word teardownFlag = Word{2} << upperHalf;
constexpr Word generation = Word{4} << upperHalf;

constinit std::atomic<Word> word{0};

constinit std::atomic<unsigned int> stops{0};

// By its address, because on i386 not every object of this size is aligned as this one.
static_assert(__atomic_always_lock_free(sizeof(word), &word));
static_assert(SVAtomicRef<unsigned int>::is_always_lock_free);
static_assert(SVAtomicRef<bool>::is_always_lock_free);

unsigned int managersIn(Word current) noexcept {
    return static_cast<unsigned int>(current);
}

SVLifecycle::Teardown teardownIn(Word current) noexcept {
    return static_cast<SVLifecycle::Teardown>(current >> upperHalf);
}

// Numbers the teardowns: 1, 2, 3 ...
unsigned int ordinal(SVLifecycle::Teardown teardown) noexcept {
    return teardown / 8 + 1;
}

// A copy that was overtaken by a change of the word is made again, by whoever finds that out.
[[gnu::noinline]] void copyOut(Word current) noexcept {
    const SVAtomicRef<unsigned int> managers(SVSignalHandlerManager::numberOfManagers);
    const SVAtomicRef<bool> handling(SVSignalHandlerManager::currentlyHandlingSignals);
    for (;;) {
        handling.store((current & handlingFlag) != 0);
        managers.store(managersIn(current));
        const Word now = word.load();
        if (now == current) {
            return;
        }
        current = now;
    }
}

// The same when only the number of managers has changed.
inline void copyManagersOut(Word current) noexcept {
    SVAtomicRef<unsigned int>(SVSignalHandlerManager::numberOfManagers).store(managersIn(current));
    const Word now = word.load();
    if (now != current) {
        copyOut(now);
    }
}

// Ends a teardown, unless it has been ended.
void end(SVLifecycle::Teardown teardown, Word flags) noexcept {
    Word current = word.load();
    while (teardownIn(current) == teardown &&
           !word.compare_exchange_weak(current, ((current + generation) & ~teardownFlag) | flags)) {
    }
    // Whoever began the teardown may have been interrupted before he copied what it begins with.
    copyOut(word.load());
}

}  // namespace

unsigned int SVLifecycle::managerCount() noexcept {
    return managersIn(word.load());
}

bool SVLifecycle::handlingQ() noexcept {
    return (word.load() & handlingFlag) != 0;
}

unsigned int SVLifecycle::timesStopped() noexcept {
    return stops.load();
}

void SVLifecycle::setHandling(bool handling) noexcept {
    if (handling) {
        word.fetch_or(handlingFlag);
    } else {
        word.fetch_and(~handlingFlag);
        stops.fetch_add(1);
    }
    copyOut(word.load());
}

// Does not stop a teardown: the new manager finds the state after it when it changes something.
void SVLifecycle::managerMade() noexcept {
    copyManagersOut(word.fetch_add(manager) + manager);
}

SVLifecycle::Teardown SVLifecycle::managerGone() noexcept {
    Word before = word.load();
    for (;;) {
        if (managersIn(before) == 1 && (before & (handlingFlag | teardownFlag)) == handlingFlag) {
            const Word after = ((before - manager + generation) & ~handlingFlag) | teardownFlag;
            if (word.compare_exchange_weak(before, after)) {
                copyOut(after);
                return teardownIn(after);
            }
        } else if (word.compare_exchange_weak(before, before - manager)) {
            copyManagersOut(before - manager);
            return 0;
        }
    }
}

SVLifecycle::Teardown SVLifecycle::currentTeardown() noexcept {
    const Word current = word.load();
    return (current & teardownFlag) != 0 ? teardownIn(current) : 0;
}

// The answers are read before asking, so that whoever is overtaken after that changes nothing.
void SVLifecycle::resetDispositions(Teardown teardown) noexcept {
    SVSignalHandlerDispositionSet& dispositions = SVSignalHandlerManager::signalDispositionSet;
    const SVSignalHandlerDispositionSet seen(dispositions);
    if (currentTeardown() == teardown) {
        dispositions.resetOnce(seen, ordinal(teardown));
    }
}

void SVLifecycle::resetDispositionsIfTornDown() noexcept {
    if (const Teardown teardown = currentTeardown()) {
        resetDispositions(teardown);
    }
}

void SVLifecycle::teardownComplete(Teardown teardown) noexcept {
    end(teardown, 0);
}

void SVLifecycle::teardownFailed(Teardown teardown) noexcept {
    end(teardown, handlingFlag);
}

}  // namespace Sorvane
