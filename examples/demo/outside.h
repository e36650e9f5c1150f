// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Somebody else: another process, which sends signals to this one when it is told to.
#ifndef DEMO_OUTSIDE_H
#define DEMO_OUTSIDE_H

#include <sys/types.h>

#include "calls.h"

namespace demo {

class Outside {
public:
    /// Starts the process.
    Outside();
    Outside(const Outside&) = delete;
    Outside& operator=(const Outside&) = delete;

    /// Have a signal sent, as kill() and as sigqueue() do it. It is on its way when they return.
    Sent kill(int signalNumber);
    Sent queue(int signalNumber, int value);

    /// Lets the process end.
    void leave();

    pid_t process() const { return m_process; }

private:
    struct Command {
        int signalNumber;
        bool queued;
        int value;
    };
    static int obey(pid_t target, int commands, int answers);
    static int send(pid_t target, const Command& command);
    void order(const Command& command);

    pid_t m_process = -1;
    int m_commands = -1;  ///< where commands are written
    int m_answers = -1;   ///< where answers are read
};

}  // namespace demo

#endif
