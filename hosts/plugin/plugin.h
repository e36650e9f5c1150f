// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What one form of the plug-in consists of. Each form is a shared object of its own.
#ifndef SORVANE_HOSTS_PLUGIN_H
#define SORVANE_HOSTS_PLUGIN_H

#include <csignal>

namespace Hosts {

/// What the plug-in handles: what hosts use themselves, what ends them, and what they never
/// heard of.
constexpr int signals[] = {SIGHUP,  SIGINT,  SIGQUIT, SIGBUS,  SIGUSR1, SIGSEGV, SIGUSR2,
                           SIGPIPE, SIGALRM, SIGTERM, SIGCHLD, SIGPROF, SIGWINCH};

/// The handlers: two, so that signals have more than one.
void count(int signalNumber);
void countWithInformation(int signalNumber, siginfo_t* information, void* context);

// --- A form ----------------------------------------------------------------------------------

/// Gets ready, without a signal.
void beginIdle();
/// Handles the signals from now on.
void beginHandling();
/// Changes everything that can be changed, and leaves it handled.
void changeAll();
/// Gives everything back.
void end();

}  // namespace Hosts

#endif
