// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Signals as events in a loop of libuv.

#include <gtest/gtest.h>
#include <pthread.h>
#include <sorvane/svsignalevents.h>
#include <uv.h>

#include <csignal>
#include <vector>

#include "support/joining_thread.h"
#include "support/manager_fixture.h"
#include "support/sanitizers.h"

namespace {

using Sorvane::SVSignalEvents;

constexpr int count = 500;

struct Reader {
    SVSignalEvents events{SIGRTMIN, SIGUSR1};
    uv_loop_t loop = {};
    uv_poll_t poll = {};
    std::vector<int> values;
};

void takeAll(uv_poll_t* poll, int status, int) {
    ASSERT_EQ(status, 0);
    Reader& reader = *static_cast<Reader*>(poll->data);
    siginfo information = {};
    while (reader.events.next(information)) {
        if (information.si_signo == SIGUSR1) {
            uv_poll_stop(poll);
        } else {
            reader.values.push_back(information.si_value.sival_int);
        }
    }
}

TEST(SignalEventsInLibuv, ComeInTheirOrderWholeAndAll) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "signals are delivered one after the other here";
    }
    Reader reader;
    ASSERT_EQ(uv_loop_init(&reader.loop), 0);
    ASSERT_EQ(uv_poll_init(&reader.loop, &reader.poll, reader.events.getFileDescriptor()), 0);
    reader.poll.data = &reader;
    ASSERT_EQ(uv_poll_start(&reader.poll, UV_READABLE, takeAll), 0);
    std::vector<int> expected;
    // To one thread, because two that take them in turns may meet in the handler.
    JoiningThread sender([receiver = pthread_self()] {
        for (int value = 0; value < count; ++value) {
            sigval sent = {};
            sent.sival_int = value;
            pthread_sigqueue(receiver, SIGRTMIN, sent);
        }
    });
    for (int value = 0; value < count; ++value) {
        expected.push_back(value);
    }
    sender.join();
    raise(SIGUSR1);
    EXPECT_EQ(uv_run(&reader.loop, UV_RUN_DEFAULT), 0);
    EXPECT_EQ(reader.values, expected);
    EXPECT_EQ(reader.events.lost(), 0U);
    uv_close(reinterpret_cast<uv_handle_t*>(&reader.poll), nullptr);
    uv_run(&reader.loop, UV_RUN_DEFAULT);
    EXPECT_EQ(uv_loop_close(&reader.loop), 0);
}

// The loop catches that itself, after us, and is told as well.
TEST(SignalEventsInLibuv, LeaveTheLoopsOwnSignalsToIt) {
    uv_loop_t loop = {};
    uv_signal_t watcher = {};
    ASSERT_EQ(uv_loop_init(&loop), 0);
    ASSERT_EQ(uv_signal_init(&loop, &watcher), 0);
    unsigned int told = 0;
    watcher.data = &told;
    ASSERT_EQ(uv_signal_start(
                  &watcher,
                  [](uv_signal_t* handle, int) {
                      ++*static_cast<unsigned int*>(handle->data);
                      uv_signal_stop(handle);
                  },
                  SIGUSR2),
              0);
    {
        SVSignalEvents events({SIGUSR2});
        raise(SIGUSR2);
        EXPECT_EQ(uv_run(&loop, UV_RUN_DEFAULT), 0);
        EXPECT_EQ(told, 1U);
        siginfo information = {};
        EXPECT_TRUE(events.next(information));
    }
    uv_close(reinterpret_cast<uv_handle_t*>(&watcher), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    EXPECT_EQ(uv_loop_close(&loop), 0);
}

}  // namespace
