// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Handlers that note each of their calls, for tests to look at.
//
// The notes lie in memory that a process shares with its children, so that a test also sees what
// was called in a child that the library ended. Taking a note allocates nothing and locks nothing.
#ifndef SORVANE_TESTS_SUPPORT_OBSERVED_HANDLERS_H
#define SORVANE_TESTS_SUPPORT_OBSERVED_HANDLERS_H

#include <sorvane/svsignalhandlermanager.h>
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <utility>
#include <vector>

/// What a handler got, and what it saw.
struct HandlerCall {
    void* function;  ///< the handler's address
    int signalNumber;
    siginfo* information;     ///< as given; null for a one-argument handler
    siginfo informationCopy;  ///< what it pointed at; unset if it is null
    void* context;            ///< as given; null for a one-argument handler
    pid_t thread;             ///< on which the handler ran
    unsigned int managers;    ///< how many managers were alive
};

template <typename Result, typename... Arguments>
void* addressOf(Result (*function)(Arguments...)) {
    return reinterpret_cast<void*>(function);
}

/// Notes a call. For handlers that do something beside it.
void noteCall(void* function, int signalNumber, siginfo* information = nullptr,
              void* context = nullptr) noexcept;

void forgetCalls() noexcept;
std::size_t callCount() noexcept;
const HandlerCall& callAt(std::size_t index);
const HandlerCall& lastCall();

/// The handlers that were called, in the order of their calls.
std::vector<void*> calledFunctions();

std::size_t callsOfAddress(const void* function) noexcept;

template <typename Result, typename... Arguments>
std::size_t callsOf(Result (*function)(Arguments...)) {
    return callsOfAddress(addressOf(function));
}

/// The host program's handlers: those that were there before the library.
void hostHandler(int signalNumber);
void otherHostHandler(int signalNumber);
void hostInformationHandler(int signalNumber, siginfo* information, void* context);

/// The handlers of the library's users.
void userHandler(int signalNumber);
void otherUserHandler(int signalNumber);
void userInformationHandler(int signalNumber, siginfo* information, void* context);

/// As many different handlers as a test may want, for tables that are to grow or to collide.
template <std::size_t number>
void numberedHandler(int signalNumber) {
    noteCall(addressOf(&numberedHandler<number>), signalNumber);
}

using SimpleHandler = void (*)(int);

template <std::size_t... numbers>
constexpr std::array<SimpleHandler, sizeof...(numbers)> makeNumberedHandlers(
    std::index_sequence<numbers...>) {
    return {&numberedHandler<numbers>...};
}

constexpr std::array<SimpleHandler, 48> numberedHandlers =
    makeNumberedHandlers(std::make_index_sequence<48>());

#endif
