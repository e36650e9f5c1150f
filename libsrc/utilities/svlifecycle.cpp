#include "svlifecycle.h"

#include <atomic>

namespace Sorvane {

namespace {

// The word: two flags, and the generation above them.
constexpr unsigned int handlingFlag = 1;
constexpr unsigned int teardownFlag = 2;
constexpr unsigned int generation = 4;

std::atomic<unsigned int> word{0};

static_assert(std::atomic<unsigned int>::is_always_lock_free);
static_assert(SVAtomicRef<unsigned int>::is_always_lock_free);
static_assert(SVAtomicRef<bool>::is_always_lock_free);

// A copy that was overtaken by a change of the word is made again, by whoever finds that out.
void copyHandling() noexcept {
    const SVAtomicRef<bool> handling(SVSignalHandlerManager::currentlyHandlingSignals);
    unsigned int current = word.load();
    for (;;) {
        handling.store((current & handlingFlag) != 0);
        const unsigned int now = word.load();
        if (now == current) {
            return;
        }
        current = now;
    }
}

bool swap(unsigned int expected, unsigned int wanted) noexcept {
    return word.compare_exchange_strong(expected, wanted);
}

}  // namespace

void SVLifecycle::setHandling(bool handling) noexcept {
    if (handling) {
        word.fetch_or(handlingFlag);
    } else {
        word.fetch_and(~handlingFlag);
    }
    copyHandling();
}

// A teardown keeps its generation: a manager made meanwhile does not stop it, and finds the state
// after it when it changes something.
void SVLifecycle::managerMade() noexcept {
    if (managerCount().fetch_add(1) != 0) {
        return;
    }
    unsigned int current = word.load();
    while ((current & teardownFlag) == 0 &&
           !word.compare_exchange_weak(current, current + generation)) {
    }
}

// The word may change in between without a manager having been made: a handler may start or stop
// handling. Only another generation says that this manager was not the last one after all.
SVLifecycle::Teardown SVLifecycle::managerGone() noexcept {
    const unsigned int before = word.load();
    if (managerCount().fetch_sub(1) != 1) {
        return 0;
    }
    unsigned int current = before;
    while (handlingQ() && (current & teardownFlag) == 0 &&
           current / generation == before / generation) {
        const unsigned int after = ((current + generation) & ~handlingFlag) | teardownFlag;
        if (word.compare_exchange_weak(current, after)) {
            copyHandling();
            return after;
        }
    }
    return 0;
}

SVLifecycle::Teardown SVLifecycle::currentTeardown() noexcept {
    const unsigned int current = word.load();
    return (current & teardownFlag) != 0 ? current : 0;
}

// Whoever began the teardown may have been interrupted before he copied that nothing is handled.
void SVLifecycle::teardownComplete(Teardown teardown) noexcept {
    swap(teardown, (teardown + generation) & ~teardownFlag);
    copyHandling();
}

void SVLifecycle::teardownFailed(Teardown teardown) noexcept {
    swap(teardown, ((teardown + generation) & ~teardownFlag) | handlingFlag);
    copyHandling();
}

}  // namespace Sorvane
