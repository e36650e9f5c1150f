// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Which signals the library may handle at all.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <csignal>
#include <limits>
#include <set>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/stepping.h"

namespace {

using Sorvane::SVSignalHandlerDispositionSet;

static_assert(std::is_nothrow_default_constructible_v<SVSignalHandlerDispositionSet>);
static_assert(std::is_nothrow_copy_constructible_v<SVSignalHandlerDispositionSet>);
static_assert(std::is_nothrow_copy_assignable_v<SVSignalHandlerDispositionSet>);
static_assert(
    std::is_same_v<decltype(std::declval<SVSignalHandlerDispositionSet>().getSignalDisposition(1)),
                   bool>);
static_assert(sizeof(SVSignalHandlerDispositionSet) <= sizeof(void*) + 16,
              "one bit for each signal, and how often they were replaced");

// Made before any code runs, as the manager's shared set has to be.
constinit SVSignalHandlerDispositionSet madeBeforeAnyCode;

constexpr int highestSignal = 60;
constexpr int outside[] = {0,
                           -1,
                           61,
                           62,
                           63,
                           64,
                           65,
                           1 + 64,
                           12 + 32 + 64,
                           1 - 64,
                           15 + 256,
                           1 << 30,
                           std::numeric_limits<int>::min(),
                           std::numeric_limits<int>::min() + 15,
                           std::numeric_limits<int>::max()};

std::set<int> handledSignals(SVSignalHandlerDispositionSet& dispositions) {
    std::set<int> handled;
    for (int signalNumber = 1; signalNumber <= highestSignal; ++signalNumber) {
        if (dispositions.getSignalDisposition(signalNumber)) {
            handled.insert(signalNumber);
        }
    }
    return handled;
}

std::set<int> handledAtFirst() {
    std::set<int> handled;
    for (int signalNumber = 1; signalNumber <= highestSignal; ++signalNumber) {
        handled.insert(signalNumber);
    }
    for (const int refused : {9, 19, 32, 33}) {
        handled.erase(refused);
    }
    return handled;
}

void setAll(SVSignalHandlerDispositionSet& dispositions, bool handle) {
    for (int signalNumber = 1; signalNumber <= highestSignal; ++signalNumber) {
        if (handle) {
            dispositions.handleSignal(signalNumber);
        } else {
            dispositions.doNotHandleSignal(signalNumber);
        }
    }
}

TEST(DispositionSet, AnswersYesAtFirstForAllSignalsBut9And19And32And33) {
    SVSignalHandlerDispositionSet dispositions;
    EXPECT_EQ(handledSignals(dispositions), handledAtFirst());
    EXPECT_EQ(SIGKILL, 9);
    EXPECT_EQ(SIGSTOP, 19);
}

TEST(DispositionSet, IsWholeBeforeAnyCodeRuns) {
    EXPECT_EQ(handledSignals(madeBeforeAnyCode), handledAtFirst());
}

TEST(DispositionSet, AnswersNoForEveryNumberOutside1To60) {
    SVSignalHandlerDispositionSet dispositions;
    for (const int signalNumber : outside) {
        EXPECT_FALSE(dispositions.getSignalDisposition(signalNumber)) << signalNumber;
    }
}

TEST(DispositionSet, SettingANumberOutside1To60ChangesNothing) {
    SVSignalHandlerDispositionSet dispositions;
    for (const int signalNumber : outside) {
        dispositions.doNotHandleSignal(signalNumber);
        EXPECT_EQ(handledSignals(dispositions), handledAtFirst()) << signalNumber;
    }
    setAll(dispositions, false);
    for (const int signalNumber : outside) {
        dispositions.handleSignal(signalNumber);
        EXPECT_FALSE(dispositions.getSignalDisposition(signalNumber)) << signalNumber;
        EXPECT_TRUE(handledSignals(dispositions).empty()) << signalNumber;
    }
}

TEST(DispositionSet, HandleSignalAnswersYesForThatSignalAndLeavesTheOthers) {
    for (int signalNumber = 1; signalNumber <= highestSignal; ++signalNumber) {
        SVSignalHandlerDispositionSet dispositions;
        setAll(dispositions, false);
        dispositions.handleSignal(signalNumber);
        EXPECT_EQ(handledSignals(dispositions), std::set<int>{signalNumber});
        dispositions.handleSignal(signalNumber);
        EXPECT_EQ(handledSignals(dispositions), std::set<int>{signalNumber});
    }
}

TEST(DispositionSet, DoNotHandleSignalAnswersNoForThatSignalAndLeavesTheOthers) {
    for (int signalNumber = 1; signalNumber <= highestSignal; ++signalNumber) {
        SVSignalHandlerDispositionSet dispositions;
        std::set<int> expected = handledAtFirst();
        expected.erase(signalNumber);
        dispositions.doNotHandleSignal(signalNumber);
        EXPECT_EQ(handledSignals(dispositions), expected);
        dispositions.doNotHandleSignal(signalNumber);
        EXPECT_EQ(handledSignals(dispositions), expected);
    }
}

TEST(DispositionSet, AnswersYesForTheRefusedFourOnceTheUserSaysSo) {
    SVSignalHandlerDispositionSet dispositions;
    for (const int signalNumber : {9, 19, 32, 33}) {
        dispositions.handleSignal(signalNumber);
        EXPECT_TRUE(dispositions.getSignalDisposition(signalNumber));
    }
}

TEST(DispositionSet, ResetReturnsEverySignalToItsInitialAnswer) {
    SVSignalHandlerDispositionSet dispositions;
    for (const bool handle : {true, false}) {
        setAll(dispositions, handle);
        ASSERT_NE(handledSignals(dispositions), handledAtFirst());
        dispositions.reset();
        EXPECT_EQ(handledSignals(dispositions), handledAtFirst());
    }
}

TEST(DispositionSet, AssignmentReplacesAllAnswers) {
    SVSignalHandlerDispositionSet source;
    source.doNotHandleSignal(2);
    source.doNotHandleSignal(60);
    source.handleSignal(33);
    for (const bool handle : {true, false}) {
        SVSignalHandlerDispositionSet target;
        setAll(target, handle);
        EXPECT_EQ(&(target = source), &target);
        EXPECT_EQ(handledSignals(target), handledSignals(source));
    }
}

TEST(DispositionSet, ACopyHasTheSameAnswersAndSharesNothing) {
    SVSignalHandlerDispositionSet original;
    original.doNotHandleSignal(2);
    original.doNotHandleSignal(60);
    SVSignalHandlerDispositionSet copy(original);
    const std::set<int> before = handledSignals(original);
    EXPECT_EQ(handledSignals(copy), before);
    copy.doNotHandleSignal(5);
    EXPECT_EQ(handledSignals(original), before);
    original.handleSignal(2);
    EXPECT_FALSE(copy.getSignalDisposition(2));
}

TEST(DispositionSet, AssignmentToItselfChangesNothing) {
    SVSignalHandlerDispositionSet dispositions;
    dispositions.doNotHandleSignal(2);
    const std::set<int> before = handledSignals(dispositions);
    const SVSignalHandlerDispositionSet& same = dispositions;
    dispositions = same;
    EXPECT_EQ(handledSignals(dispositions), before);
}

// Each thread changes one signal only; the answers of the others must survive that.
TEST(DispositionSet, ThreadsThatSetDifferentSignalsDoNotDisturbEachOther) {
    constexpr int rounds = 250000;
    SVSignalHandlerDispositionSet dispositions;
    std::vector<std::thread> threads;
    std::vector<int> lost(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&dispositions, &lost, i] {
            const int signalNumber = 1 + i;
            for (int round = 0; round < rounds; ++round) {
                dispositions.doNotHandleSignal(signalNumber);
                lost[static_cast<std::size_t>(i)] +=
                    dispositions.getSignalDisposition(signalNumber) ? 1 : 0;
                dispositions.handleSignal(signalNumber);
                lost[static_cast<std::size_t>(i)] +=
                    dispositions.getSignalDisposition(signalNumber) ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(lost, std::vector<int>(4));
    EXPECT_EQ(handledSignals(dispositions), handledAtFirst());
}

// Whichever of the two comes last, all answers are its own.
TEST(DispositionSet, AssignmentThatAnotherOneInterruptsLeavesThatWhole) {
    SKIP_WITHOUT_STEPS();
    SVSignalHandlerDispositionSet none;
    SVSignalHandlerDispositionSet odd;
    for (int signalNumber = 1; signalNumber <= highestSignal; ++signalNumber) {
        none.doNotHandleSignal(signalNumber);
        signalNumber % 2 == 1 ? odd.handleSignal(signalNumber)
                              : odd.doNotHandleSignal(signalNumber);
    }
    bool met = true;
    for (unsigned int number = 1; met; ++number) {
        SVSignalHandlerDispositionSet set;
        unsigned int instructions = 0;
        met = false;
        step([&] { set = none; },
             [&](const Standing&) {
                 met = ++instructions == number;
                 if (met) {
                     set = odd;
                 }
                 return !met;
             });
        for (int signalNumber = 1; met && signalNumber <= highestSignal; ++signalNumber) {
            ASSERT_EQ(set.getSignalDisposition(signalNumber),
                      set.getSignalDisposition(1) && signalNumber % 2 == 1)
                << "signal " << signalNumber << ", interrupted at instruction " << number;
        }
    }
}

}  // namespace
