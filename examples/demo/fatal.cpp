// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "fatal.h"

#include <poll.h>
#include <sorvane/svsignalhandlermanager.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "calls.h"
#include "handlers.h"
#include "inside.h"
#include "process.h"
#include "report.h"
#include "signals.h"

namespace demo {

namespace {

constexpr int livedOn = 3;

// A page behind the end of its file: it may be touched, but there is nothing to be found.
char* makePageBehindEndOfFile() {
    const int file = memfd_create("empty", MFD_CLOEXEC);
    const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* const page = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    require(file >= 0 && page != MAP_FAILED, "no page of an empty file");
    close(file);
    return static_cast<char*>(page);
}

void waitForSignals() {
    const Deadline deadline(patienceInSeconds);
    const timespec left = deadline.remaining();
    const sigset_t mask = openMask();
    ppoll(nullptr, 0, &left, &mask);
}

// Runs in a process of its own, whose host has no handler: what the one before had is forgotten.
template <typename Action>
int handleFatalSignal(int signalNumber, Action action) {
    require(std::signal(signalNumber, SIG_DFL) != SIG_ERR, "the host could not be made to forget");
    Sorvane::SVSignalHandlerManager manager(true);
    manager.setHandlerFromFunction(signalNumber, journal::onFatal);
    manager.setHandlerFromFunction(signalNumber, monitor::onFatal);
    manager.startHandlingSignals();
    action();
    return livedOn;
}

void confirmEnd(pid_t process, const Sent& sent) {
    const Ending ending = awaitEnd(process);
    require(ending.isStatus(0), "the process should have ended with status 0 after " +
                                    nameOf(sent.signalNumber) + ", and " + ending.text());
    say("");
    sayCallHeadings();
    expectCallsOfEndedProcess(sent, {"journal::onFatal", "monitor::onFatal"});
    say("ok  process " + std::to_string(process) + " " + ending.text());
}

void showFault(int signalNumber, int code, char* address) {
    const pid_t process = startProcess([signalNumber, address] {
        return handleFatalSignal(signalNumber, [address] { writeToPage(address, 'x'); });
    });
    confirmEnd(process, Sent{signalNumber, code, 0, 0, address});
}

// The signal may be sent before the process is ready for it: it is held back until it is waited
// for, and the process begins with that state.
void showHangup() {
    const pid_t process =
        startProcess([] { return handleFatalSignal(SIGHUP, [] { waitForSignals(); }); });
    require(kill(process, SIGHUP) == 0, "SIGHUP could not be sent");
    confirmEnd(process, Sent{SIGHUP, SI_USER, getpid(), 0, nullptr});
}

}  // namespace

void showFatalSignals() {
    showFault(SIGSEGV, SEGV_ACCERR, host::makeGuardedPage());
    showFault(SIGBUS, BUS_ADRERR, makePageBehindEndOfFile());
    showHangup();
}

}  // namespace demo
