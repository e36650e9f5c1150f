// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// One of the manager's operations on one thread, and a signal that is called on another or on the
// same one, in many orders of their instructions. Each signal is accounted for: called once, whole,
// by the state before the operation or by that after it. And the operation ends as it does
// undisturbed; a signal that arrives then finds the state after it.
#ifndef SORVANE_TESTS_STEPPED_EACH_INSTRUCTION_H
#define SORVANE_TESTS_STEPPED_EACH_INSTRUCTION_H

#include <functional>

#include "stepped/arrivals.h"
#include "stepped/state_picture.h"

enum class Arrive {
    onThisThread,  ///< a signal, on the thread that is stepped
    atSystemCall,  ///< the same, before system calls only: one that is not held back
    onAnother,     ///< a signal, on another thread
    asFault,       ///< a fault of another thread, which the host's handler repairs
    asWalk,        ///< none: another thread calls the handlers itself, through a manager
};

struct Course {
    std::function<void()> prepare;
    std::function<void()> operate;
    int signalNumber;
    Arrive arrive;
    States states;
    Detail detail = Detail::layout;
};

/// The operation is stepped, and something arrives at each instruction: on another thread, which
/// dispatches it or waits at the gate; or on this one, which has it at once, or when it has opened
/// the gate again. By groups of neighbouring instructions: each group has a process of its own,
/// split off there, in which the operation has not been disturbed before.
void arriveAtEachInstruction(const Course& course);

/// The operation is stepped. What arrived before it has called its first handler, stays in that,
/// and goes on at one instruction in every few, and at each after something has changed.
void goOnAtSomeInstructions(const Course& course);

/// A dispatch is stepped, and another thread does the whole operation, or as much as it can, at
/// each instruction.
void operateAtEachInstructionOfADispatch(const Course& course);

#endif
