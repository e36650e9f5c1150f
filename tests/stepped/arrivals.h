// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Signals that arrive while something goes on, each told from all others, and the handlers that
// note for which of them they are called.
#ifndef SORVANE_TESTS_STEPPED_ARRIVALS_H
#define SORVANE_TESTS_STEPPED_ARRIVALS_H

#include <sorvane/svsignalhandlermanager.h>

#include <array>
#include <cstddef>
#include <vector>

/// The handlers go by numbers; one of them is the host's.
constexpr std::size_t observedHandlers = 10;
constexpr std::size_t host = 9;

using ObservedHandler = void (*)(int, siginfo*, void*);
extern const std::array<ObservedHandler, observedHandlers> observed;

/// The handlers that are called for one arrival, each once, and no other.
using Called = std::vector<std::size_t>;
/// What they may be as an operation goes on, in this order: before it, and after it.
using States = std::vector<Called>;

namespace Arrivals {

/// Forgets all arrivals, and says what may be called for those to come.
void expect(const States& states);

/// A new one, which finds no state before that of any that was over by now. Result: its number.
std::size_t add() noexcept;
/// The same when the operation is over: it finds the last state.
std::size_t addLast() noexcept;

// --- What lets it arrive on the thread that calls. Each returns when it is over, unless the signal
// is held back.

void bySignal(int signalNumber, std::size_t number) noexcept;
/// A fault, which the host's handler repairs.
void byFault(std::size_t number) noexcept;
/// As if the signal had just arrived: the kernel has chosen the library's handler already, and
/// holds the signal back.
void byDispatch(int signalNumber, std::size_t number);
/// No signal at all: a manager calls the handlers, of a fatal signal only the host's own.
void byWalk(Sorvane::SVSignalHandlerManager& manager, int signalNumber, std::size_t number);

// --- Handlers that are called stay inside until they are told to go on.

void letStay(std::size_t number) noexcept;
bool staysQ(std::size_t number) noexcept;
void letGoOn(std::size_t number) noexcept;

// --- What has become of them

std::size_t count() noexcept;
bool anyCalledQ(std::size_t number) noexcept;

/// Says that one is over. Null, or what is wrong with it; told once.
const char* judge(std::size_t number) noexcept;
/// Null, or that something was called for none of them.
const char* judgeStrays() noexcept;

/// The states that were found, a bit for each.
unsigned int statesFound() noexcept;

}  // namespace Arrivals

#endif
