// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A gate between threads, processes and signal handlers: one side opens it, the other passes.
#ifndef SORVANE_TESTS_SUPPORT_GATE_H
#define SORVANE_TESTS_SUPPORT_GATE_H

/// Each open() lets one pass() through, whichever comes first. A pipe, because writing to one is
/// allowed in a signal handler and reaches other processes.
class Gate {
public:
    Gate();
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;
    ~Gate();

    /// Any context, signal handlers included; leaves errno alone.
    void open() noexcept;

    /// Waits for an open().
    void pass() noexcept;

private:
    int m_ends[2];
};

#endif
