// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "handlers.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>

#include "calls.h"
#include "report.h"

using demo::noteCall;

namespace host {

namespace {

std::atomic<char*> guardedPage{nullptr};
std::atomic<std::size_t> pageSize{0};
static_assert(std::atomic<char*>::is_always_lock_free, "a signal handler reads it");

void protect(int protection) {
    // A plain call into the kernel, and therefore safe in a signal handler.
    if (mprotect(guardedPage.load(), pageSize.load(), protection) != 0) {
        std::abort();
    }
}

}  // namespace

void onUsr1(int signalNumber) {
    noteCall("host::onUsr1", signalNumber);
}

void onTerm(int signalNumber, siginfo* information, void* context) {
    noteCall("host::onTerm", signalNumber, information, context);
}

void repairPage(int signalNumber, siginfo* information, void* context) {
    noteCall("host::repairPage", signalNumber, information, context);
    if (information->si_addr != guardedPage.load()) {
        std::abort();
    }
    protect(PROT_READ | PROT_WRITE);
}

char* makeGuardedPage() {
    pageSize.store(static_cast<std::size_t>(sysconf(_SC_PAGESIZE)));
    void* const page =
        mmap(nullptr, pageSize.load(), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    demo::require(page != MAP_FAILED, "no page of memory");
    guardedPage.store(static_cast<char*>(page));
    return guardedPage.load();
}

void guardPageAgain() {
    protect(PROT_NONE);
}

}  // namespace host

namespace journal {

void onUsr1(int signalNumber) {
    noteCall("journal::onUsr1", signalNumber);
}

void onTerm(int signalNumber, siginfo* information, void* context) {
    noteCall("journal::onTerm", signalNumber, information, context);
}

void onUsr2(int signalNumber, siginfo* information, void* context) {
    noteCall("journal::onUsr2", signalNumber, information, context);
}

void onFatal(int signalNumber, siginfo* information, void* context) {
    noteCall("journal::onFatal", signalNumber, information, context);
}

}  // namespace journal

namespace monitor {

void onTerm(int signalNumber) {
    noteCall("monitor::onTerm", signalNumber);
}

void onUsr2(int signalNumber, siginfo* information, void* context) {
    noteCall("monitor::onUsr2", signalNumber, information, context);
}

void onTimer(int signalNumber, siginfo* information, void* context) {
    noteCall("monitor::onTimer", signalNumber, information, context);
}

void onRealTime(int signalNumber, siginfo* information, void* context) {
    noteCall("monitor::onRealTime", signalNumber, information, context);
}

void onUrgent(int signalNumber, siginfo* information, void* context) {
    noteCall("monitor::onUrgent", signalNumber, information, context);
    if (std::signal(signalNumber, SIG_DFL) == SIG_ERR) {
        std::abort();
    }
}

void onFatal(int signalNumber) {
    noteCall("monitor::onFatal", signalNumber);
}

}  // namespace monitor
