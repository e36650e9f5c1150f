// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Other processes, and memory that is shared with them.
#ifndef DEMO_PROCESS_H
#define DEMO_PROCESS_H

#include <sys/mman.h>
#include <sys/types.h>

#include <ctime>
#include <functional>
#include <new>
#include <string>

namespace demo {

/// How long anything is waited for before the program says that it did not happen.
constexpr int patienceInSeconds = 10;

/// The moment after which a wait is over, and how much of the time is left.
class Deadline {
public:
    explicit Deadline(int seconds);
    timespec remaining() const;
    int remainingMilliseconds() const;
    bool over() const;

private:
    timespec m_moment;
};

/// How a process ended.
struct Ending {
    enum Kind { exited, killedBySignal, notInTime, neverStarted };
    Kind kind;
    int number;  ///< the status, or the signal

    bool isStatus(int status) const { return kind == exited && number == status; }
    std::string text() const;
};

/// Lets awaitEnd() wait for the end of processes. To be called before the first one is started.
void keepEndsOfProcesses();

/// Starts a process that does one thing and ends with its result as the status. It does not
/// outlive the process that started it. Below 0 when there can be none; awaitEnd() says so.
pid_t startProcess(const std::function<int()>& body);

/// Waits until a process has ended; ends it by force when that takes too long.
Ending awaitEnd(pid_t process, int seconds = patienceInSeconds);

/// Makes an object that the processes started later share. It is never taken away.
template <typename T>
T* makeShared() {
    void* const memory =
        mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? nullptr : new (memory) T();
}

}  // namespace demo

#endif
