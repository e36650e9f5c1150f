// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A signal that passes from hand to hand: from the host to the library, and back.
#ifndef SORVANE_TESTS_DISTURBED_HANDS_H
#define SORVANE_TESTS_DISTURBED_HANDS_H

#include <sorvane/svsignalhandlermanager.h>

#include <atomic>
#include <csignal>

// --- The host ----------------------------------------------------------------------------------

/// A signal, how a thread has it, and the handler that the host has for it. That counts its calls,
/// and so does whoever delivers.
struct Source {
    int signalNumber;
    void (*handler)(int, siginfo_t*, void*);
    void (*deliver)();
};

/// A signal that is sent, and a fault that the host repairs.
extern const Source raised;
extern const Source repaired;

extern std::atomic<unsigned long> delivered;
extern std::atomic<unsigned long> received;

/// Delivers one to this thread, and counts it.
void deliverAndCount(const Source& source);

/// Whether the host's handler is the one that the system has.
bool hostsQ(const Source& source);

// --- The hands ---------------------------------------------------------------------------------

/// One way in which a signal passes between the host, which has it at first, and the library.
class Hands {
public:
    explicit Hands(const Source& source);
    Hands(const Hands&) = delete;
    Hands& operator=(const Hands&) = delete;
    virtual ~Hands() noexcept(false) = default;

    virtual void takeOver() = 0;
    virtual void handBack() = 0;

protected:
    const Source m_source;
    Sorvane::SVSignalHandlerManager m_manager{true};
};

/// With all others, while its records stay.
class StartAndStop final : public Hands {
public:
    explicit StartAndStop(const Source& source);
    ~StartAndStop() noexcept(false) override = default;

    void takeOver() override;
    void handBack() override;
};

/// By itself, and with its only record.
class HandleAndClear final : public Hands {
public:
    explicit HandleAndClear(const Source& source);
    ~HandleAndClear() noexcept(false) override = default;

    void takeOver() override;
    void handBack() override;

private:
    Sorvane::SVSignalHandler m_host;
};

#endif
