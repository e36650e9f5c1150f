// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "stepped/places.h"

#include <../registry/svgate.h>
#include <../registry/svownership.h>
#include <link.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>

#include "abi/private_members.h"
#include "support/shared_state.h"
#include "support/system_actions.h"

REVEAL_MEMBER(GateChanges, Sorvane::SVGate, changes);
REVEAL_MEMBER(GateClosedByThisThreadQ, Sorvane::SVGate, closedByThisThreadQ);

namespace {

// The program's own code, in which the library's is.
struct Code {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
};

int findCode(dl_phdr_info* module, std::size_t, void* found) {
    const auto known = reinterpret_cast<std::uintptr_t>(&actualSignalHandler);
    for (unsigned int i = 0; i < module->dlpi_phnum; ++i) {
        const auto& segment = module->dlpi_phdr[i];
        const std::uintptr_t begin = module->dlpi_addr + segment.p_vaddr;
        const std::uintptr_t end = begin + segment.p_memsz;
        if (segment.p_type == PT_LOAD && begin <= known && known < end) {
            *static_cast<Code*>(found) = {begin, end};
            return 1;
        }
    }
    return 0;
}

const Code code = [] {
    Code found;
    dl_iterate_phdr(findCode, &found);
    return found;
}();

const bool everyInstruction = std::getenv("SORVANE_EVERY_INSTRUCTION") != nullptr;

}  // namespace

bool inProgramQ(std::uintptr_t instruction) {
    return instruction >= code.begin && instruction < code.end;
}

bool everyInstructionQ() {
    return everyInstruction;
}

bool Selection::firstTimeQ(std::uintptr_t instruction) {
    std::size_t place = instruction % size;
    while (m_seen[place] != 0 && m_seen[place] != instruction) {
        place = (place + 1) % size;
    }
    return std::exchange(m_seen[place], instruction) == 0;
}

bool Selection::selectsQ(const Standing& standing) {
    constexpr unsigned long distance = 64;
    return everyInstruction || firstTimeQ(standing.next) || ++m_again % distance == 0;
}

Watch::Watch(int signalNumber) : m_signalNumber(signalNumber), m_table(tableOf(signalNumber)) {
    look(m_seen);
}

void Watch::look(Seen& seen) const {
    seen.table = tableOf(m_signalNumber);
    seen.owner = Sorvane::SVOwnership::count(m_signalNumber);
    seen.takenOver = takenOverQ(m_signalNumber);
    if (m_table != nullptr) {
        std::memcpy(seen.contents, m_table, sizeof(seen.contents));
    }
}

bool Watch::justChangedQ() {
    constexpr unsigned int instructions = 8;
    Seen now = {};
    look(now);
    m_rest = std::memcmp(&now, &m_seen, sizeof(now)) != 0 ? instructions + 1 : m_rest;
    std::memcpy(&m_seen, &now, sizeof(now));
    m_rest -= m_rest == 0 ? 0 : 1;
    return m_rest != 0;
}

bool gateClosedQ() {
    return (*memberOf(GateChanges()) & 1U) != 0 && memberOf(GateClosedByThisThreadQ())();
}

bool heldBackQ(const Standing& standing, int signalNumber) {
    return sigismember(&standing.heldBack, signalNumber) == 1;
}

bool systemCallQ(const Standing& standing) {
    constexpr unsigned char instructions[][2] = {{0x0f, 0x05}, {0x0f, 0x34}, {0xcd, 0x80}};
    const void* const next = reinterpret_cast<const void*>(standing.next);
    return std::any_of(std::begin(instructions), std::end(instructions),
                       [next](const auto& one) { return std::memcmp(next, one, 2) == 0; });
}

// With signals held back the thread is about to close the gate, or has just opened it.
bool beginsThreadsQ(const Standing& standing) {
    return inProgramQ(standing.next) || heldBackQ(standing, SIGURG);
}

// At the edges of the gate no handler can run that could fork.
bool forksQ(const Standing& standing) {
    return gateClosedQ() || (inProgramQ(standing.next) && !heldBackQ(standing, SIGURG));
}
