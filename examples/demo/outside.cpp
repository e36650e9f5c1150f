// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "outside.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "process.h"
#include "report.h"
#include "signals.h"

namespace demo {

namespace {

std::array<int, 2> makePipe() {
    std::array<int, 2> ends{};
    require(pipe2(ends.data(), O_CLOEXEC) == 0, "no pipe");
    return ends;
}

bool readInTime(int descriptor, void* target, std::size_t size) {
    const Deadline deadline(patienceInSeconds);
    pollfd waiting = {descriptor, POLLIN, 0};
    return poll(&waiting, 1, deadline.remainingMilliseconds()) == 1 &&
           read(descriptor, target, size) == static_cast<ssize_t>(size);
}

}  // namespace

Outside::Outside() {
    const std::array<int, 2> commands = makePipe();
    const std::array<int, 2> answers = makePipe();
    const pid_t target = getpid();
    m_process = startProcess([target, commands, answers] {
        close(commands[1]);
        close(answers[0]);
        return obey(target, commands[0], answers[1]);
    });
    require(m_process > 0, "no other process");
    close(commands[0]);
    close(answers[1]);
    m_commands = commands[1];
    m_answers = answers[0];
}

Sent Outside::kill(int signalNumber) {
    order(Command{signalNumber, false, 0});
    return Sent{signalNumber, SI_USER, m_process, 0, nullptr};
}

Sent Outside::queue(int signalNumber, int value) {
    order(Command{signalNumber, true, value});
    return Sent{signalNumber, SI_QUEUE, m_process, value, nullptr};
}

void Outside::leave() {
    close(m_commands);
    close(m_answers);
    const Ending ending = awaitEnd(m_process);
    require(ending.isStatus(0), "the process that sends the signals " + ending.text());
}

// The other process's whole life: until nobody can give it commands any more.
int Outside::obey(pid_t target, int commands, int answers) {
    Command command = {};
    while (read(commands, &command, sizeof(command)) == static_cast<ssize_t>(sizeof(command))) {
        const int error = send(target, command);
        if (write(answers, &error, sizeof(error)) != static_cast<ssize_t>(sizeof(error))) {
            return 1;
        }
    }
    return 0;
}

int Outside::send(pid_t target, const Command& command) {
    sigval value = {};
    value.sival_int = command.value;
    const int result = command.queued ? sigqueue(target, command.signalNumber, value)
                                      : ::kill(target, command.signalNumber);
    return result == 0 ? 0 : errno;
}

void Outside::order(const Command& command) {
    const std::string name = nameOf(command.signalNumber);
    require(write(m_commands, &command, sizeof(command)) == static_cast<ssize_t>(sizeof(command)),
            "nobody is there to send " + name);
    int error = 0;
    require(readInTime(m_answers, &error, sizeof(error)),
            "nobody answers whether " + name + " was sent");
    require(error == 0, name + " could not be sent: " + std::strerror(error));
}

}  // namespace demo
