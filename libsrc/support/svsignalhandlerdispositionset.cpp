#include "svsignalhandlerdispositionset.h"

#include "svatomicref.h"

// Dispositions are set without the manager's lock and read inside signal handlers, hence the
// atomics. Relaxed order is enough: an answer publishes nothing but itself.

namespace Sorvane {

namespace {

using Word = SVAtomicRef<std::uint32_t>;

static_assert(Word::is_always_lock_free);

std::uint32_t readWord(const std::uint32_t& word) noexcept {
    // atomic_ref takes no reference to const; it only reads here.
    return Word(const_cast<std::uint32_t&>(word)).load(std::memory_order_relaxed);
}

void exchangeWord(std::uint32_t& word, std::uint32_t seen, std::uint32_t wanted) noexcept {
    Word(word).compare_exchange_strong(seen, wanted, std::memory_order_relaxed);
}

}  // namespace

SVSignalHandlerDispositionSet::SVSignalHandlerDispositionSet(
    const SVSignalHandlerDispositionSet& other) noexcept
    : SVObject(other),
      m_answers{readWord(other.m_answers[0]), readWord(other.m_answers[1]),
                readWord(other.m_answers[2])} {}

SVSignalHandlerDispositionSet& SVSignalHandlerDispositionSet::operator=(
    const SVSignalHandlerDispositionSet& other) noexcept {
    // Whoever is interrupted by another assignment leaves that whole: it is the later one.
    std::uint32_t seen[words];
    do {
        for (unsigned int i = 0; i < words; ++i) {
            seen[i] = readWord(m_answers[i]);
        }
    } while (replacedSinceQ(seen[0], readWord(m_answers[0])));
    for (unsigned int i = 0; i < words; ++i) {
        const Word word(m_answers[i]);
        const std::uint32_t answers = readWord(other.m_answers[i]);
        std::uint32_t current = word.load(std::memory_order_relaxed);
        while (!replacedSinceQ(seen[i], current) &&
               !word.compare_exchange_weak(current, replaced(current, answers),
                                           std::memory_order_relaxed)) {
        }
    }
    return *this;
}

void SVSignalHandlerDispositionSet::reset() noexcept {
    *this = SVSignalHandlerDispositionSet();
}

void SVSignalHandlerDispositionSet::resetSince(const SVSignalHandlerDispositionSet& seen) noexcept {
    for (unsigned int i = 0; i < words; ++i) {
        exchangeWord(m_answers[i], seen.m_answers[i], replaced(seen.m_answers[i], initialWord(i)));
    }
}

void SVSignalHandlerDispositionSet::resetOnce(const SVSignalHandlerDispositionSet& seen,
                                              unsigned int occasion) noexcept {
    const std::uint32_t mark = std::uint32_t{occasion} << occasionShift;
    for (unsigned int i = 0; i < words; ++i) {
        const std::uint32_t word = seen.m_answers[i];
        if ((word & ~allButOccasion) != mark) {
            exchangeWord(m_answers[i], word,
                         (replaced(word, initialWord(i)) & allButOccasion) | mark);
        }
    }
}

void SVSignalHandlerDispositionSet::handleSignal(int signalNumber) noexcept {
    if (coveredQ(signalNumber)) {
        Word(m_answers[wordOf(signalNumber)])
            .fetch_or(bitOf(signalNumber), std::memory_order_relaxed);
    }
}

void SVSignalHandlerDispositionSet::doNotHandleSignal(int signalNumber) noexcept {
    if (coveredQ(signalNumber)) {
        Word(m_answers[wordOf(signalNumber)])
            .fetch_and(~bitOf(signalNumber), std::memory_order_relaxed);
    }
}

bool SVSignalHandlerDispositionSet::getSignalDisposition(int signalNumber) noexcept {
    return coveredQ(signalNumber) &&
           (readWord(m_answers[wordOf(signalNumber)]) & bitOf(signalNumber)) != 0;
}

}  // namespace Sorvane
