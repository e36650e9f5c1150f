// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Does a work a thousand times while callgrind counts, for tools/instructions.py.

#include <sorvane/svhashtable.h>
#include <sorvane/svsignalhandlermanager.h>
#include <sys/mman.h>
#include <valgrind/callgrind.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

using Sorvane::SVSignalHandlerManager;

constexpr int theSignal = SIGUSR1;
constexpr int times = 1000;

template <typename Work>
void count(Work work) {
    work();
    CALLGRIND_TOGGLE_COLLECT;
    for (int i = 0; i < times; ++i) {
        work();
    }
    CALLGRIND_TOGGLE_COLLECT;
}

using Handler = void (*)(int);

constexpr std::uintptr_t handlersAddress = 0x10000000;
constexpr std::size_t handlersSize = 4096;

// A function's address decides which slot it gets, and so how many instructions find it. The
// linker puts functions elsewhere with each change, and with each folder; these stay where they
// are.
void placeHandlers() {
    constexpr int returnInstruction = 0xc3;
    void* const wanted = reinterpret_cast<void*>(handlersAddress);
    void* const place = mmap(wanted, handlersSize, PROT_READ | PROT_WRITE,
                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    if (place != wanted) {
        std::perror("instructions: mmap");
        std::exit(1);
    }
    std::memset(place, returnInstruction, handlersSize);
    if (mprotect(place, handlersSize, PROT_READ | PROT_EXEC) != 0) {
        std::perror("instructions: mprotect");
        std::exit(1);
    }
}

Handler handlerNumber(int number) {
    return reinterpret_cast<Handler>(handlersAddress + static_cast<std::uintptr_t>(number) * 16);
}

void registerOn(SVSignalHandlerManager& manager, int records) {
    for (int i = 0; i < records; ++i) {
        manager.setHandlerFromFunction(theSignal, handlerNumber(i));
    }
}

}  // namespace

int main(int argumentCount, char** arguments) {
    const std::string_view work = argumentCount > 1 ? arguments[1] : "";
    const int size = argumentCount > 2 ? std::atoi(arguments[2]) : 1;
    placeHandlers();
    SVSignalHandlerManager manager(true);
    registerOn(manager, size);
    manager.startHandlingSignals();
    if (work == "dispatch") {
        siginfo_t information = {};
        count([&] { actualSignalHandler(theSignal, &information, nullptr); });
    } else if (work == "replace") {
        count([&] { manager.setHandlerFromFunction(theSignal, handlerNumber(0)); });
    } else if (work == "pair") {
        const Handler last = handlerNumber(200);
        count([&] {
            manager.setHandlerFromFunction(theSignal, last);
            manager.clearHandlerWithFunction(theSignal, last);
        });
    } else if (work == "hit") {
        Sorvane::SVHashTable<int, long> table;
        for (int key = 0; key < 100; ++key) {
            table.insert(key, key);
        }
        volatile long sum = 0;
        count([&] { sum = sum + table.get(42)->value; });
    } else {
        std::fprintf(stderr, "instructions: no such work\n");
        return 2;
    }
    return 0;
}
