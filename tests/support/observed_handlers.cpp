// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "support/observed_handlers.h"

#include <../support/svatomicref.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <stdexcept>

namespace {

struct CallLog {
    static constexpr std::size_t capacity = 4096;

    std::atomic<std::size_t> count;
    HandlerCall calls[capacity];
};

static_assert(std::atomic<std::size_t>::is_always_lock_free);

// Made before main(), because a handler may not make it.
CallLog& makeCallLog() {
    void* const storage =
        mmap(nullptr, sizeof(CallLog), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (storage == MAP_FAILED) {
        std::perror("mmap for the notes of calls");
        std::abort();
    }
    return *new (storage) CallLog;
}

CallLog& callLog = makeCallLog();

std::size_t notesTaken() noexcept {
    return std::min(callCount(), CallLog::capacity);
}

}  // namespace

void noteCall(void* function, int signalNumber, siginfo* information, void* context) noexcept {
    const std::size_t index = callLog.count.fetch_add(1);
    if (index >= CallLog::capacity) {
        return;
    }
    HandlerCall& call = callLog.calls[index];
    call.function = function;
    call.signalNumber = signalNumber;
    call.information = information;
    if (information != nullptr) {
        call.informationCopy = *information;
    }
    call.context = context;
    call.thread = gettid();
    call.managers =
        Sorvane::SVAtomicRef<unsigned int>(Sorvane::SVSignalHandlerManager::numberOfManagers)
            .load();
}

void forgetCalls() noexcept {
    callLog.count.store(0);
}

std::size_t callCount() noexcept {
    return callLog.count.load();
}

const HandlerCall& callAt(std::size_t index) {
    if (index >= notesTaken()) {
        throw std::out_of_range("fewer calls were noted");
    }
    return callLog.calls[index];
}

const HandlerCall& lastCall() {
    return callAt(notesTaken() - 1);
}

std::vector<void*> calledFunctions() {
    std::vector<void*> functions;
    for (std::size_t i = 0; i < notesTaken(); ++i) {
        functions.push_back(callLog.calls[i].function);
    }
    return functions;
}

std::size_t callsOfAddress(const void* function) noexcept {
    std::size_t count = 0;
    for (std::size_t i = 0; i < notesTaken(); ++i) {
        count += callLog.calls[i].function == function ? 1 : 0;
    }
    return count;
}

void hostHandler(int signalNumber) {
    noteCall(addressOf(&hostHandler), signalNumber);
}

void otherHostHandler(int signalNumber) {
    noteCall(addressOf(&otherHostHandler), signalNumber);
}

void hostInformationHandler(int signalNumber, siginfo* information, void* context) {
    noteCall(addressOf(&hostInformationHandler), signalNumber, information, context);
}

void userHandler(int signalNumber) {
    noteCall(addressOf(&userHandler), signalNumber);
}

void otherUserHandler(int signalNumber) {
    noteCall(addressOf(&otherUserHandler), signalNumber);
}

void userInformationHandler(int signalNumber, siginfo* information, void* context) {
    noteCall(addressOf(&userInformationHandler), signalNumber, information, context);
}
