// Handlers that count their calls and touch nothing else, so that they can be called at any
// instruction of anything.
#ifndef SORVANE_TESTS_INTERRUPT_COUNTED_HANDLERS_H
#define SORVANE_TESTS_INTERRUPT_COUNTED_HANDLERS_H

#include <sorvane/svsignalhandlermanager.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <utility>

/// How often each counted handler was called, by its number.
constexpr std::size_t countedHandlers = 12;
inline std::array<std::atomic<unsigned int>, countedHandlers> calls;

/// The sum of the values that came with the signals of the three-argument handler, and whether all
/// that came with them was whole.
inline std::atomic<unsigned long> sumOfValues;
inline std::atomic<bool> informationWhole{true};

/// One-argument handlers, users' or the host's.
template <std::size_t number>
void counted(int) {
    static_assert(number < countedHandlers);
    ++calls[number];
}

/// The number of the one three-argument handler among the counted ones.
constexpr std::size_t informationNumber = 10;

inline void countedInformation(int signalNumber, siginfo* information, void* context) {
    ++calls[informationNumber];
    if (information == nullptr || context == nullptr || information->si_signo != signalNumber ||
        information->si_code != SI_QUEUE) {
        informationWhole = false;
        return;
    }
    sumOfValues += static_cast<unsigned long>(information->si_value.sival_int);
}

using SimpleHandler = void (*)(int);

template <std::size_t... numbers>
constexpr std::array<SimpleHandler, sizeof...(numbers)> makeCounted(
    std::index_sequence<numbers...>) {
    return {&counted<numbers>...};
}

/// The same by number.
constexpr std::array<SimpleHandler, countedHandlers> handlerOf =
    makeCounted(std::make_index_sequence<countedHandlers>());

inline void forgetCounts() {
    for (auto& count : calls) {
        count = 0;
    }
    sumOfValues = 0;
    informationWhole = true;
}

#endif
