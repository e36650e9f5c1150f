// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Reads the settings again when SIGHUP arrives, and goes on.
//
// SIGHUP ends a process in which nobody but ordinary handlers waits for it. A record that is marked
// external says that this program lives on: then only such records are called, and the process
// goes on. The marks of a record are given to its constructor.

#include <sorvane/svsignalhandlermanager.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

namespace {

volatile std::sig_atomic_t reloadWanted = 0;

void onHangup(int) {
    reloadWanted = 1;
}

}  // namespace

int main() {
    const bool preExists = false;
    const bool external = true;
    const bool valid = true;
    Sorvane::SVSignalHandler record(SIGHUP, onHangup, preExists, external, valid);

    Sorvane::SVSignalHandlerManager signals(true);
    signals.setHandler(record);
    signals.startHandlingSignals();

    for (int time = 1; time <= 2; ++time) {
        reloadWanted = 0;
        kill(getpid(), SIGHUP);
        if (reloadWanted == 0) {
            std::printf("SIGHUP did not arrive\n");
            return 1;
        }
        std::printf("SIGHUP arrived, reading the settings for the %s time\n",
                    time == 1 ? "first" : "second");
    }
    return 0;
}
