// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Leaves the main loop when SIGTERM or SIGINT arrives.
//
// The handler does the one thing that is always safe: it writes a byte into a pipe. Everything else
// is done by the main loop, which waits for that pipe beside whatever else it waits for. With the
// argument "wait" it waits for a signal of yours, such as Ctrl-C, and otherwise sends itself one.

#include <fcntl.h>
#include <poll.h>
#include <sorvane/svsignalhandlermanager.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string_view>

namespace {

int wakeUp[2];  // read by the main loop, written by the handler

void requestShutdown(int signalNumber) {
    const auto byte = static_cast<unsigned char>(signalNumber);
    // If the pipe is full, the loop has enough to wake up for.
    [[maybe_unused]] const ssize_t written = write(wakeUp[1], &byte, sizeof(byte));
}

int waitForShutdown() {
    pollfd waiting = {wakeUp[0], POLLIN, 0};
    while (poll(&waiting, 1, -1) < 0) {
        // The handler interrupts the wait, and the pipe is then readable.
        if (errno != EINTR) {
            return 0;
        }
    }
    unsigned char signalNumber = 0;
    return read(wakeUp[0], &signalNumber, sizeof(signalNumber)) == 1 ? signalNumber : 0;
}

}  // namespace

int main(int argc, char** argv) {
    const bool waitForUser = argc > 1 && std::string_view(argv[1]) == "wait";
    if (pipe2(wakeUp, O_CLOEXEC | O_NONBLOCK) != 0) {
        return 1;
    }

    Sorvane::SVSignalHandlerManager signals(true);
    signals.setHandlerFromFunction(SIGTERM, requestShutdown);
    signals.setHandlerFromFunction(SIGINT, requestShutdown);
    signals.startHandlingSignals();

    std::printf("process %d works until SIGTERM or SIGINT arrives\n", getpid());
    std::fflush(stdout);
    if (!waitForUser) {
        kill(getpid(), SIGTERM);
    }
    const int signalNumber = waitForShutdown();

    // From here on a second signal is ignored: what was begun is brought to an end.
    signals.stopHandlingSignals();
    std::printf("%s arrived, leaving in good order\n",
                signalNumber == SIGINT ? "SIGINT" : "SIGTERM");
    return signalNumber == 0 ? 1 : 0;
}
