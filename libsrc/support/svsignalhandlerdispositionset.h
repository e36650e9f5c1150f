// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Which signals the library may handle at all.
#ifndef SORVANE_SVSIGNALHANDLERDISPOSITIONSET_H
#define SORVANE_SVSIGNALHANDLERDISPOSITIONSET_H

#include <atomic>
#include <csignal>
#include <cstdint>

#include "svexport.h"
#include "svobject.h"

namespace Sorvane {

/// One answer, yes or no, for each signal number from 1 to 60: may the library handle it?
///
/// At first, and after reset(), the answer is yes for every signal but four: SIGKILL and SIGSTOP,
/// which can't be caught, and 32 and 33, which the C library keeps for its threads. For numbers
/// outside 1 to 60 the answer is always no, and setting it changes nothing.
///
/// All answers lie in one 64-bit word, and each operation is atomic: an assignment replaces them
/// all at once, and a copy has the answers of one moment.
/// Threads: any, at once. Signal context: any.
///
/// The constructor is constexpr so that the shared set of the manager is whole before any code
/// runs, whatever the order of static initialisation.
class SORVANE_API SVSignalHandlerDispositionSet : public SVObject {
public:
    constexpr SVSignalHandlerDispositionSet() noexcept = default;
    SVSignalHandlerDispositionSet(const SVSignalHandlerDispositionSet& other) noexcept;
    SVSignalHandlerDispositionSet& operator=(const SVSignalHandlerDispositionSet& other) noexcept;
    ~SVSignalHandlerDispositionSet() noexcept override {}

    /// Returns every signal to its initial answer.
    void reset() noexcept;

    /// Answers yes for one signal from now on.
    void handleSignal(int signalNumber) noexcept;
    /// Answers no for one signal from now on.
    void doNotHandleSignal(int signalNumber) noexcept;

    /// Whether the library may handle a signal.
    bool getSignalDisposition(int signalNumber) noexcept;

private:
    static constexpr int lowestSignal = 1;
    static constexpr int highestSignal = 60;

    static constexpr bool coveredQ(int signalNumber) noexcept {
        return signalNumber >= lowestSignal && signalNumber <= highestSignal;
    }

    static constexpr std::uint64_t bitOf(int signalNumber) noexcept {
        return std::uint64_t{1} << static_cast<unsigned int>(signalNumber);
    }
    static constexpr std::uint64_t initialAnswers() noexcept {
        std::uint64_t answers = 0;
        for (int signalNumber = lowestSignal; signalNumber <= highestSignal; ++signalNumber) {
            answers |= bitOf(signalNumber);
        }
        return answers & ~(bitOf(SIGKILL) | bitOf(SIGSTOP) | bitOf(32) | bitOf(33));
    }

    /// A bit for each signal, in one word, so that a whole set changes in one instruction. Relaxed
    /// order is enough: an answer publishes nothing but itself.
    std::atomic<std::uint64_t> m_answers{initialAnswers()};
};

}  // namespace Sorvane

#endif
