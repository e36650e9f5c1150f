// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The handlers of three parties in one process that know nothing of one another: the program
// itself, and two users of the library. Each does what a signal handler may do, and no more: it
// notes that it was called, and the program prints the notes afterwards.
#ifndef DEMO_HANDLERS_H
#define DEMO_HANDLERS_H

#include <sorvane/svsignalhandlermanager.h>

/// The program that the library runs in, which had handlers before.
namespace host {

void onUsr1(int signalNumber);
void onTerm(int signalNumber, siginfo* information, void* context);

/// Recovers from a write to the guarded page: allows it, so that the write is made again when this
/// returns. Any other fault is a real one and ends the process.
void repairPage(int signalNumber, siginfo* information, void* context);

/// Makes a page that may not be touched, and guards it from now on.
char* makeGuardedPage();
/// Forbids the guarded page once more.
void guardPageAgain();

}  // namespace host

/// A user of the library: writes a journal.
namespace journal {

void onUsr1(int signalNumber);
void onTerm(int signalNumber, siginfo* information, void* context);
void onUsr2(int signalNumber, siginfo* information, void* context);
void onFatal(int signalNumber, siginfo* information, void* context);

}  // namespace journal

/// Another user of the library: monitors the program.
namespace monitor {

void onTerm(int signalNumber);
void onUsr2(int signalNumber, siginfo* information, void* context);
void onTimer(int signalNumber, siginfo* information, void* context);
void onRealTime(int signalNumber, siginfo* information, void* context);
/// Gives its signal the default action, as old handlers do that expect to have to come back.
void onUrgent(int signalNumber, siginfo* information, void* context);

void onFatal(int signalNumber);

}  // namespace monitor

#endif
