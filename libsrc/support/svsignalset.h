// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A set of signals.
#ifndef SORVANE_SVSIGNALSET_H
#define SORVANE_SVSIGNALSET_H

#include <cstdint>

#include "svsignalnumber.h"

namespace Sorvane {

/// Signals that do not exist are never in it. Signal context: any; it has no lock.
class SVSignalSet {
public:
    bool hasQ(int signalNumber) const noexcept { return (m_signals & bitOf(signalNumber)) != 0; }
    void add(int signalNumber) noexcept { m_signals |= bitOf(signalNumber); }
    void remove(int signalNumber) noexcept { m_signals &= ~bitOf(signalNumber); }

private:
    static std::uint64_t bitOf(int signalNumber) noexcept {
        return signalExistsQ(signalNumber)
                   ? std::uint64_t{1} << static_cast<unsigned int>(signalNumber - 1)
                   : 0;
    }

    std::uint64_t m_signals = 0;
};

}  // namespace Sorvane

#endif
