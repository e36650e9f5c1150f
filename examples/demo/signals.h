// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The signals of this program: their names, what is installed for them, and when they may arrive.
#ifndef DEMO_SIGNALS_H
#define DEMO_SIGNALS_H

#include <csignal>
#include <string>
#include <vector>

namespace demo {

/// A real-time signal, which carries a value and queues up. Numbered when the program runs: the C
/// library decides there which are its own.
inline int realTimeSignal() {
    return SIGRTMIN + 3;
}

/// "SIGTERM", "SIGRTMIN+3".
std::string nameOf(int signalNumber);
std::string namesOf(const std::vector<int>& signalNumbers);

/// The address of a handler, whichever form it has.
template <typename Function>
void* address(Function function) {
    return reinterpret_cast<void*>(function);
}

/// Whether the operating system has this function for every one of some signals.
bool installed(const std::vector<int>& signalNumbers, const void* function);

/// What the operating system has for every signal at one moment, to be compared, in every field,
/// with what it has later.
class Actions {
public:
    Actions();
    bool unchanged() const;
    bool unchangedFor(int signalNumber) const;
    bool unchangedFor(const std::vector<int>& signalNumbers) const;

private:
    std::vector<struct sigaction> m_actions;  ///< by signal number less one
};

/// Gives the signals that this program uses the default action, and holds those that come from
/// outside back until somebody waits for them, whatever state the program was started in.
void holdSignals();

/// The mask of the moments in which the held signals may arrive.
sigset_t openMask();

}  // namespace demo

#endif
