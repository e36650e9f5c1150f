// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svsubscriptionentries.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstdint>
#include <iterator>
#include <utility>

#include "../support/svhandlercontext.h"

namespace Sorvane {

constinit thread_local unsigned int SVSubscriptionEntries::missed
    __attribute__((tls_model("initial-exec"))) = 0;

namespace {

using SVSubscriptionEntries::count;

// All but the handler is set before it, and stays until no call is inside.
struct Slot {
    std::atomic<SVSubscriber::Function> handler{nullptr};
    std::atomic<SVSubscriber::Form> form{};
    std::atomic<void*> user{nullptr};
    std::atomic<int> signalNumber{0};
    std::atomic<bool> taken{false};
    std::atomic<bool> waitedForQ{false};
    std::atomic<unsigned int> left{0};  ///< how often a call has left while it was waited for
    std::atomic<unsigned int> withoutCell{0};  ///< calls
};
constinit Slot slots[count];

// The search for a free slot begins here.
constinit unsigned int next = 0;

static_assert(std::atomic<SVSubscriber::Function>::is_always_lock_free);
static_assert(std::atomic<SVSubscriber::Form>::is_always_lock_free);

// --- Who is inside an entry ----------------------------------------------------------------------

// A thread and an entry in one word; 0 for nobody. What tells threads apart lies at the same place
// of each thread's block, and no two of these are in one page: a thread's stack lies between.
using Call = std::uintptr_t;
constexpr unsigned int bitsOfPage = 12;
constexpr unsigned int bitsOfEntry = 8;
static_assert(count <= 1U << bitsOfEntry);
static_assert(std::atomic<Call>::is_always_lock_free);

constexpr unsigned int cellCount = 512;
alignas(64) constinit std::atomic<Call> cells[cellCount];

Call callBy(const void* thread, unsigned int entry) noexcept {
    return reinterpret_cast<Call>(thread) >> bitsOfPage << bitsOfEntry | entry;
}
unsigned int entryOf(Call call) noexcept {
    return static_cast<unsigned int>(call & ((1U << bitsOfEntry) - 1));
}
bool sameThreadQ(Call one, Call other) noexcept {
    return one >> bitsOfEntry == other >> bitsOfEntry;
}

void wake(Slot& slot) noexcept {
    slot.left.fetch_add(1);
    syscall(SYS_futex, &slot.left, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

/// One call of an entry. A handler may throw where it is not a signal that it is called for.
class Inside {
public:
    explicit Inside(unsigned int entry) noexcept
        : m_slot(slots[entry]), m_within(!take(callBy(SVHandlerContext::thisThread(), entry))) {}
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;
    ~Inside() {
        if (m_within) {
            return;
        }
        if (m_cell != nullptr) {
            m_cell->store(0);
        } else {
            m_slot.withoutCell.fetch_sub(1);
        }
        if (m_slot.waitedForQ.load()) {
            wake(m_slot);
        }
    }

private:
    // False if an outer call of this thread has a cell already.
    bool take(Call call) noexcept {
        const unsigned int first = SVHandlerContext::spread(SVHandlerContext::thisThread());
        for (unsigned int i = 0; i < cellCount; ++i) {
            std::atomic<Call>& cell = cells[(first + i) % cellCount];
            Call found = cell.load(std::memory_order_relaxed);
            if (found == call) {
                return false;
            }
            if (found == 0 && cell.compare_exchange_strong(found, call)) {
                m_cell = &cell;
                return true;
            }
        }
        m_slot.withoutCell.fetch_add(1);
        return true;
    }

    Slot& m_slot;
    std::atomic<Call>* m_cell = nullptr;
    const bool m_within;
};

template <typename Test>
bool anyCallQ(unsigned int entry, Test test) noexcept {
    return std::any_of(std::begin(cells), std::end(cells), [&](const std::atomic<Call>& cell) {
        const Call call = cell.load();
        return call != 0 && entryOf(call) == entry && test(call);
    });
}

bool insideQ(unsigned int entry) noexcept {
    return slots[entry].withoutCell.load() != 0 || anyCallQ(entry, [](Call) { return true; });
}

bool othersInsideQ(unsigned int entry) noexcept {
    const Call own = callBy(SVHandlerContext::thisThread(), entry);
    return anyCallQ(entry, [own](Call call) { return call != own; }) ||
           (slots[entry].withoutCell.load() != 0 && !SVHandlerContext::insideQ());
}

// --- The entries ---------------------------------------------------------------------------------

[[gnu::noinline]] void callThrough(int signalNumber, siginfo* information, void* context,
                                   unsigned int entry) {
    const Inside inside(entry);
    const Slot& slot = slots[entry];
    const SVSubscriber::Function handler = slot.handler.load();
    if (handler == nullptr || slot.signalNumber.load(std::memory_order_relaxed) != signalNumber) {
        ++SVSubscriptionEntries::missed;
        return;
    }
    switch (slot.form.load(std::memory_order_relaxed)) {
        case SVSubscriber::Form::simple:
            reinterpret_cast<void (*)(int)>(handler)(signalNumber);
            break;
        case SVSubscriber::Form::information:
            reinterpret_cast<void (*)(int, siginfo*, void*)>(handler)(signalNumber, information,
                                                                      context);
            break;
        case SVSubscriber::Form::user:
            reinterpret_cast<void (*)(int, siginfo*, void*, void*)>(handler)(
                signalNumber, information, context, slot.user.load(std::memory_order_relaxed));
            break;
    }
}

template <unsigned int number>
void entry(int signalNumber, siginfo* information, void* context) {
    callThrough(signalNumber, information, context, number);
}

using EntryFunction = SVSignalHandler::InformationFunction;

template <unsigned int... numbers>
constexpr std::array<EntryFunction, sizeof...(numbers)> makeEntries(
    std::integer_sequence<unsigned int, numbers...>) noexcept {
    return {&entry<numbers>...};
}
constexpr auto entries = makeEntries(std::make_integer_sequence<unsigned int, count>());

}  // namespace

unsigned int SVSubscriptionEntries::begin(int signalNumber,
                                          const SVSubscriber& subscriber) noexcept {
    for (unsigned int i = 0; i < count; ++i) {
        const unsigned int number = (next + i) % count;
        Slot& slot = slots[number];
        if (!slot.taken.load() && !insideQ(number)) {
            slot.taken.store(true);
            slot.form.store(subscriber.form);
            slot.user.store(subscriber.user);
            slot.signalNumber.store(signalNumber);
            slot.handler.store(subscriber.function);
            next = number + 1;
            return number;
        }
    }
    return none;
}

void SVSubscriptionEntries::end(unsigned int entry) noexcept {
    slots[entry].handler.store(nullptr);
}

SVSignalHandler::InformationFunction SVSubscriptionEntries::functionOf(
    unsigned int entry) noexcept {
    return entries[entry];
}

bool SVSubscriptionEntries::endedQ(const SVSignalHandler& record) noexcept {
    for (unsigned int number = 0; number < count; ++number) {
        if (reinterpret_cast<void*>(entries[number]) == record.getHandlerFunction()) {
            return slots[number].handler.load() == nullptr ||
                   slots[number].signalNumber.load() != record.getSignalNumber();
        }
    }
    return false;
}

bool SVSubscriptionEntries::callsQ(int signalNumber, const SVSubscriber& subscriber) noexcept {
    return std::any_of(std::begin(slots), std::end(slots), [&](const Slot& slot) {
        return slot.handler.load() == subscriber.function && slot.user.load() == subscriber.user &&
               slot.signalNumber.load() == signalNumber;
    });
}

void SVSubscriptionEntries::waitForOthers(unsigned int entry) noexcept {
    Slot& slot = slots[entry];
    slot.waitedForQ.store(true);
    for (;;) {
        const unsigned int seen = slot.left.load();
        if (!othersInsideQ(entry)) {
            break;
        }
        syscall(SYS_futex, &slot.left, FUTEX_WAIT_PRIVATE, seen, nullptr, nullptr, 0);
    }
    slot.waitedForQ.store(false);
}

void SVSubscriptionEntries::giveBack(unsigned int entry) noexcept {
    slots[entry].taken.store(false);
}

void SVSubscriptionEntries::callAll(int signalNumber, siginfo* information, void* context) {
    for (unsigned int number = 0; number < count; ++number) {
        if (slots[number].handler.load() != nullptr &&
            slots[number].signalNumber.load() == signalNumber) {
            callThrough(signalNumber, information, context, number);
        }
    }
}

void SVSubscriptionEntries::goOnInChild() noexcept {
    const Call own = callBy(SVHandlerContext::thisThread(), 0);
    for (std::atomic<Call>& cell : cells) {
        if (!sameThreadQ(cell.load(), own)) {
            cell.store(0);
        }
    }
    if (!SVHandlerContext::insideQ()) {
        for (Slot& slot : slots) {
            slot.withoutCell.store(0);
        }
    }
}

}  // namespace Sorvane
