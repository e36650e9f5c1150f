// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What the hosts of plug-ins share. They are C programs: whatever C++ needs comes with the plug-in.
#ifndef SORVANE_TESTS_DISTURBED_HOSTS_HOST_H
#define SORVANE_TESTS_DISTURBED_HOSTS_HOST_H

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

struct plug_in {
    void* handle;
    void (*begin)(void);
    void (*end)(void);
    unsigned int (*calls)(void);
};

// Ends the host, as failed.
static inline void fail(const char* what) {
    fprintf(stderr, "%s\n", what);
    exit(EXIT_FAILURE);
}

static inline void expect(int holds, const char* what) {
    if (!holds) {
        fail(what);
    }
}

// An object pointer becomes a function pointer in no way that C knows.
static inline void find(const struct plug_in* plug_in, const char* name, void* function) {
    void* const symbol = dlsym(plug_in->handle, name);
    expect(symbol != NULL, name);
    memcpy(function, &symbol, sizeof(symbol));
}

static inline struct plug_in load(const char* path) {
    struct plug_in plug_in;
    plug_in.handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (plug_in.handle == NULL) {
        fail(dlerror());
    }
    find(&plug_in, "plugInBegin", &plug_in.begin);
    find(&plug_in, "plugInEnd", &plug_in.end);
    find(&plug_in, "plugInCalls", &plug_in.calls);
    return plug_in;
}

#endif
