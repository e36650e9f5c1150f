// Which signals the library may handle at all.
#ifndef SORVANE_SVSIGNALHANDLERDISPOSITIONSET_H
#define SORVANE_SVSIGNALHANDLERDISPOSITIONSET_H

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
/// The constructor is constexpr so that the shared set of the manager is whole before any code
/// runs, whatever the order of static initialisation.
class SORVANE_API SVSignalHandlerDispositionSet : public SVObject {
public:
    constexpr SVSignalHandlerDispositionSet() noexcept = default;
    SVSignalHandlerDispositionSet(const SVSignalHandlerDispositionSet& other) noexcept;
    /// Replaces all answers; one that is asked for meanwhile is the old one or the new one.
    SVSignalHandlerDispositionSet& operator=(const SVSignalHandlerDispositionSet& other) noexcept;
    ~SVSignalHandlerDispositionSet() noexcept override {}

    /// Returns every signal to its initial answer.
    /// Ownership: none. Result: none. Errors: none. Guarantee: no exception.
    /// Threads: any, each operation is atomic. Signal context: any context.
    void reset() noexcept;

    /// The same for whoever may be overtaken by somebody who does it first and goes on: only for
    /// answers that have not been reset or replaced since they were seen; and, with an occasion,
    /// only if they have not been reset on that occasion before.
    /// Parameters: seen, a copy of this set, made before; occasion, told apart from the last 63.
    /// Ownership: none. Result: none. Errors: none. Guarantee: no exception.
    /// Threads: any, each operation is atomic. Signal context: any context.
    void resetSince(const SVSignalHandlerDispositionSet& seen) noexcept;
    void resetOnce(const SVSignalHandlerDispositionSet& seen, unsigned int occasion) noexcept;

    /// Set the answer for one signal: yes, or no.
    /// Parameters: signal number; one outside 1 to 60 changes nothing.
    /// Ownership: none. Result: none. Errors: none. Guarantee: no exception.
    /// Threads: any, each operation is atomic. Signal context: any context.
    void handleSignal(int signalNumber) noexcept;
    void doNotHandleSignal(int signalNumber) noexcept;

    /// The answer for one signal.
    /// Parameters: signal number, any. Ownership: none.
    /// Result: true when the library may handle the signal. Errors: none. Guarantee: no exception.
    /// Threads: any, each operation is atomic. Signal context: any context.
    bool getSignalDisposition(int signalNumber) noexcept;

private:
    static constexpr int lowestSignal = 1;
    static constexpr int highestSignal = 60;

    static constexpr bool coveredQ(int signalNumber) noexcept {
        return signalNumber >= lowestSignal && signalNumber <= highestSignal;
    }

    /// A word has twenty answers, above them how often they were replaced, and above that the
    /// occasion on which they were last reset. Words of 32 bits, because every architecture changes
    /// these atomically without help.
    static constexpr unsigned int words = 3;
    static constexpr unsigned int answersInWord = 20;
    static constexpr unsigned int occasionShift = 26;
    static constexpr std::uint32_t onceReplaced = std::uint32_t{1} << answersInWord;
    static constexpr std::uint32_t allAnswers = onceReplaced - 1;
    static constexpr std::uint32_t allButOccasion = (std::uint32_t{1} << occasionShift) - 1;
    static constexpr unsigned int wordOf(int signalNumber) noexcept {
        return static_cast<unsigned int>(signalNumber - lowestSignal) / answersInWord;
    }
    static constexpr std::uint32_t bitOf(int signalNumber) noexcept {
        return std::uint32_t{1} << (static_cast<unsigned int>(signalNumber - lowestSignal) %
                                    answersInWord);
    }
    static constexpr bool handledAtFirstQ(int signalNumber) noexcept {
        return signalNumber != SIGKILL && signalNumber != SIGSTOP && signalNumber != 32 &&
               signalNumber != 33;
    }
    static constexpr std::uint32_t initialWord(unsigned int word) noexcept {
        std::uint32_t answers = 0;
        for (int signalNumber = lowestSignal; signalNumber <= highestSignal; ++signalNumber) {
            if (wordOf(signalNumber) == word && handledAtFirstQ(signalNumber)) {
                answers |= bitOf(signalNumber);
            }
        }
        return answers;
    }

    static constexpr bool replacedSinceQ(std::uint32_t seen, std::uint32_t word) noexcept {
        return ((seen ^ word) & ~allAnswers) != 0;
    }
    static constexpr std::uint32_t replaced(std::uint32_t word, std::uint32_t answers) noexcept {
        return (word & ~allButOccasion) | ((word + onceReplaced) & allButOccasion & ~allAnswers) |
               (answers & allAnswers);
    }

    std::uint32_t m_answers[words] = {initialWord(0), initialWord(1), initialWord(2)};
};

}  // namespace Sorvane

#endif
