// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "stepped/report.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

namespace {

// Not 0, with which the library may end a process.
constexpr int exitAtTheEnd = 42;
constexpr int exitAfterFailure = 43;
constexpr unsigned int secondsForAll = 250;
constexpr unsigned int secondsForOne = 60;

void noteEnd(int status, std::uintptr_t place) {
    if (WIFEXITED(status) && WEXITSTATUS(status) == exitAtTheEnd) {
        return;
    }
    char reason[Report::reasonCapacity];
    if (WIFEXITED(status) && WEXITSTATUS(status) == exitAfterFailure) {
        std::snprintf(reason, sizeof(reason), "an expectation failed");
    } else if (WIFSIGNALED(status)) {
        std::snprintf(reason, sizeof(reason), "signal %d ended the process", WTERMSIG(status));
    } else {
        std::snprintf(reason, sizeof(reason), "the process ended with status %d",
                      WEXITSTATUS(status));
    }
    noteIfWrong(reason, place);
}

int waitFor(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
    }
    return status;
}

std::string firstPlace() {
    Dl_info place = {};
    const auto address = reinterpret_cast<void*>(report().firstWrongPlace);
    if (address == nullptr || dladdr(address, &place) == 0 || place.dli_sname == nullptr) {
        return "";
    }
    return std::string(", first in ") + place.dli_sname;
}

}  // namespace

Report& report() {
    static Report* const shared = [] {
        void* const storage = mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE,
                                   MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        return storage == MAP_FAILED ? nullptr : new (storage) Report{};
    }();
    if (shared == nullptr) {
        std::abort();
    }
    return *shared;
}

void clearReport() {
    new (&report()) Report{};
}

void noteIfWrong(const char* reason, std::uintptr_t place) {
    if (reason != nullptr && report().wrong.fetch_add(1) == 0) {
        report().firstWrongPlace = place;
        std::strncpy(report().firstReason, reason, Report::reasonCapacity - 1);
    }
}

void runInChild(const std::function<void()>& body) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        alarm(secondsForAll);
        body();
        std::fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? exitAfterFailure : exitAtTheEnd);
    }
    noteEnd(waitFor(child), 0);
}

// The library counts its managers for children that are forked by an ordinary handler, and none of
// those runs while the gate is closed.
bool goOnInChild(std::uintptr_t place) {
    using Manager = Sorvane::SVSignalHandlerManager;
    const unsigned int managers = Manager::numberOfManagers;
    const pid_t child = fork();
    if (child == 0) {
        Manager::numberOfManagers = managers;
        alarm(secondsForOne);
        return true;
    }
    noteEnd(waitFor(child), place);
    return false;
}

void expectNothingWrong(const char* what) {
    const Report& result = report();
    const unsigned long visited = result.visited;
    const unsigned long wrong = result.wrong;
    std::printf("%s: %lu instructions, visited: %lu, %lu wrong; %lu waited at the gate\n", what,
                result.instructions.load(), visited, wrong, result.waited.load());
    ::testing::Test::RecordProperty("visited", std::to_string(visited));
    ::testing::Test::RecordProperty("wrong", std::to_string(wrong));
    EXPECT_EQ(wrong, 0U) << result.firstReason << firstPlace();
    EXPECT_GT(visited, 0U);
}
