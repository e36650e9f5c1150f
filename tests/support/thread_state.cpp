// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "support/thread_state.h"

#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

std::ifstream fileOf(pid_t thread, const char* name) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/" + name);
    if (!file) {
        throw std::runtime_error("the system tells nothing about the thread");
    }
    return file;
}

// The fields behind the program's name, which may itself have spaces; the first one is the third.
std::string fieldOfStat(pid_t thread, int number) {
    std::string line;
    std::getline(fileOf(thread, "stat"), line);
    std::istringstream fields(line.substr(line.rfind(')') + 1));
    constexpr int firstNumber = 3;
    std::string field;
    for (int i = firstNumber; i <= number; ++i) {
        fields >> field;
    }
    return field;
}

}  // namespace

ThreadState::ThreadState() : m_thread(gettid()) {}

std::uint64_t ThreadState::heldBack() const {
    std::ifstream file = fileOf(m_thread, "status");
    std::string name;
    while (file >> name && name != "SigBlk:") {
        file.ignore(1000, '\n');
    }
    std::uint64_t signals = 0;
    file >> std::hex >> signals;
    return signals;
}

bool ThreadState::asleepQ() const {
    constexpr int fieldOfState = 3;
    return fieldOfStat(m_thread, fieldOfState) == "S";
}

long ThreadState::priority() const {
    constexpr int fieldOfPriority = 18;
    return std::stol(fieldOfStat(m_thread, fieldOfPriority));
}
