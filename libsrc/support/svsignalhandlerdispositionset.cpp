// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svsignalhandlerdispositionset.h"

namespace Sorvane {

SVSignalHandlerDispositionSet::SVSignalHandlerDispositionSet(
    const SVSignalHandlerDispositionSet& other) noexcept
    : SVObject(other), m_answers(other.m_answers.load(std::memory_order_relaxed)) {}

SVSignalHandlerDispositionSet& SVSignalHandlerDispositionSet::operator=(
    const SVSignalHandlerDispositionSet& other) noexcept {
    m_answers.store(other.m_answers.load(std::memory_order_relaxed), std::memory_order_relaxed);
    return *this;
}

void SVSignalHandlerDispositionSet::reset() noexcept {
    m_answers.store(initialAnswers(), std::memory_order_relaxed);
}

void SVSignalHandlerDispositionSet::handleSignal(int signalNumber) noexcept {
    if (coveredQ(signalNumber)) {
        m_answers.fetch_or(bitOf(signalNumber), std::memory_order_relaxed);
    }
}

void SVSignalHandlerDispositionSet::doNotHandleSignal(int signalNumber) noexcept {
    if (coveredQ(signalNumber)) {
        m_answers.fetch_and(~bitOf(signalNumber), std::memory_order_relaxed);
    }
}

bool SVSignalHandlerDispositionSet::getSignalDisposition(int signalNumber) noexcept {
    return coveredQ(signalNumber) &&
           (m_answers.load(std::memory_order_relaxed) & bitOf(signalNumber)) != 0;
}

}  // namespace Sorvane
