// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "stepped/arrivals.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <utility>

#include "stepped/other_thread.h"
#include "support/faults.h"
#include "support/system_actions.h"

namespace {

struct Arrival {
    std::size_t notBefore;
    bool judged;
    std::atomic<pid_t> sender;
    std::atomic<const void*> thread;
    std::atomic<bool> whole;
    std::atomic<unsigned int> stay;
    std::array<std::atomic<unsigned int>, observedHandlers> calls;
};

// What Arrival::stay says.
constexpr unsigned int goOn = 0;
constexpr unsigned int shallStay = 1;
constexpr unsigned int stays = 2;

constexpr std::size_t most = 1U << 14U;
std::array<Arrival, most> arrivals;
std::atomic<std::size_t> added;
std::atomic<unsigned int> strays;

// A bit for each handler.
using Set = unsigned int;
std::vector<Set> expected;
std::size_t latest = 0;
unsigned int found = 0;

// --- A fault is told from others by its thread.

constinit thread_local std::size_t faulting = most;
constinit thread_local const ClosedPage* faultyPage = nullptr;

// The same in a child that the thread forks.
const void* thisThread() noexcept {
    return &faulting;
}

// --- What the handlers do

std::size_t numberOf(const siginfo* information) noexcept {
    if (information == nullptr) {
        return most;
    }
    return information->si_code == SI_QUEUE
               ? static_cast<std::size_t>(information->si_value.sival_int)
               : faulting;
}

bool wholeQ(const Arrival& arrival, int signalNumber, const siginfo& information,
            const void* context) noexcept {
    return information.si_signo == signalNumber && context != nullptr &&
           arrival.thread == thisThread() &&
           (information.si_code != SI_QUEUE || information.si_pid == arrival.sender);
}

void stayIfTold(Arrival& arrival) noexcept {
    unsigned int told = shallStay;
    if (arrival.stay.compare_exchange_strong(told, stays)) {
        sleepWhile(arrival.stay, stays);
    }
}

void note(std::size_t handler, int signalNumber, const siginfo* information,
          const void* context) noexcept {
    const std::size_t number = numberOf(information);
    if (number >= added) {
        ++strays;
        return;
    }
    Arrival& arrival = arrivals[number];
    ++arrival.calls[handler];
    if (!wholeQ(arrival, signalNumber, *information, context)) {
        arrival.whole = false;
    }
    stayIfTold(arrival);
    if (handler == host && number == faulting) {
        faultyPage->open();
    }
}

template <std::size_t number>
void observedHandler(int signalNumber, siginfo* information, void* context) {
    note(number, signalNumber, information, context);
}

template <std::size_t... numbers>
constexpr std::array<ObservedHandler, sizeof...(numbers)> makeObserved(
    std::index_sequence<numbers...>) {
    return {&observedHandler<numbers>...};
}

void beginHere(std::size_t number) noexcept {
    arrivals[number].thread = thisThread();
    arrivals[number].sender = getpid();
}

// What comes with a signal that begins to arrive on this thread.
siginfo beginHere(int signalNumber, std::size_t number) noexcept {
    beginHere(number);
    siginfo information = {};
    information.si_signo = signalNumber;
    information.si_code = SI_QUEUE;
    information.si_pid = arrivals[number].sender;
    information.si_uid = getuid();
    information.si_value.sival_int = static_cast<int>(number);
    return information;
}

// --- Judging

Set setOf(const Called& called) {
    Set set = 0;
    for (const std::size_t handler : called) {
        set |= 1U << handler;
    }
    return set;
}

constexpr std::size_t noState = ~std::size_t{0};

// The first state not before an earlier one in which exactly these are called.
std::size_t stateOf(const Arrival& arrival) noexcept {
    Set set = 0;
    for (std::size_t handler = 0; handler < observedHandlers; ++handler) {
        if (arrival.calls[handler] > 1) {
            return noState;
        }
        set |= arrival.calls[handler] << handler;
    }
    const auto state = std::find(expected.begin() + static_cast<std::ptrdiff_t>(arrival.notBefore),
                                 expected.end(), set);
    return state == expected.end() ? noState : static_cast<std::size_t>(state - expected.begin());
}

}  // namespace

const std::array<ObservedHandler, observedHandlers> observed =
    makeObserved(std::make_index_sequence<observedHandlers>());

void Arrivals::expect(const States& states) {
    expected.clear();
    for (const Called& called : states) {
        expected.push_back(setOf(called));
    }
    added = 0;
    strays = 0;
    latest = 0;
    found = 0;
}

std::size_t Arrivals::add() noexcept {
    if (added == most) {
        std::abort();
    }
    Arrival& arrival = arrivals[added];
    arrival.notBefore = latest;
    arrival.judged = false;
    arrival.whole = true;
    arrival.stay = goOn;
    for (auto& calls : arrival.calls) {
        calls = 0;
    }
    return added++;
}

std::size_t Arrivals::addLast() noexcept {
    latest = expected.size() - 1;
    return add();
}

void Arrivals::bySignal(int signalNumber, std::size_t number) noexcept {
    const siginfo information = beginHere(signalNumber, number);
    if (syscall(SYS_rt_tgsigqueueinfo, getpid(), gettid(), signalNumber, &information) != 0) {
        std::abort();
    }
}

void Arrivals::byFault(std::size_t number) noexcept {
    const ClosedPage page;
    beginHere(number);
    faultyPage = &page;
    faulting = number;
    page.close();
    writeTo(page.address());
    faulting = most;
}

void Arrivals::byDispatch(int signalNumber, std::size_t number) {
    const BlockedSignals heldBack{signalNumber};
    siginfo information = beginHere(signalNumber, number);
    actualSignalHandler(signalNumber, &information, &information);
}

void Arrivals::byWalk(Sorvane::SVSignalHandlerManager& manager, int signalNumber,
                      std::size_t number) {
    siginfo information = beginHere(signalNumber, number);
    if (signalNumber == SIGSEGV) {
        manager.callOnlyPreexistingOrExternalHandlers(signalNumber, &information, &information);
    } else {
        manager.callHandlers(signalNumber, &information, &information);
    }
}

void Arrivals::letStay(std::size_t number) noexcept {
    arrivals[number].stay = shallStay;
}

bool Arrivals::staysQ(std::size_t number) noexcept {
    return arrivals[number].stay == stays;
}

void Arrivals::letGoOn(std::size_t number) noexcept {
    arrivals[number].stay = goOn;
    wake(arrivals[number].stay);
}

std::size_t Arrivals::count() noexcept {
    return added;
}

bool Arrivals::anyCalledQ(std::size_t number) noexcept {
    const auto& calls = arrivals[number].calls;
    return std::any_of(calls.begin(), calls.end(), [](const auto& count) { return count != 0; });
}

const char* Arrivals::judge(std::size_t number) noexcept {
    Arrival& arrival = arrivals[number];
    if (arrival.judged) {
        return nullptr;
    }
    arrival.judged = true;
    const std::size_t state = stateOf(arrival);
    if (state == noState) {
        return "the handlers called are not those of the state before, or after";
    }
    found |= 1U << state;
    latest = std::max(latest, state);
    return arrival.whole ? nullptr : "what came with a signal was not whole";
}

const char* Arrivals::judgeStrays() noexcept {
    return strays == 0 ? nullptr : "a handler was called for no signal at all";
}

unsigned int Arrivals::statesFound() noexcept {
    return found;
}
