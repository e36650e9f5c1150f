// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What bash takes for a builtin when it loads a shared object: "enable -f FILE NAME".
#ifndef SORVANE_HOSTS_BASH_BUILTIN_H
#define SORVANE_HOSTS_BASH_BUILTIN_H

struct BashWord {
    char* word;
    int flags;
};

struct BashWords {
    BashWords* next;
    BashWord* word;
};

/// Is looked for by the name NAME_struct.
struct BashBuiltin {
    const char* name;
    int (*function)(BashWords*);
    int flags;  ///< 1: enabled
    const char* const* help;
    const char* usage;
    char* handle;
};

#endif
