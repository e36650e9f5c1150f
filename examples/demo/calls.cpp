// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "calls.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>

#include "process.h"
#include "report.h"
#include "signals.h"

namespace demo {

namespace {

struct Call {
    const char* handler;
    int signalNumber;
    bool informed;  ///< told more than the signal's number
    siginfo information;
    const void* context;
};

struct CallLog {
    std::atomic<unsigned int> taken{0};     ///< places given to handlers
    std::atomic<unsigned int> complete{0};  ///< of these, written to the end
    std::array<Call, 256> calls{};
};
static_assert(std::atomic<unsigned int>::is_always_lock_free, "signal handlers use these");

CallLog* callLog = nullptr;
unsigned int callsRead = 0;

void writeCall(const Call& call) noexcept {
    const unsigned int index = callLog->taken.fetch_add(1);
    if (index < callLog->calls.size()) {
        callLog->calls[index] = call;
    }
    callLog->complete.fetch_add(1);
}

// Waits in ppoll() because it opens the mask and begins to wait in one step, as sigsuspend() does,
// but only for a time. The last one takes in what is on its way and was not expected.
void letSignalsArrive(unsigned int wanted) {
    const Deadline deadline(patienceInSeconds);
    const sigset_t mask = openMask();
    while (callLog->complete.load() < wanted && !deadline.over()) {
        const timespec left = deadline.remaining();
        ppoll(nullptr, 0, &left, &mask);
    }
    const timespec atOnce = {};
    ppoll(nullptr, 0, &atOnce, &mask);
}

bool pendingQ(int signalNumber) {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, signalNumber) == 1;
}

std::vector<Call> takeCalls() {
    const unsigned int complete = callLog->complete.load();
    require(complete <= callLog->calls.size(), "more handler calls than the log can hold");
    const std::vector<Call> calls(callLog->calls.begin() + callsRead,
                                  callLog->calls.begin() + complete);
    callsRead = complete;
    return calls;
}

std::string pointerText(const void* pointer) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%p", pointer);
    return text.data();
}

std::string senderText(int code, pid_t sender) {
    switch (code) {
        case SI_USER:
            return "kill, process " + std::to_string(sender);
        case SI_QUEUE:
            return "sigqueue, process " + std::to_string(sender);
        case SI_TIMER:
            return "a timer";
        default:
            return "a fault";
    }
}

std::string cargoText(int code, int value, const void* address) {
    switch (code) {
        case SI_USER:
            return "-";
        case SI_QUEUE:
        case SI_TIMER:
            return "value " + std::to_string(value);
        default:
            return "address " + pointerText(address);
    }
}

std::string textOf(const Sent& sent) {
    return nameOf(sent.signalNumber) + " (" + senderText(sent.code, sent.sender) + ", " +
           cargoText(sent.code, sent.value, sent.address) + ")";
}

bool carriesValue(int code) {
    return code == SI_QUEUE || code == SI_TIMER;
}

bool hasSender(int code) {
    return code == SI_QUEUE || code == SI_USER;
}

bool toldTheTruth(const Call& call, const Sent& sent) {
    if (call.signalNumber != sent.signalNumber) {
        return false;
    }
    if (!call.informed) {
        return true;
    }
    const siginfo& told = call.information;
    if (call.context == nullptr || told.si_signo != sent.signalNumber ||
        told.si_code != sent.code) {
        return false;
    }
    if (hasSender(sent.code) && told.si_pid != sent.sender) {
        return false;
    }
    if (carriesValue(sent.code)) {
        return told.si_value.sival_int == sent.value;
    }
    return hasSender(sent.code) || told.si_addr == sent.address;
}

void sayColumns(const std::string& signalName, const std::string& handler,
                const std::string& sender, const std::string& cargo) {
    std::array<char, 160> line{};
    std::snprintf(line.data(), line.size(), "%-12s %-22s %-28s %s", signalName.c_str(),
                  handler.c_str(), sender.c_str(), cargo.c_str());
    say(line.data());
}

void sayCall(const Call& call) {
    const siginfo& told = call.information;
    const std::string name = nameOf(call.signalNumber);
    if (!call.informed) {
        sayColumns(name, call.handler, "told the number only", "-");
    } else if (hasSender(told.si_code)) {
        sayColumns(name, call.handler, senderText(told.si_code, told.si_pid),
                   cargoText(told.si_code, told.si_value.sival_int, nullptr));
    } else if (carriesValue(told.si_code)) {
        sayColumns(name, call.handler, senderText(told.si_code, 0),
                   cargoText(told.si_code, told.si_value.sival_int, nullptr));
    } else {
        sayColumns(name, call.handler, senderText(told.si_code, 0),
                   cargoText(told.si_code, 0, told.si_addr));
    }
}

std::string namesOfHandlers(const std::vector<Call>& calls) {
    std::string names;
    for (const Call& call : calls) {
        names += (names.empty() ? "" : ", ") + std::string(call.handler);
    }
    return names.empty() ? "nobody" : names;
}

std::string namesOfHandlers(const std::vector<const char*>& handlers) {
    std::string names;
    for (const char* const handler : handlers) {
        names += (names.empty() ? "" : ", ") + std::string(handler);
    }
    return names.empty() ? "nobody" : names;
}

// Takes the call of a handler out of those of one delivery.
std::vector<Call>::iterator findCall(std::vector<Call>& calls, const char* handler) {
    return std::find_if(calls.begin(), calls.end(), [handler](const Call& call) {
        return std::strcmp(call.handler, handler) == 0;
    });
}

void compareDelivery(std::vector<Call> calls, const Sent& sent,
                     const std::vector<const char*>& handlers) {
    const std::string otherwise = textOf(sent) + " should have called " +
                                  namesOfHandlers(handlers) + ", and called " +
                                  namesOfHandlers(calls);
    require(calls.size() == handlers.size(), otherwise);
    for (const char* const handler : handlers) {
        const auto call = findCall(calls, handler);
        require(call != calls.end(), otherwise);
        sayCall(*call);
        require(toldTheTruth(*call, sent),
                std::string(handler) + " was not told the truth about " + textOf(sent));
        calls.erase(call);
    }
    if (handlers.empty()) {
        sayColumns(nameOf(sent.signalNumber), "(nobody)", senderText(sent.code, sent.sender),
                   cargoText(sent.code, sent.value, sent.address));
    }
}

// Deliveries of one signal follow one another, because a signal is blocked while it is handled.
void compareCalls(const std::vector<Call>& calls, const std::vector<Sent>& sent,
                  const std::vector<const char*>& handlers) {
    const auto callsInDelivery = static_cast<std::ptrdiff_t>(handlers.size());
    auto begin = calls.begin();
    for (const Sent& one : sent) {
        const bool last = &one == &sent.back();
        const auto rest = calls.end() - begin;
        const auto end = last ? calls.end() : begin + std::min(callsInDelivery, rest);
        compareDelivery(std::vector<Call>(begin, end), one, handlers);
        begin = end;
    }
}

}  // namespace

void makeCallLog() {
    callLog = makeShared<CallLog>();
    require(callLog != nullptr, "no shared memory");
}

void noteCall(const char* handler, int signalNumber) noexcept {
    writeCall(Call{handler, signalNumber, false, siginfo{}, nullptr});
}

void noteCall(const char* handler, int signalNumber, const siginfo* information,
              const void* context) noexcept {
    writeCall(Call{handler, signalNumber, true, *information, context});
}

void expectCalls(const std::vector<Sent>& sent, const std::vector<const char*>& handlers) {
    const auto wanted = static_cast<unsigned int>(sent.size() * handlers.size());
    letSignalsArrive(callsRead + wanted);
    for (const Sent& one : sent) {
        require(!pendingQ(one.signalNumber), textOf(one) + " did not arrive");
    }
    compareCalls(takeCalls(), sent, handlers);
}

void expectCallsOfEndedProcess(const Sent& sent, const std::vector<const char*>& handlers) {
    compareCalls(takeCalls(), {sent}, handlers);
}

void sayCallHeadings() {
    sayColumns("SIGNAL", "HANDLER", "SENT BY", "CARRIES");
}

}  // namespace demo
