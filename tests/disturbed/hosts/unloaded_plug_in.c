// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A host whose plug-in, the only user of the library, clears its handlers, goes, and is unloaded. A
// signal that nobody had before the library still goes to the library, which must still be there.

#include <signal.h>

#include "host.h"

int main(int count, char** arguments) {
    struct plug_in plug_in;
    expect(count == 2, "usage: unloaded_plug_in PLUG_IN");
    plug_in = load(arguments[1]);
    plug_in.begin();
    raise(SIGUSR1);
    expect(plug_in.calls() == 1, "the signal was not handled");
    plug_in.end();
    expect(dlclose(plug_in.handle) == 0, "the plug-in was not closed");
    expect(dlopen(arguments[1], RTLD_NOW | RTLD_NOLOAD) == NULL, "the plug-in was not unloaded");
    raise(SIGUSR1);
    raise(SIGUSR1);
    return EXIT_SUCCESS;
}
