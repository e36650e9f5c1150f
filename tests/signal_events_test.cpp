// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Signals as events: what an event loop gets of them.

#include <gtest/gtest.h>
#include <poll.h>
#include <sorvane/svsignalevents.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/failure.h"
#include "support/joining_thread.h"
#include "support/manager_fixture.h"
#include "support/sanitizers.h"
#include "support/stepping.h"

namespace {

using Sorvane::SVException;
using Sorvane::SVSignalEvents;

class SignalEvents : public ManagerTest {};

bool readableQ(const SVSignalEvents& events) {
    pollfd asked = {events.getFileDescriptor(), POLLIN, 0};
    return poll(&asked, 1, 0) == 1 && asked.revents == POLLIN;
}

std::vector<int> valuesIn(SVSignalEvents& events) {
    std::vector<int> values;
    siginfo information = {};
    while (events.next(information)) {
        values.push_back(information.si_value.sival_int);
    }
    return values;
}

void queueToThisProcess(int signalNumber, int value) {
    sigval sent = {};
    sent.sival_int = value;
    ASSERT_EQ(sigqueue(getpid(), signalNumber, sent), 0);
}

TEST_F(SignalEvents, MakeTheDescriptorReadableUntilAllAreTaken) {
    SVSignalEvents events({SIGUSR1, SIGUSR2});
    siginfo information = {};
    EXPECT_FALSE(readableQ(events));
    EXPECT_FALSE(events.next(information));
    raise(SIGUSR2);
    EXPECT_TRUE(readableQ(events));
    ASSERT_TRUE(events.next(information));
    EXPECT_EQ(information.si_signo, SIGUSR2);
    EXPECT_EQ(information.si_pid, getpid());
    EXPECT_FALSE(events.next(information));
    EXPECT_FALSE(readableQ(events));
}

TEST_F(SignalEvents, StayReadableWhileSomeAreLeft) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "signals are delivered one after the other here";
    }
    SVSignalEvents events({SIGRTMIN});
    siginfo information = {};
    for (int value = 1; value <= 3; ++value) {
        queueToThisProcess(SIGRTMIN, value);
    }
    for (int value = 1; value <= 3; ++value) {
        EXPECT_TRUE(readableQ(events));
        ASSERT_TRUE(events.next(information));
        EXPECT_EQ(information.si_value.sival_int, value);
    }
    EXPECT_FALSE(events.next(information));
    EXPECT_FALSE(readableQ(events));
}

TEST_F(SignalEvents, AreToldOfWhicheverInstructionOfTheSearchForOneTheyInterrupt) {
    SKIP_WITHOUT_STEPS();
    SVSignalEvents events({SIGRTMIN});
    const unsigned int instructions = atEachInstruction([&events](unsigned int instruction) {
        siginfo information = {};
        bool found = false;
        const bool disturbed = disturb([&] { found = events.next(information); }, instruction,
                                       [] {
                                           raise(SIGRTMIN);
                                           raise(SIGRTMIN);
                                       });
        EXPECT_EQ(readableQ(events), disturbed);
        EXPECT_EQ(valuesIn(events).size(), !disturbed ? 0U : found ? 1U : 2U);
        return disturbed;
    });
    EXPECT_GT(instructions, 20U);
}

TEST_F(SignalEvents, ComeInTheirOrderWholeAndAll) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "signals are delivered one after the other here";
    }
    constexpr int count = 500;
    SVSignalEvents events({SIGRTMIN});
    std::vector<int> expected;
    for (int value = 0; value < count; ++value) {
        queueToThisProcess(SIGRTMIN, value);
        expected.push_back(value);
    }
    EXPECT_EQ(valuesIn(events), expected);
    EXPECT_EQ(events.lost(), 0U);
}

TEST_F(SignalEvents, ThatFindNoPlaceAreCounted) {
    if (builtWithThreadSanitizer) {
        GTEST_SKIP() << "signals are delivered one after the other here";
    }
    SVSignalEvents events({SIGRTMIN}, 8);
    for (int value = 0; value < 20; ++value) {
        queueToThisProcess(SIGRTMIN, value);
    }
    const std::vector<int> values = valuesIn(events);
    EXPECT_EQ(values, std::vector<int>({0, 1, 2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(events.lost(), 12U);
    queueToThisProcess(SIGRTMIN, 20);
    EXPECT_EQ(valuesIn(events), std::vector<int>({20}));
}

TEST_F(SignalEvents, LeaveTheHostsHandlerCalled) {
    hostInstalls(SIGUSR1, hostHandler);
    {
        SVSignalEvents events({SIGUSR1});
        raise(SIGUSR1);
        siginfo information = {};
        EXPECT_TRUE(events.next(information));
        EXPECT_EQ(callsOf(hostHandler), 1U);
    }
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
}

TEST_F(SignalEvents, EndWithoutATrace) {
    const struct sigaction before = systemAction(SIGRTMIN);
    int descriptor = -1;
    {
        const SVSignalEvents events({SIGUSR1, SIGRTMIN});
        descriptor = events.getFileDescriptor();
        raise(SIGUSR1);
    }
    EXPECT_EQ(systemHandler(SIGUSR1), nullptr);
    EXPECT_EQ(systemAction(SIGRTMIN).sa_handler, before.sa_handler);
    EXPECT_EQ(systemAction(SIGRTMIN).sa_flags, before.sa_flags);
    EXPECT_EQ(close(descriptor), -1);
    EXPECT_EQ(Manager::numberOfManagers, 0U);
}

TEST_F(SignalEvents, GoToEachWhoAsksForThem) {
    SVSignalEvents one({SIGUSR1});
    SVSignalEvents another({SIGUSR1, SIGUSR2});
    raise(SIGUSR1);
    siginfo information = {};
    EXPECT_TRUE(one.next(information));
    EXPECT_TRUE(another.next(information));
}

TEST_F(SignalEvents, OfAThreadReachALoopOfEpollOnAnother) {
    constexpr int count = 2000;
    SVSignalEvents events({SIGRTMIN}, 64);
    const int loop = epoll_create1(EPOLL_CLOEXEC);
    epoll_event asked = {};
    asked.events = EPOLLIN;
    ASSERT_EQ(epoll_ctl(loop, EPOLL_CTL_ADD, events.getFileDescriptor(), &asked), 0);
    JoiningThread sender([] {
        for (int value = 0; value < count; ++value) {
            raise(SIGRTMIN);
        }
    });
    unsigned long found = 0;
    siginfo information = {};
    while (found + events.lost() < count) {
        epoll_event ready = {};
        ASSERT_EQ(epoll_wait(loop, &ready, 1, 10000), 1);
        while (events.next(information)) {
            ++found;
        }
    }
    sender.join();
    EXPECT_EQ(found + events.lost(), static_cast<unsigned long>(count));
    EXPECT_FALSE(readableQ(events));
    close(loop);
}

TEST_F(SignalEvents, OfAForkedChildReachNeitherItNorItsParent) {
    SVSignalEvents events({SIGRTMIN});
    queueToThisProcess(SIGRTMIN, 1);
    const ChildEnd end = inChild([&events] {
        queueToThisProcess(SIGRTMIN, 2);
        siginfo information = {};
        EXPECT_FALSE(events.next(information));
        SVSignalEvents own({SIGRTMIN});
        queueToThisProcess(SIGRTMIN, 3);
        EXPECT_EQ(valuesIn(own), std::vector<int>({3}));
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
    EXPECT_TRUE(readableQ(events)) << "what the parent has is untouched";
    EXPECT_EQ(valuesIn(events), std::vector<int>({1}));
    EXPECT_FALSE(readableQ(events));
}

TEST_F(SignalEvents, AreEndedInAForkedChildWithoutHarmToTheParent) {
    std::optional<SVSignalEvents> events(std::in_place, std::initializer_list<int>{SIGRTMIN});
    const ChildEnd end = inChild([&events] {
        events.reset();
        EXPECT_EQ(systemHandler(SIGRTMIN), nullptr);
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
    queueToThisProcess(SIGRTMIN, 1);
    EXPECT_EQ(valuesIn(*events), std::vector<int>({1}));
}

TEST_F(SignalEvents, OfASignalThatCannotBeHandledFailAndLeaveNothing) {
    EXPECT_THROW(SVSignalEvents({SIGUSR1, SIGKILL}), SVException);
    EXPECT_THROW(SVSignalEvents({SIGUSR1, SIGKILL}), SVException);
    EXPECT_EQ(systemHandler(SIGUSR1), nullptr);
    EXPECT_EQ(Manager::numberOfManagers, 0U);
}

TEST_F(SignalEvents, OfASignalThatIsNamedMoreThanOnceComeOnce) {
    hostInstalls(SIGPIPE, SIG_IGN);
    const std::vector<int> named(200, SIGPIPE);
    SVSignalEvents ignored(named.data(), named.data() + named.size());
    SVSignalEvents events({SIGUSR1, SIGUSR1});
    raise(SIGUSR1);
    siginfo information = {};
    EXPECT_TRUE(events.next(information));
    EXPECT_FALSE(events.next(information));
}

TEST_F(SignalEvents, OfASignalThatTheHostIgnoresComeIfTheUserSaysSo) {
    hostInstalls(SIGPIPE, SIG_IGN);
    SVSignalEvents leftAlone({SIGPIPE});
    EXPECT_FALSE(leftAlone.activeQ());
    SVSignalEvents events({SIGPIPE}, 16, Sorvane::SVIgnoredSignal::takeOver);
    EXPECT_TRUE(events.activeQ());
    raise(SIGPIPE);
    siginfo information = {};
    EXPECT_TRUE(events.next(information));
}

TEST_F(SignalEvents, TellWhetherSomebodyHasStoppedThemAndComeAgain) {
    SVSignalEvents events({SIGUSR1, SIGUSR2});
    EXPECT_TRUE(events.activeQ());
    Manager manager(false);
    manager.stopHandlingSignal(SIGUSR2);
    EXPECT_FALSE(events.activeQ());
    EXPECT_TRUE(events.renew());
    EXPECT_TRUE(events.activeQ());
    raise(SIGUSR2);
    siginfo information = {};
    EXPECT_TRUE(events.next(information));
    const ChildEnd end = inChild([&] {
        EXPECT_FALSE(events.activeQ());
        EXPECT_FALSE(events.renew());
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

TEST_F(SignalEvents, WithoutADescriptorFail) {
    if (builtWithAddressSanitizer) {
        GTEST_SKIP() << "the sanitizers need descriptors themselves";
    }
    const ChildEnd end = inChild([] {
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_NOFILE, &none);
        try {
            const SVSignalEvents events({SIGUSR1});
            ADD_FAILURE() << "nothing was thrown";
        } catch (const SVException& exception) {
            EXPECT_STREQ(exception.getMessage(),
                         "Unable to make a file descriptor for signal events.");
            EXPECT_EQ(exception.getType(), Sorvane::svexceptionOperatingSystemCallFailed);
            EXPECT_EQ(exception.getCode(), EMFILE);
        }
    });
    EXPECT_TRUE(end.wentOnQ()) << end;
}

TEST_F(SignalEvents, WithMorePlacesThanThereIsMemoryForFail) {
    try {
        const SVSignalEvents events({SIGUSR1}, 0xffffffffU);
        FAIL() << "nothing was thrown";
    } catch (const SVException& exception) {
        EXPECT_STREQ(exception.getMessage(), "Unable to allocate space for signal events.");
        EXPECT_EQ(exception.getType(), Sorvane::svexceptionAllocationFailed);
    }
    EXPECT_EQ(systemHandler(SIGUSR1), nullptr);
}

TEST_F(SignalEvents, ComeAndGoWhileSignalsArrive) {
    struct sigaction ignored = {};
    ignored.sa_handler = hostHandler;
    sigaction(SIGUSR1, &ignored, nullptr);
    std::atomic<bool> over{false};
    {
        const JoiningThread sender([&over] {
            while (!over) {
                raise(SIGUSR1);
            }
        });
        for (int round = 0; round < 300; ++round) {
            SVSignalEvents events({SIGUSR1}, 4);
            siginfo information = {};
            pollfd asked = {events.getFileDescriptor(), POLLIN, 0};
            EXPECT_EQ(poll(&asked, 1, 10000), 1);
            EXPECT_TRUE(events.next(information));
        }
        over = true;
    }
    EXPECT_EQ(systemHandler(SIGUSR1), addressOf(hostHandler));
}

}  // namespace
