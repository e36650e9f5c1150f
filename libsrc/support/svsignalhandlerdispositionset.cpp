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

}  // namespace

SVSignalHandlerDispositionSet::SVSignalHandlerDispositionSet(
    const SVSignalHandlerDispositionSet& other) noexcept
    : SVObject(other), m_answers{readWord(other.m_answers[0]), readWord(other.m_answers[1])} {}

SVSignalHandlerDispositionSet& SVSignalHandlerDispositionSet::operator=(
    const SVSignalHandlerDispositionSet& other) noexcept {
    Word(m_answers[0]).store(readWord(other.m_answers[0]), std::memory_order_relaxed);
    Word(m_answers[1]).store(readWord(other.m_answers[1]), std::memory_order_relaxed);
    return *this;
}

void SVSignalHandlerDispositionSet::reset() noexcept {
    *this = SVSignalHandlerDispositionSet();
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
