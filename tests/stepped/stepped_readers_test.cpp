// Readers that are about to pin the tables when another thread has already looked for pins and
// found none. They go on in the course of its change, and must not see it half made.

#include <../registry/svpin.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <tuple>

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

constexpr std::size_t readerCount = 32;
OtherThread readers[readerCount];

void walk(std::size_t number) {
    Arrivals::byWalk(*reader, theSignal, number);
}

void prepare() {
    Arrivals::expect(theSignal == SIGSEGV ? States{{host}} : operation->states);
    operation->prepare();
    reader = new Manager(false);
}

// --- Where a reader pins, and where the change begins

struct Course {
    unsigned long pinned;   ///< instructions of a walk up to its pin
    unsigned long changed;  ///< instructions of the operation up to the first change
};

bool pinnedQ() {
    return Sorvane::SVPin::pinnedQ(Manager::handlerTables);
}

Course findCourse() {
    Course* const found = reinterpret_cast<Course*>(report().picture);
    *found = {};
    runInChild([found] {
        prepare();
        const std::size_t number = Arrivals::add();
        step([number] { walk(number); },
             [found](const Standing&) {
                 ++found->pinned;
                 return !pinnedQ();
             });
        Watch watch(theSignal);
        step(operation->operate, [&](const Standing&) {
            ++found->changed;
            return !watch.justChangedQ();
        });
    });
    return *found;
}

// --- A meeting

Course course;
std::atomic<unsigned int> mayPin;
std::atomic<unsigned int> mayEnd;

std::size_t shift;

// Stops some instructions before it pins, and some more after it, if it does so.
void walkWithStops(std::size_t number) {
    constexpr unsigned long places = 16;
    constexpr unsigned long distance = 8;
    const unsigned long before = course.pinned - 1 - number % places;
    const unsigned long after = course.pinned + (number + shift) % places * distance;
    unsigned long instructions = 0;
    step([number] { walk(number); },
         [&](const Standing&) {
             ++instructions;
             if (instructions == before) {
                 sleepWhile(mayPin, 0);
             }
             for (unsigned int may = mayEnd; instructions == after && may <= number; may = mayEnd) {
                 sleepWhile(mayEnd, may);
             }
             return instructions < after;
         });
}

void waitUntilAllAreAsleep() {
    for (const OtherThread& other : readers) {
        other.waitUntilDoneOrAsleep();
    }
}

void letPin() {
    mayPin = 1;
    wake(mayPin);
    waitUntilAllAreAsleep();
}

void letNextEnd() {
    const OtherThread& next = readers[mayEnd];
    ++report().visited;
    ++mayEnd;
    wake(mayEnd);
    next.waitUntilDoneOrAtGate();
    report().waited += next.doneQ() ? 0 : 1;
}

// They pin just before the change, if they don't wait, and end one by one in the course of it.
void meet() {
    prepare();
    for (OtherThread& other : readers) {
        other.begin();
        other.tell(walkWithStops, Arrivals::add());
    }
    waitUntilAllAreAsleep();
    unsigned long instructions = 0;
    Watch watch(theSignal);
    step(operation->operate, [&](const Standing&) {
        if (++instructions + 1 == course.changed) {
            letPin();
        }
        if (watch.justChangedQ() && mayEnd < readerCount) {
            letNextEnd();
        }
        return mayEnd < readerCount;
    });
    while (mayEnd < readerCount) {
        letNextEnd();
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
                                     "ReplacesAnInvalidRecordOfTheHostsByAUsers",
                                     "RegistersSoThatTheTableGrows"),
                     testing::Values(SIGUSR1, SIGSEGV)),
    [](const auto& one) {
        const bool fatal = std::get<1>(one.param) == SIGSEGV;
        return std::get<0>(one.param) + (fatal ? "_ForAFatalSignal" : "");
    });

TEST_P(ReadersAboutToPin, FindARecordBeforeItsChangeOrAfterIt) {
    SKIP_WITHOUT_STEPS();
    operation = &operationNamed(std::get<0>(GetParam()));
    theSignal = std::get<1>(GetParam());
    useSetting({false, theSignal});
    clearReport();
    course = findCourse();
    ASSERT_GT(course.pinned, readerCount);
    for (shift = 0; shift < readerCount / 2; shift += readerCount / 8) {
        runInChild(meet);
    }
    expectNothingWrong("readers");
}

}  // namespace
