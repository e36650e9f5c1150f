// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "stepped/each_instruction.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "stepped/other_thread.h"
#include "stepped/places.h"
#include "stepped/report.h"
#include "support/stepping.h"
#include "support/system_actions.h"

namespace {

using Manager = Sorvane::SVSignalHandlerManager;

const Course* course;
constexpr std::size_t threadCount = 48;
OtherThread others[threadCount];

// --- How it arrives

Manager* walker;

void arrive(std::size_t number) {
    switch (course->arrive) {
        case Arrive::onThisThread:
        case Arrive::atSystemCall:
        case Arrive::onAnother:
            return Arrivals::bySignal(course->signalNumber, number);
        case Arrive::asFault:
            return Arrivals::byFault(number);
        case Arrive::asWalk:
            return Arrivals::byWalk(*walker, course->signalNumber, number);
    }
}

// The library forks in the middle of things here, which its first locking manager prepares.
void prepare() {
    Arrivals::expect(course->states);
    { const Manager preparesForFork(true); }
    course->prepare();
    if (course->arrive == Arrive::asWalk) {
        walker = new Manager(false);
    }
}

// --- How it ends

void keepPicture() {
    const std::string picture = pictureOfState(course->detail);
    if (picture.size() >= Report::pictureCapacity) {
        std::abort();
    }
    std::memcpy(report().picture, picture.c_str(), picture.size() + 1);
}

void comparePicture(std::uintptr_t place) {
    const std::string picture = pictureOfState(course->detail);
    if (picture == report().picture) {
        return;
    }
    noteIfWrong("the operation ended in another state", place);
    if (std::getenv("SORVANE_SHOW_STATES") != nullptr) {
        std::fprintf(stderr, "--- instead of\n%s--- there is\n%s", report().picture,
                     picture.c_str());
    }
}

// One arrival on this thread and one on another, after the operation.
void arriveAfterwards(std::uintptr_t place) {
    const std::size_t here = Arrivals::addLast();
    arrive(here);
    noteIfWrong(Arrivals::judge(here), place);
    if (!others[0].begunQ()) {
        others[0].begin();
    }
    const std::size_t there = Arrivals::addLast();
    others[0].tell(arrive, there);
    others[0].waitUntilDone();
    noteIfWrong(Arrivals::judge(there), place);
}

void judgeEnd(std::uintptr_t place) {
    for (OtherThread& other : others) {
        other.waitUntilDone();
    }
    for (std::size_t number = 0; number < Arrivals::count(); ++number) {
        noteIfWrong(Arrivals::judge(number), place);
    }
    comparePicture(place);
    arriveAfterwards(place);
    noteIfWrong(Arrivals::judgeStrays(), place);
    report().statesFound |= Arrivals::statesFound();
}

void runUndisturbed() {
    prepare();
    course->operate();
    keepPicture();
}

void expectAllFound(const char* what, bool allStates) {
    expectNothingWrong(what);
    if (allStates) {
        EXPECT_EQ(report().statesFound, (1U << course->states.size()) - 1)
            << "not each of the states was found";
    }
}

// --- Groups of instructions

class Groups {
public:
    bool after(const Standing& standing);
    bool disturbedQ() const { return m_disturbed; }
    std::uintptr_t begin() const { return m_begin; }

private:
    void visit(const Standing& standing);
    void visitOther(const Standing& standing);
    void visitThis(const Standing& standing);

    unsigned long m_rest = 0;
    unsigned long m_groups = 0;
    bool m_disturbed = false;
    std::uintptr_t m_begin = 0;
};

Selection selection;

constexpr unsigned long groupLength = 32;
static_assert(groupLength < threadCount);

// One group in so many is disturbed. Without optimisation there are several times as many
// instructions.
unsigned long oneGroupIn() {
#ifdef SORVANE_TESTS_UNOPTIMISED
    constexpr unsigned long distance = 8;
#else
    constexpr unsigned long distance = 2;
#endif
    return everyInstructionQ() ? 1 : distance;
}

bool Groups::after(const Standing& standing) {
    if (!m_disturbed) {
        ++report().instructions;
    }
    if (course->arrive == Arrive::atSystemCall ? !systemCallQ(standing)
                                               : !selection.selectsQ(standing)) {
        return true;
    }
    if (m_rest == 0 && forksQ(standing)) {
        if (m_disturbed) {
            return false;
        }
        m_rest = groupLength;
        if (m_groups++ % oneGroupIn() == 0) {
            m_begin = standing.next;
            m_disturbed = goOnInChild(standing.next);
        }
    }
    m_rest -= m_rest == 0 ? 0 : 1;
    if (m_disturbed) {
        visit(standing);
    }
    return true;
}

void Groups::visit(const Standing& standing) {
    if (course->arrive == Arrive::onThisThread || course->arrive == Arrive::atSystemCall) {
        visitThis(standing);
    } else {
        visitOther(standing);
    }
}

void Groups::visitThis(const Standing& standing) {
    ++report().visited;
    const std::size_t number = Arrivals::add();
    arrive(number);
    if (gateClosedQ() && Arrivals::anyCalledQ(number) && course->arrive == Arrive::onThisThread) {
        noteIfWrong("a signal came in while the gate was closed", standing.next);
    }
    if (heldBackQ(standing, course->signalNumber)) {
        ++report().waited;
    } else {
        noteIfWrong(Arrivals::judge(number), standing.next);
    }
}

// A thread that has nothing to do; null if none has, and none can be begun here.
OtherThread* idleThread(const Standing& standing) {
    for (OtherThread& other : others) {
        if (!other.begunQ() && beginsThreadsQ(standing)) {
            other.begin();
        }
        if (other.begunQ() && other.doneQ()) {
            return &other;
        }
    }
    return nullptr;
}

// Those that wait at the gate do so until it is open.
void Groups::visitOther(const Standing& standing) {
    OtherThread* const other = idleThread(standing);
    if (other == nullptr) {
        return;
    }
    const bool waits =
        gateClosedQ() && (course->arrive == Arrive::asWalk || takenOverQ(course->signalNumber));
    ++report().visited;
    const std::size_t number = Arrivals::add();
    other->tell(arrive, number);
    other->waitUntilDoneOrAtGate();
    if (!other->doneQ()) {
        ++report().waited;
        return;
    }
    noteIfWrong(Arrivals::judge(number), standing.next);
    if (waits) {
        noteIfWrong("a dispatch went on while the gate was closed", standing.next);
    }
}

void runByGroups() {
    prepare();
    Groups groups;
    step(course->operate, [&](const Standing& standing) { return groups.after(standing); });
    if (groups.disturbedQ()) {
        judgeEnd(groups.begin());
    }
}

// --- Staying in a handler

constexpr unsigned long runs = 2;

void letGoOn(std::size_t number) {
    ++report().visited;
    Arrivals::letGoOn(number);
    others[number].waitUntilDoneOrAtGate();
    if (!others[number].doneQ()) {
        ++report().waited;
    }
}

void runStaying(unsigned long instructions, unsigned long offset) {
    prepare();
    for (OtherThread& other : others) {
        other.begin();
        const std::size_t number = Arrivals::add();
        Arrivals::letStay(number);
        other.tell(arrive, number);
    }
    for (std::size_t number = 0; number < threadCount; ++number) {
        while (!Arrivals::staysQ(number)) {
            others[number].waitUntilDoneOrAsleep();
        }
    }
    const unsigned long distance = 2 * instructions / threadCount + 1;
    unsigned long instruction = offset * distance / runs;
    std::size_t next = 0;
    Watch watch(course->signalNumber);
    step(course->operate, [&](const Standing&) {
        const bool due = ++instruction % distance == 0;
        if ((watch.justChangedQ() || due) && next < threadCount) {
            letGoOn(next++);
        }
        return next < threadCount;
    });
    while (next < threadCount) {
        letGoOn(next++);
    }
    judgeEnd(0);
}

void countInstructions() {
    prepare();
    step(course->operate, [](const Standing&) {
        ++report().instructions;
        return true;
    });
}

// --- A dispatch that is stepped

void operate(std::size_t) {
    course->operate();
}

void operateMeanwhile(const Standing& standing) {
    ++report().visited;
    others[0].begin();
    others[0].tell(operate, 0);
    others[0].waitUntilDoneOrAsleep();
    if (!others[0].doneQ()) {
        noteIfWrong("an operation waits for a dispatch", standing.next);
    }
}

void runDispatch() {
    prepare();
    const std::size_t number = Arrivals::add();
    std::uintptr_t disturbedAt = 0;
    step(
        [number] { Arrivals::byDispatch(course->signalNumber, number); },
        [&](const Standing& standing) {
            ++report().instructions;
            if (!selection.selectsQ(standing) || !forksQ(standing) || !goOnInChild(standing.next)) {
                return true;
            }
            disturbedAt = standing.next;
            operateMeanwhile(standing);
            return false;
        });
    if (disturbedAt != 0) {
        judgeEnd(disturbedAt);
    }
}

}  // namespace

void arriveAtEachInstruction(const Course& given) {
    SKIP_WITHOUT_STEPS();
    course = &given;
    clearReport();
    runInChild(runUndisturbed);
    runInChild(runByGroups);
    expectAllFound("arrivals", oneGroupIn() <= 2 && course->arrive != Arrive::atSystemCall);
}

void goOnAtSomeInstructions(const Course& given) {
    SKIP_WITHOUT_STEPS();
    course = &given;
    clearReport();
    runInChild(runUndisturbed);
    runInChild(countInstructions);
    const unsigned long instructions = report().instructions;
    for (unsigned long offset = 0; offset < runs; ++offset) {
        runInChild([&] { runStaying(instructions, offset); });
    }
    expectAllFound("goings-on", false);
}

void operateAtEachInstructionOfADispatch(const Course& given) {
    SKIP_WITHOUT_STEPS();
    course = &given;
    clearReport();
    runInChild(runUndisturbed);
    runInChild(runDispatch);
    expectAllFound("operations", false);
}
