// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Loads the plug-in, lets it handle a signal and unloads it. The operating system still points into
// the library then: exits with 0 if the next signal finds it there.
#include <dlfcn.h>

#include <csignal>
#include <cstdio>

namespace {

template <typename Function>
Function* find(void* plugIn, const char* name) {
    return reinterpret_cast<Function*>(dlsym(plugIn, name));
}

int fail(const char* what) {
    std::fprintf(stderr, "plugin_host: %s\n", what);
    return 1;
}

}  // namespace

int main(int, char** arguments) {
    void* const plugIn = dlopen(arguments[1], RTLD_NOW | RTLD_LOCAL);
    if (plugIn == nullptr) {
        return fail(dlerror());
    }
    find<void()>(plugIn, "plugInBegin")();
    std::raise(SIGTERM);
    if (find<int()>(plugIn, "plugInCalls")() != 1) {
        return fail("the plug-in's handler was not called once");
    }
    find<void()>(plugIn, "plugInEnd")();
    if (dlclose(plugIn) != 0) {
        return fail(dlerror());
    }
    std::raise(SIGTERM);
    return 0;
}
