#include "svownership.h"

#include <cstdint>
#include <cstring>

#include "../support/svhandlercontext.h"

namespace Sorvane {

constinit std::atomic<SVOwnership::Count> SVOwnership::counts[highestSignal + 1];

static_assert(std::atomic<SVOwnership::Count>::is_always_lock_free);

namespace {

struct HandBack {
    struct sigaction action;
    const void* thread;
};
constinit HandBack handBacks[highestSignal + 1] = {};

// The last signals that were sent on. Of two threads that share a place here, one may send a signal
// on more than once, which does no harm as long as it ends.
struct SentOn {
    const void* thread;
    int signalNumber;
    SVOwnership::Count count;
};
constexpr unsigned int sentOnCount = 64;
constinit SentOn sentOn[sentOnCount] = {};

SentOn& placeOf(const void* thread, int signalNumber) noexcept {
    const auto bits = static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(thread) >> 12U);
    return sentOn[(bits + static_cast<unsigned int>(signalNumber)) % sentOnCount];
}

}  // namespace

void SVOwnership::take(int signalNumber) noexcept {
    if (signalExistsQ(signalNumber) && !librarysQ(signalNumber)) {
        counts[signalNumber].fetch_add(1);
    }
}

void SVOwnership::handBack(int signalNumber, const struct sigaction& action) noexcept {
    if (signalExistsQ(signalNumber)) {
        handBacks[signalNumber] = HandBack{action, SVHandlerContext::thisThread()};
        counts[signalNumber].fetch_add(librarysQ(signalNumber) ? 1 : 2);
    }
}

struct sigaction& SVOwnership::actionOfHost(int signalNumber) noexcept {
    return handBacks[signalNumber].action;
}

bool SVOwnership::handedBackByThisThreadQ(int signalNumber) noexcept {
    return handBacks[signalNumber].thread == SVHandlerContext::thisThread();
}

bool SVOwnership::sendsOnFirstQ(int signalNumber) noexcept {
    const void* const thread = SVHandlerContext::thisThread();
    SentOn& last = placeOf(thread, signalNumber);
    const Count now = count(signalNumber);
    if (last.thread == thread && last.signalNumber == signalNumber && last.count == now) {
        return false;
    }
    last = SentOn{thread, signalNumber, now};
    return true;
}

// The C library's mask has room for more signals than there are.
bool svsameActionQ(const struct sigaction& one, const struct sigaction& other) noexcept {
    return one.sa_flags == other.sa_flags && one.sa_handler == other.sa_handler &&
           std::memcmp(&one.sa_mask, &other.sa_mask, highestSignal / 8) == 0;
}

}  // namespace Sorvane
