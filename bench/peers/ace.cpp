// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The works as ACE does them: several handlers for a signal, which are called inside its handler.

#include <ace/Event_Handler.h>
#include <ace/Sig_Handler.h>

#include <csignal>
#include <memory>
#include <vector>

#include "../threads.h"
#include "../works.h"
#include "installed.h"
#include "start_or_stop.h"

namespace {

constexpr int theSignal = SIGUSR1;

class Counting : public ACE_Event_Handler {
public:
    int handle_signal(int, siginfo_t*, ucontext_t*) override {
        Bench::calls = Bench::calls + 1;
        return 0;
    }
};

class Registered {
public:
    Registered(int signalNumber, int count) {
        for (int i = 0; i < count; ++i) {
            m_all.push_back(std::make_unique<Counting>());
            Bench::expect("registered",
                          m_handlers.register_handler(signalNumber, m_all.back().get()) >= 0, 1);
        }
    }

    ACE_Sig_Handlers& handlers() { return m_handlers; }

private:
    ACE_Sig_Handlers m_handlers;
    std::vector<std::unique_ptr<Counting>> m_all;
};

int delivered(int records) {
    const Registered registered(theSignal, records);
    return Bench::serveCounted(records, [] { Bench::raiseOnThisThread(theSignal); });
}

int direct(int records) {
    const Registered registered(theSignal, records);
    return Bench::serveDirect(theSignal, records);
}

int pair(int others) {
    Registered registered(theSignal, others);
    Counting last;
    const auto add = [&] { return registered.handlers().register_handler(theSignal, &last); };
    const auto remove = [&](int key) {
        registered.handlers().remove_handler(theSignal, nullptr, nullptr, key);
    };
    return Bench::serveWork([&] { remove(add()); },
                            [&](long) {
                                const int key = add();
                                Bench::expectCalls(others + 1,
                                                   [] { Bench::raiseOnThisThread(theSignal); });
                                remove(key);
                            });
}

// A registration is what installs, and a removal what gives back.
int startOrStop(bool starting, int count) {
    ACE_Sig_Handlers handlers;
    Counting counting;
    std::vector<int> keys(static_cast<std::size_t>(count));
    return Bench::serveStartOrStop(
        starting, count,
        [&](std::size_t index, int signalNumber) {
            keys[index] = handlers.register_handler(signalNumber, &counting);
        },
        [&](std::size_t index, int signalNumber) {
            handlers.remove_handler(signalNumber, nullptr, nullptr, keys[index]);
        });
}

int start(int count) {
    return startOrStop(true, count);
}

int stop(int count) {
    return startOrStop(false, count);
}

int raising(int threads) {
    const Registered first(SIGUSR1, 1);
    const Registered second(SIGUSR2, 1);
    return Bench::serveRaising(threads);
}

}  // namespace

int main(int count, char** arguments) {
    return Bench::serveNamed(count, arguments,
                             {{"delivered", &delivered},
                              {"direct", &direct},
                              {"pair", &pair},
                              {"start", &start},
                              {"stop", &stop},
                              {"raising", &raising}});
}
