// Runs one operation instruction by instruction, by the processor's trap flag, and delivers a real
// signal at each of them.
//
// In the first form every delivery has a run of its own: at every instruction the process forks,
// and the child gets the one delivery there, finishes the operation undisturbed, and judges. In
// the second form one run gets a delivery at every instruction.
#ifndef SORVANE_TESTS_INTERRUPT_STEPPER_H
#define SORVANE_TESTS_INTERRUPT_STEPPER_H

#include <csignal>
#include <cstddef>
#include <functional>
#include <vector>

#include "interrupt/state_picture.h"

/// What the end of a disturbed run is compared with.
enum class EndsAs {
    undisturbed,            ///< the end of a run without any delivery
    deliveredAfterwards,    ///< a run with its one delivery after the operation
    alsoSaysTheWholeTruth,  ///< nothing; Scenario::also judges
};

/// An operation, and what must hold whenever a signal arrives. Handlers go by their numbers among
/// the counted ones.
struct Scenario {
    int signalNumber = SIGUSR1;
    std::function<void()> prepare = {};
    std::function<void()> operate = {};

    std::vector<std::size_t> everyTime = {};   ///< called exactly once for each delivery
    std::vector<std::size_t> atMostOnce = {};  ///< called at most once for each delivery
    std::vector<std::size_t> never = {};
    std::vector<std::size_t> alike = {};  ///< each called as often as the others

    bool mayBeSentAgain = false;  ///< calls are complete only at the end of the operation
    bool throws = false;          ///< an exception leaves each delivery
    bool mayEndFatally = false;   ///< a delivery may end the process by the rule for fatal signals

    EndsAs endsAs = EndsAs::undisturbed;
    Detail detail = Detail::layout;
    std::function<bool()> also = {};  ///< whatever else must be true at the end
};

/// How many signals were delivered in this run. For Scenario::also.
unsigned int deliveries();

/// Runs a scenario in both forms. Fails the test unless nothing ever went wrong; prints, and
/// records as properties of the test, how many instructions were visited. Skips the test where
/// there is no stepping.
///
/// The number of visited instructions is bounded, so that a test takes a few seconds: above it only
/// every second one is visited, or every third, and so on. With SORVANE_EVERY_INSTRUCTION in the
/// environment every one is.
void stepThrough(const Scenario& scenario);

#endif
