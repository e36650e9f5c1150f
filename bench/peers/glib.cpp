// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The works as GLib does them: its handler wakes a thread of its own, which wakes the loop. It
// takes six signals only.

#include <glib-unix.h>

#include <csignal>

#include "../loop.h"
#include "../works.h"

namespace {

constexpr int theSignal = SIGUSR1;

void goRound() {
    g_main_context_iteration(nullptr, TRUE);
}

gboolean countCall(gpointer) {
    Bench::calls = Bench::calls + 1;
    return G_SOURCE_CONTINUE;
}

GSource* attach() {
    GSource* const source = g_unix_signal_source_new(theSignal);
    g_source_set_callback(source, &countCall, nullptr, nullptr);
    g_source_attach(source, nullptr);
    return source;
}

void detach(GSource* source) {
    g_source_destroy(source);
    g_source_unref(source);
}

void attachOthers(int count) {
    for (int i = 0; i < count; ++i) {
        attach();
    }
}

int looped(int records) {
    attachOthers(records);
    return Bench::serveLooped(theSignal, records, &goRound);
}

int pair(int others) {
    attachOthers(others);
    return Bench::serveWork([] { detach(attach()); },
                            [&](long) {
                                GSource* const source = attach();
                                Bench::raiseInLoop(theSignal, others + 1, &goRound);
                                detach(source);
                                Bench::expect("calls", Bench::calls, others + 1);
                                Bench::calls = 0;
                            });
}

}  // namespace

int main(int count, char** arguments) {
    return Bench::serveNamed(count, arguments, {{"looped", &looped}, {"pair", &pair}});
}
