// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The works as Boost.Asio does them: its handler writes to a pipe, and the context calls what
// waits.

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <cstddef>
#include <memory>
#include <vector>

#include "../loop.h"
#include "../works.h"
#include "start_or_stop.h"

namespace {

constexpr int theSignal = SIGUSR1;

boost::asio::io_context context;

void goRound() {
    context.poll();
}

// Counts each signal, and waits for the next one.
class Waiting {
public:
    Waiting() { wait(); }

    void add(int signalNumber) { m_set.add(signalNumber); }
    void remove(int signalNumber) { m_set.remove(signalNumber); }

private:
    void wait() {
        m_set.async_wait([this](const boost::system::error_code& error, int) {
            if (!error) {
                Bench::calls = Bench::calls + 1;
                wait();
            }
        });
    }

    boost::asio::signal_set m_set{context};
};

std::vector<std::unique_ptr<Waiting>> waitFor(int signalNumber, int count) {
    std::vector<std::unique_ptr<Waiting>> all;
    for (int i = 0; i < count; ++i) {
        all.push_back(std::make_unique<Waiting>());
        all.back()->add(signalNumber);
    }
    return all;
}

int looped(int records) {
    const auto all = waitFor(theSignal, records);
    return Bench::serveLooped(theSignal, records, &goRound);
}

int pair(int others) {
    const auto all = waitFor(theSignal, others);
    Waiting last;
    return Bench::serveWork(
        [&] {
            last.add(theSignal);
            last.remove(theSignal);
        },
        [&](long) {
            last.add(theSignal);
            Bench::raiseInLoop(theSignal, others + 1, &goRound);
            last.remove(theSignal);
            Bench::expect("calls", Bench::calls, others + 1);
            Bench::calls = 0;
        });
}

int startOrStop(bool starting, int count) {
    Waiting waiting;
    return Bench::serveStartOrStop(
        starting, count, [&](std::size_t, int signalNumber) { waiting.add(signalNumber); },
        [&](std::size_t, int signalNumber) { waiting.remove(signalNumber); });
}

int start(int count) {
    return startOrStop(true, count);
}

int stop(int count) {
    return startOrStop(false, count);
}

}  // namespace

int main(int count, char** arguments) {
    return Bench::serveNamed(
        count, arguments,
        {{"looped", &looped}, {"pair", &pair}, {"start", &start}, {"stop", &stop}});
}
