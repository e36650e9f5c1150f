#include "svsignalevents.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "../support/svfailure.h"
#include "../support/svsignalnumber.h"
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

    void add(int signalNumber, SVSignalEvents* events) {
        auto* const added = new SVSignalSubscription(signalNumber, arrive, events);
        if (added == nullptr) {
            throwForMemory();
        }
        m_all[m_count++] = added;
    }

private:
    // No signal can be subscribed to twice with the same function for the same user.
    SVSignalSubscription* m_all[highestSignal] = {};
    unsigned int m_count = 0;
};

SVSignalEvents::SVSignalEvents(std::initializer_list<int> signalNumbers, unsigned int capacity)
    : SVSignalEvents(signalNumbers.begin(), signalNumbers.end(), capacity) {}

SVSignalEvents::SVSignalEvents(const int* first, const int* last, unsigned int capacity)
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
            m_subscriptions->add(*first, this);
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
