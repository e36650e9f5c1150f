// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svsignalevents.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "../support/svfailure.h"
#include "../support/svsignalset.h"
#include "svsharedstate.h"
#include "svsignalqueue.h"

namespace Sorvane {

namespace {

constexpr unsigned int lineNoMemory = 41;
constexpr unsigned int lineNoDescriptor = 44;

SVFailure failure(const char* message, unsigned int line, svexceptiontype type, int code) noexcept {
    return SVFailure(message, "libsrc/utilities/svsignalevents", line, type, code);
}

void throwForMemory() {
    failure("Unable to allocate space for signal events.", lineNoMemory,
            svexceptionAllocationFailed, 0)
        .throwIfAny();
}

}  // namespace

/// Those that there are, ended in the order opposite to that of their beginnings.
class SVSignalEvents::Subscriptions final : public SVObject {
public:
    Subscriptions() noexcept = default;
    Subscriptions(const Subscriptions&) = delete;
    Subscriptions& operator=(const Subscriptions&) = delete;
    ~Subscriptions() noexcept override {
        while (m_count > 0) {
            delete m_all[--m_count];
        }
    }

    void add(int signalNumber, SVSignalEvents* events, SVIgnoredSignal ignored) {
        if (m_signals.hasQ(signalNumber)) {
            return;
        }
        auto* const added = new SVSignalSubscription(signalNumber, arrive, events, ignored);
        if (added == nullptr) {
            throwForMemory();
        }
        m_all[m_count++] = added;
        m_signals.add(signalNumber);
    }

    bool activeQ() const noexcept {
        return std::all_of(m_all, m_all + m_count,
                           [](const SVSignalSubscription* one) { return one->activeQ(); });
    }

    void renew() {
        std::for_each(m_all, m_all + m_count, [](SVSignalSubscription* one) { one->renew(); });
    }

private:
    SVSignalSet m_signals;
    SVSignalSubscription* m_all[highestSignal] = {};
    unsigned int m_count = 0;
};

SVSignalEvents::SVSignalEvents(std::initializer_list<int> signalNumbers, unsigned int capacity,
                               SVIgnoredSignal ignored)
    : SVSignalEvents(signalNumbers.begin(), signalNumbers.end(), capacity, ignored) {}

SVSignalEvents::SVSignalEvents(const int* first, const int* last, unsigned int capacity,
                               SVIgnoredSignal ignored)
    : m_forks(svforks.load()) {
    try {
        m_descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (m_descriptor < 0) {
            failure("Unable to make a file descriptor for signal events.", lineNoDescriptor,
                    svexceptionOperatingSystemCallFailed, errno)
                .throwIfAny();
        }
        m_queue = SVSignalQueue::make(capacity);
        m_subscriptions = new Subscriptions;
        if (m_queue == nullptr || m_subscriptions == nullptr) {
            throwForMemory();
        }
        for (; first != last; ++first) {
            m_subscriptions->add(*first, this, ignored);
        }
    } catch (...) {
        release();
        throw;
    }
}

SVSignalEvents::~SVSignalEvents() noexcept {
    release();
}

// The queue and the descriptor after the subscriptions: no handler uses them any more by then.
void SVSignalEvents::release() noexcept {
    delete m_subscriptions;
    delete m_queue;
    if (m_descriptor >= 0) {
        close(m_descriptor);
    }
}

bool SVSignalEvents::activeQ() const noexcept {
    return !inForkedChildQ() && m_subscriptions->activeQ();
}

bool SVSignalEvents::renew() {
    if (!inForkedChildQ()) {
        m_subscriptions->renew();
    }
    return activeQ();
}

// What a child would write to or read from the descriptor would be the parent's.
bool SVSignalEvents::inForkedChildQ() const noexcept {
    return m_forks != svforks.load();
}

// The descriptor can count no further than its end; then it is readable already.
void SVSignalEvents::tell() const noexcept {
    constexpr std::uint64_t one = 1;
    const ssize_t written = write(m_descriptor, &one, sizeof(one));
    static_cast<void>(written);
}

void SVSignalEvents::arrive(int, siginfo* information, void*, void* events) {
    SVSignalEvents& self = *static_cast<SVSignalEvents*>(events);
    if (information == nullptr || self.inForkedChildQ()) {
        return;
    }
    if (self.m_queue->put(*information)) {
        self.tell();
    } else {
        self.m_lost.fetch_add(1);
    }
}

// What arrives after the descriptor has been read makes it readable again; what arrived before is
// found then.
bool SVSignalEvents::next(siginfo& information) noexcept {
    if (inForkedChildQ()) {
        return false;
    }
    if (m_queue->take(information)) {
        return true;
    }
    std::uint64_t arrived = 0;
    const ssize_t length = read(m_descriptor, &arrived, sizeof(arrived));
    static_cast<void>(length);
    const bool found = m_queue->take(information);
    if (found) {
        tell();
    }
    return found;
}

}  // namespace Sorvane
