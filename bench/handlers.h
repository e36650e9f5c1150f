// Handlers that count, as many different ones as a work needs.
#ifndef SORVANE_BENCH_HANDLERS_H
#define SORVANE_BENCH_HANDLERS_H

#include <array>
#include <csignal>
#include <utility>

namespace Bench {

constexpr int most = 260;

// One place for each thread, so that they do not take it from each other.
inline thread_local volatile long calls = 0;

template <int number>
void handler(int) {
    calls = calls + 1;
}

using Handler = void (*)(int);

template <int... numbers>
constexpr std::array<Handler, sizeof...(numbers)> makeHandlers(
    std::integer_sequence<int, numbers...>) {
    return {&handler<numbers>...};
}
inline constexpr auto handlers = makeHandlers(std::make_integer_sequence<int, most>());

/// The signals that may be handled and do not end the process, and a few more: as many as there are
/// below 61.
inline std::array<int, 56> allSignals() {
    std::array<int, 56> signals = {};
    std::size_t count = 0;
    for (int signalNumber = 1; signalNumber <= 60; ++signalNumber) {
        if (signalNumber != SIGKILL && signalNumber != SIGSTOP && signalNumber != 32 &&
            signalNumber != 33) {
            signals[count++] = signalNumber;
        }
    }
    return signals;
}

}  // namespace Bench

#endif
