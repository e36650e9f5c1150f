// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "disturbed/hands.h"

#include "support/faults.h"
#include "support/system_actions.h"

std::atomic<unsigned long> delivered;
std::atomic<unsigned long> received;

namespace {

const ClosedPage& page() {
    static const ClosedPage thePage;
    return thePage;
}

void count(int, siginfo_t*, void*) {
    ++received;
}

void repair(int, siginfo_t*, void*) {
    page().open();
    ++received;
}

void raiseUser1() {
    raise(SIGUSR1);
}

void fault() {
    page().close();
    writeTo(page().address());
}

}  // namespace

const Source raised = {SIGUSR1, count, raiseUser1};
const Source repaired = {SIGSEGV, repair, fault};

void deliverAndCount(const Source& source) {
    ++delivered;
    source.deliver();
}

bool hostsQ(const Source& source) {
    return systemHandler(source.signalNumber) == reinterpret_cast<void*>(source.handler);
}

Hands::Hands(const Source& source) : m_source(source) {
    hostInstalls(source.signalNumber, source.handler);
}

// Without a record the signal would not be taken over at first.
StartAndStop::StartAndStop(const Source& source) : Hands(source) {
    m_manager.setHandlerFromFunction(source.signalNumber, [](int) {});
}

void StartAndStop::takeOver() {
    m_manager.startHandlingSignals();
}

void StartAndStop::handBack() {
    m_manager.stopHandlingSignals();
}

HandleAndClear::HandleAndClear(const Source& source)
    : Hands(source), m_host(source.signalNumber, source.handler, true, true, true) {}

void HandleAndClear::takeOver() {
    m_manager.handleSignal(m_source.signalNumber);
}

void HandleAndClear::handBack() {
    m_manager.clearHandler(m_host);
}
