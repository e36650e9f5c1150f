// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Readers that are about to pin the tables when another thread begins to change them in place. They
// go on one by one, at each instruction of the change, and must not see it half made.

#include <../registry/svpin.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "stepped/arrivals.h"
#include "stepped/operations.h"
#include "stepped/other_thread.h"
#include "stepped/places.h"
#include "stepped/report.h"
#include "support/shared_state.h"
#include "support/stepping.h"

namespace {

const Operation* operation;
int theSignal;
Manager* reader;

constexpr std::size_t readerCount = 16;
OtherThread readers[readerCount];

void walk(std::size_t number) {
    Arrivals::byWalk(*reader, theSignal, number);
}

void prepare() {
    Arrivals::expect(theSignal == SIGSEGV ? States{{host}} : operation->states);
    operation->prepare();
    reader = new Manager(false);
}

// --- Where a reader pins, and where the change is made

struct Course {
    unsigned long pinned;  ///< instructions of a walk up to its pin
    unsigned long begin;   ///< instructions of the operation up to the first change of the table
    unsigned long end;     ///< and up to the last one
};

bool pinnedQ() {
    return Sorvane::SVPin::pinnedQ(Manager::handlerTables);
}

// Of the table itself: the outer one, and who has which, stay as they are.
class Contents {
public:
    bool changedQ() {
        const void* const slots = tableOf(theSignal)->smalltable;
        const bool changed = std::memcmp(&m_contents, slots, sizeof(m_contents)) != 0;
        std::memcpy(&m_contents, slots, sizeof(m_contents));
        return changed;
    }

private:
    unsigned char m_contents[sizeof(HandlerTable::smalltable)] = {};
};

Course findCourse() {
    Course* const course = reinterpret_cast<Course*>(report().picture);
    *course = {};
    runInChild([course] {
        prepare();
        const std::size_t number = Arrivals::add();
        step([number] { walk(number); },
             [course](const Standing&) {
                 ++course->pinned;
                 return !pinnedQ();
             });
        Contents contents;
        contents.changedQ();
        unsigned long instructions = 0;
        step(operation->operate, [&](const Standing&) {
            ++instructions;
            if (contents.changedQ()) {
                course->begin = course->begin == 0 ? instructions : course->begin;
                course->end = instructions;
            }
            return true;
        });
    });
    return *course;
}

// --- A meeting

Course course;
std::atomic<std::size_t> standing;
std::atomic<unsigned int> released;

// Stops so many instructions before it pins.
void walkAndStop(std::size_t number) {
    const unsigned long stop = course.pinned - 1 - number;
    unsigned long instructions = 0;
    step([number] { walk(number); },
         [&](const Standing&) {
             if (++instructions != stop) {
                 return true;
             }
             ++standing;
             for (unsigned int now = released; now <= number; now = released) {
                 sleepWhile(released, now);
             }
             return false;
         });
}

void releaseNext() {
    const OtherThread& next = readers[released];
    ++report().visited;
    ++released;
    wake(released);
    next.waitUntilDoneOrAtGate();
    report().waited += next.doneQ() ? 0 : 1;
}

// From one instruction on, each time that another one has been run.
void meet(unsigned long first) {
    prepare();
    for (OtherThread& other : readers) {
        other.begin();
        other.tell(walkAndStop, Arrivals::add());
    }
    for (const OtherThread& other : readers) {
        while (standing != readerCount) {
            other.waitUntilDoneOrAsleep();
        }
    }
    unsigned long instructions = 0;
    step(operation->operate, [&](const Standing&) {
        if (++instructions >= first && released < readerCount) {
            releaseNext();
        }
        return released < readerCount;
    });
    while (released < readerCount) {
        releaseNext();
    }
    for (std::size_t number = 0; number < readerCount; ++number) {
        readers[number].waitUntilDone();
        noteIfWrong(Arrivals::judge(number));
    }
}

class ReadersAboutToPin : public testing::TestWithParam<std::tuple<std::string, int>> {};

INSTANTIATE_TEST_SUITE_P(
    Each, ReadersAboutToPin,
    testing::Combine(testing::Values("ReplacesAUsersRecordByAnInvalidOneOfTheHosts",
                                     "ReplacesAnInvalidRecordOfTheHostsByAUsers", "ClearsARecord"),
                     testing::Values(SIGUSR1, SIGSEGV)),
    [](const auto& one) {
        return std::get<0>(one.param) +
               (std::get<1>(one.param) == SIGSEGV ? "_ForAFatalSignal" : "");
    });

TEST_P(ReadersAboutToPin, FindARecordBeforeItsChangeOrAfterIt) {
    SKIP_WITHOUT_STEPS();
    operation = &operationNamed(std::get<0>(GetParam()));
    theSignal = std::get<1>(GetParam());
    useSetting({false, theSignal});
    clearReport();
    course = findCourse();
    ASSERT_GT(course.pinned, readerCount);
    ASSERT_GT(course.begin, 0U) << "nothing was changed in place";
    constexpr unsigned long distance = readerCount / 2;
    for (unsigned long first = course.begin - distance; first < course.end + 1; first += distance) {
        runInChild([first] { meet(first); });
    }
    expectNothingWrong("readers");
}

}  // namespace
