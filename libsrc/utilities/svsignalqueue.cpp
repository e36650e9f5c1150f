// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svsignalqueue.h"

namespace Sorvane {

namespace {

// More would not fit into the address space of a 32-bit process.
constexpr unsigned int mostPlaces = 1U << 23U;

// The next position whose place has the turn that is asked for, counted up; or that there is none.
// Positions go round.
template <typename PlaceOf>
bool claim(std::atomic<unsigned int>& next, unsigned int turnAhead, unsigned int& position,
           PlaceOf placeOf) noexcept {
    position = next.load();
    for (;;) {
        const unsigned int turn = placeOf(position).turn.load();
        const int ahead = static_cast<int>(turn - (position + turnAhead));
        if (ahead < 0) {
            return false;
        }
        if (ahead == 0 && next.compare_exchange_weak(position, position + 1)) {
            return true;
        }
        if (ahead > 0) {
            position = next.load();
        }
    }
}

}  // namespace

SVSignalQueue* SVSignalQueue::make(unsigned int capacity) noexcept {
    unsigned int count = 2;
    while (count < capacity && count < mostPlaces) {
        count <<= 1U;
    }
    if (count < capacity) {
        return nullptr;
    }
    auto* const places = new Place[count];
    if (places == nullptr) {
        return nullptr;
    }
    auto* const queue = new SVSignalQueue(places, count);
    if (queue == nullptr) {
        delete[] places;
    }
    return queue;
}

SVSignalQueue::SVSignalQueue(Place* places, unsigned int count) noexcept
    : m_places(places), m_count(count) {
    for (unsigned int i = 0; i < count; ++i) {
        places[i].turn.store(i);
    }
}

SVSignalQueue::~SVSignalQueue() noexcept {
    delete[] m_places;
}

bool SVSignalQueue::put(const siginfo& information) noexcept {
    const auto placeAt = [this](unsigned int position) -> Place& { return placeOf(position); };
    unsigned int position = 0;
    if (!claim(m_nextToFill, 0, position, placeAt)) {
        return false;
    }
    Place& place = placeOf(position);
    place.information = information;
    place.turn.store(position + turnOfTaking);
    return true;
}

bool SVSignalQueue::take(siginfo& information) noexcept {
    const auto placeAt = [this](unsigned int position) -> Place& { return placeOf(position); };
    unsigned int position = 0;
    if (!claim(m_nextToTake, turnOfTaking, position, placeAt)) {
        return false;
    }
    Place& place = placeOf(position);
    information = place.information;
    place.turn.store(position + m_count);
    return true;
}

}  // namespace Sorvane
