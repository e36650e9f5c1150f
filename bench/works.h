// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Which work a program does, as its arguments say: a name and, for most works, a size.
#ifndef SORVANE_BENCH_WORKS_H
#define SORVANE_BENCH_WORKS_H

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string_view>

namespace Bench {

struct Work {
    std::string_view name;
    int (*serve)(int size);
};

inline int serveNamed(int count, char** arguments, std::initializer_list<Work> works) {
    const std::string_view name = count > 1 ? arguments[1] : "";
    const int size = count > 2 ? std::atoi(arguments[2]) : 1;
    for (const Work& work : works) {
        if (work.name == name) {
            return work.serve(size);
        }
    }
    std::fprintf(stderr, "%s: no such work\n", arguments[0]);
    return 2;
}

}  // namespace Bench

#endif
