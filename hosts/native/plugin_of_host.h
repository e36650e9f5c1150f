// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// How the hosts that are programs of this tree load the plug-in and call the probe.
#ifndef SORVANE_HOSTS_PLUGIN_OF_HOST_H
#define SORVANE_HOSTS_PLUGIN_OF_HOST_H

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

inline void* pluginOfHost = nullptr;

inline void loadPlugin() {
    if (const char* const path = std::getenv("SORVANE_HOSTS_LOAD")) {
        pluginOfHost = dlopen(path, RTLD_NOW);
        if (pluginOfHost == nullptr) {
            std::fprintf(stderr, "%s\n", dlerror());
            std::abort();
        }
    }
}

inline void unloadPlugin() {
    if (pluginOfHost != nullptr) {
        dlclose(pluginOfHost);
        pluginOfHost = nullptr;
    }
}

inline void takeSnapshot(const char* name) {
    using Take = void (*)(const char*);
    if (const auto take = reinterpret_cast<Take>(dlsym(RTLD_DEFAULT, "hosts_snapshot"))) {
        take(name);
    }
}

#endif
