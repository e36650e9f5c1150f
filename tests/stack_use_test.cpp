// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// How much of its thread's signal stack a dispatch takes for itself, beside what the kernel puts
// there and what the handlers take.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <vector>

#include "support/emulation.h"
#include "support/manager_fixture.h"
#include "support/sanitizers.h"

namespace {

constexpr int theSignal = SIGUSR1;
constexpr std::size_t most = 1024;
constexpr unsigned char untouched = 0xa5;

const unsigned char* kernelsFrame = nullptr;

// What the kernel puts there for a handler ends with these two, in an order of its own.
void noteContext(int, siginfo* information, void* context) {
    kernelsFrame = std::min(reinterpret_cast<const unsigned char*>(information),
                            static_cast<const unsigned char*>(context));
}

class SignalStack : public OneManagerTest {
protected:
    SignalStack() : m_stack(std::size_t{64} * 1024) {
        stack_t own = {};
        own.ss_sp = m_stack.data();
        own.ss_size = m_stack.size();
        sigaltstack(&own, &m_former);
    }
    ~SignalStack() noexcept override { sigaltstack(&m_former, nullptr); }

    void SetUp() override {
        if (builtWithAddressSanitizer || builtWithThreadSanitizer || underValgrindQ() || emulated) {
            GTEST_SKIP() << "others are on the stack here";
        }
    }

    // From the kernel's frame to the lowest byte that was written.
    std::size_t usedBy(void (*deliver)()) {
        deliver();
        std::ranges::fill(m_stack, untouched);
        kernelsFrame = nullptr;
        deliver();
        const auto lowest =
            std::ranges::find_if(m_stack, [](unsigned char byte) { return byte != untouched; });
        return kernelsFrame == nullptr ? m_stack.size()
                                       : static_cast<std::size_t>(kernelsFrame - &*lowest);
    }

private:
    std::vector<unsigned char> m_stack;
    stack_t m_former = {};
};

void raiseIt() {
    raise(theSignal);
}

TEST_F(SignalStack, OfADispatchIsNotMoreThanAKilobyte) {
    m_manager.setHandlerFromFunction(theSignal, noteContext);
    m_manager.startHandlingSignals();
    const std::size_t used = usedBy(raiseIt);
    EXPECT_GT(used, 100U);
    EXPECT_LE(used, most);
    std::printf("%zu bytes\n", used);
}

TEST_F(SignalStack, OfADispatchBesideTheHostsHandlerIsNotMore) {
    hostInstalls(theSignal, noteContext);
    m_manager.setHandlerFromFunction(theSignal, userHandler);
    m_manager.handleSignal(theSignal);
    m_manager.clearHandlerWithFunction(theSignal, userHandler);
    const std::size_t used = usedBy(raiseIt);
    EXPECT_GT(used, 100U);
    EXPECT_LE(used, most);
    std::printf("%zu bytes\n", used);
}

}  // namespace
