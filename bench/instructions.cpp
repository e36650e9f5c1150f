// Does a work a thousand times while callgrind counts, for tools/instructions.py.

#include <sorvane/svhashtable.h>
#include <sorvane/svsignalhandlermanager.h>
#include <valgrind/callgrind.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "handlers.h"

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

void registerOn(SVSignalHandlerManager& manager, int records) {
    for (int i = 0; i < records; ++i) {
        manager.setHandlerFromFunction(theSignal, Bench::handlers[static_cast<std::size_t>(i)]);
    }
}

}  // namespace

int main(int argumentCount, char** arguments) {
    const std::string_view work = argumentCount > 1 ? arguments[1] : "";
    const int size = argumentCount > 2 ? std::atoi(arguments[2]) : 1;
    SVSignalHandlerManager manager(true);
    registerOn(manager, size);
    manager.startHandlingSignals();
    if (work == "dispatch") {
        siginfo_t information = {};
        count([&] { actualSignalHandler(theSignal, &information, nullptr); });
    } else if (work == "replace") {
        count([&] { manager.setHandlerFromFunction(theSignal, Bench::handlers[0]); });
    } else if (work == "pair") {
        const Bench::Handler last = Bench::handlers.back();
        count([&] {
            manager.setHandlerFromFunction(theSignal, last);
            manager.clearHandlerWithFunction(theSignal, last);
        });
    } else if (work == "hit") {
        Sorvane::SVHashTable<int, long> table;
        for (int key = 0; key < 100; ++key) {
            table.insert(key, key);
        }
        count([&] { Bench::calls = Bench::calls + table.get(42)->value; });
    } else {
        std::fprintf(stderr, "instructions: no such work\n");
        return 2;
    }
    return 0;
}
