// The places in an operation at which a stepping test does something.
#ifndef SORVANE_TESTS_INTERRUPT_PLACES_H
#define SORVANE_TESTS_INTERRUPT_PLACES_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "support/stepping.h"

/// Selects instructions: each when it is first run, and one in some of those that are run again.
/// With SORVANE_EVERY_INSTRUCTION in the environment all of them.
class Selection {
public:
    bool selectsQ(const Standing& standing);

private:
    static constexpr std::size_t size = 1U << 16U;

    bool firstTimeQ(std::uintptr_t instruction);

    std::array<std::uintptr_t, size> m_seen = {};
    unsigned long m_again = 0;
};

bool everyInstructionQ();

/// Whether an instruction is the program's own, with the library's, and none of the C library's.
bool inProgramQ(std::uintptr_t instruction);

/// Whether the thread that is stepped has closed the library's gate.
bool gateClosedQ();

bool heldBackQ(const Standing& standing, int signalNumber);

/// Whether the stepped thread's trap handler may begin a thread there, and whether it may fork: it
/// must not have interrupted the heap's code.
bool beginsThreadsQ(const Standing& standing);
bool forksQ(const Standing& standing);

#endif
