// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The log of handler calls. Handlers write it, and the program reads it once they have returned.
#ifndef DEMO_CALLS_H
#define DEMO_CALLS_H

#include <sorvane/svsignalhandlermanager.h>
#include <sys/types.h>

#include <vector>

namespace demo {

/// What somebody sent, and what every handler that is told about it has to be told.
struct Sent {
    int signalNumber;
    int code;       ///< SI_USER, SI_QUEUE, SI_TIMER, or what kind of fault
    pid_t sender;   ///< of SI_USER and SI_QUEUE
    int value;      ///< of SI_QUEUE and SI_TIMER
    void* address;  ///< of a fault
};

/// Makes the log, in memory that the processes started later share.
void makeCallLog();

/// Note that a handler was called, with one argument or with three. For signal handlers: without a
/// lock, without memory, and without text.
void noteCall(const char* handler, int signalNumber) noexcept;
void noteCall(const char* handler, int signalNumber, const siginfo* information,
              const void* context) noexcept;

/// Lets the signals that are held back arrive, until so many handlers were called that the ones
/// given have seen everything that was sent. Prints the calls, in the order in which the handlers
/// are given here: the library's own order follows the functions' addresses. Ends the story if a
/// call is missing, is one too many, or was told anything else than what was sent.
void expectCalls(const std::vector<Sent>& sent, const std::vector<const char*>& handlers);

/// The same for what a process wrote that has ended.
void expectCallsOfEndedProcess(const Sent& sent, const std::vector<const char*>& handlers);

/// Prints the headings of the calls' columns.
void sayCallHeadings();

}  // namespace demo

#endif
