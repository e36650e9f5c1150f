// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "disturbed/limited_child.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <csignal>

#include "disturbed/waiting.h"
#include "support/system_actions.h"

namespace {

// As a shell would start it.
void beginAfresh() {
    const sigset_t none = setOf({});
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    for (int signalNumber = 1; signalNumber <= lastSystemSignal; ++signalNumber) {
        // Fails for the signals that nobody may change, which are then as they were.
        std::signal(signalNumber, SIG_DFL);
    }
}

bool endedQ(pid_t child) {
    siginfo_t information = {};
    return waitid(P_PID, static_cast<id_t>(child), &information, WEXITED | WNOHANG | WNOWAIT) ==
               0 &&
           information.si_pid == child;
}

}  // namespace

void endWithParent() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

ChildEnd waitLimited(ChildProcess& child, std::chrono::milliseconds patience) {
    if (!waitUpTo(patience, [&child] { return endedQ(child.pid()); })) {
        ADD_FAILURE() << "the child hung: it had not ended after " << patience.count() << " ms";
        kill(child.pid(), SIGKILL);
    }
    return child.wait();
}

ChildEnd inLimitedChild(const std::function<void()>& body, std::chrono::milliseconds patience) {
    ChildProcess child([&body] {
        endWithParent();
        beginAfresh();
        body();
    });
    return waitLimited(child, patience);
}

void expectToGoOn(const std::function<void()>& body, std::chrono::milliseconds patience) {
    const ChildEnd end = inLimitedChild(body, patience);
    EXPECT_TRUE(end.wentOnQ()) << end;
}
