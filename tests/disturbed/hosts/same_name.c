// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A host that has a function with the library's plain name, as one does that contains a static copy:
// a plug-in's signals go to the plug-in's library all the same.

#include <signal.h>

#include "host.h"

void actualSignalHandler(int signal_number, siginfo_t* information, void* context);

void actualSignalHandler(int signal_number, siginfo_t* information, void* context) {
    static const char reason[] = "the host's function was called\n";
    (void)signal_number;
    (void)information;
    (void)context;
    _exit(write(STDERR_FILENO, reason, sizeof(reason) - 1) < 0 ? 2 : EXIT_FAILURE);
}

int main(int count, char** arguments) {
    struct plug_in plug_in;
    expect(count == 2, "usage: same_name PLUG_IN");
    plug_in = load(arguments[1]);
    plug_in.begin();
    raise(SIGUSR1);
    expect(plug_in.calls() == 1, "the plug-in's handler was not called");
    plug_in.end();
    return EXIT_SUCCESS;
}
