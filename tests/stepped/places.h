// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The places in an operation at which a stepping test does something.
#ifndef SORVANE_TESTS_STEPPED_PLACES_H
#define SORVANE_TESTS_STEPPED_PLACES_H

#include <sorvane/svsignalhandlermanager.h>

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

/// Tells when something changes by which a signal is dispatched: the contents of its table, which
/// table it is, whose the signal is, and what the system has for it.
class Watch {
public:
    explicit Watch(int signalNumber);

    /// Whether that has changed since the last time, or some instructions ago.
    bool justChangedQ();

private:
    struct Seen {
        const void* table;
        unsigned int owner;
        bool takenOver;
        unsigned char contents[sizeof(Sorvane::SVSignalHandlerTable)];
    };

    void look(Seen& seen) const;

    const int m_signalNumber;
    const void* const m_table;
    Seen m_seen = {};
    unsigned int m_rest = 0;
};

/// Whether the thread that is stepped has closed the library's gate.
bool gateClosedQ();

bool heldBackQ(const Standing& standing, int signalNumber);

/// Whether a system call comes next.
bool systemCallQ(const Standing& standing);

/// Whether the stepped thread's trap handler may begin a thread there, and whether it may fork: it
/// must not have interrupted the heap's code.
bool beginsThreadsQ(const Standing& standing);
bool forksQ(const Standing& standing);

#endif
