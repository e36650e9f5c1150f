// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What the probe offers to the plug-in, and to hosts that can call a function. It is preloaded into
// every run, also into the one without the plug-in.
#ifndef SORVANE_HOSTS_PROBE_H
#define SORVANE_HOSTS_PROBE_H

extern "C" {

/// Whether this is the process that the harness has started, and none that it has started itself.
/// True in its children until they call exec.
bool hosts_process();

/// The value of SORVANE_HOSTS_MODE: bare, before, after, idle, busy or early.
const char* hosts_mode();

/// Writes all actions and masks into the run's folder, under a name.
void hosts_snapshot(const char* name);

/// Load the plug-in and unload it, if it is this run's turn for that. The host's own means do the
/// same where it has any.
void hosts_load();
void hosts_unload();

/// A counter for each signal, in a file of the run's folder.
unsigned int* hosts_counters();
}

#endif
