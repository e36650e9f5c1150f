/* SPDX-FileCopyrightText: 2026 The Sorvane signals authors */
/* SPDX-License-Identifier: Apache-2.0 */

/* Who is inside the entry function of a subscription (libsrc/utilities/svsubscriptionentries.h), for
 * spin to visit every order of its steps.
 *
 * Threads that call an entry, one that ends its subscription and frees what the handler uses, and
 * one that begins another subscription with the same entry. WITH_INTERRUPTION: what interrupts a
 * call ends the subscription, at any of its steps, the handler included, and does not wait for that
 * call.
 *
 * What must hold:
 * - When the end has returned, the handler runs on no other thread and is not entered any more.
 * - A call that reads a handler reads the pointer of that handler's user.
 * - Whoever waits comes to an end when the last call has.
 *
 * A system call that sleeps looks at the count once more, in one step with falling asleep.
 *
 * Not in it: an end in a handler while calls are counted, for which it does not wait; a handler that
 * leaves by siglongjmp; fork.
 *
 * Each BROKEN_... is a mistake that must be found.
 */

#ifndef CALLERS
#define CALLERS 2
#endif
#ifndef CALLS
#define CALLS 1             /* of each caller */
#endif
#ifndef CELLS
#define CELLS CALLERS       /* where there are fewer than callers, the others are counted */
#endif

#define NOBODY 0
#define NONE CELLS

byte handler = 1;           /* the number of the subscription; 0 for none */
byte user = 1;
bool taken = true;
byte cells[CELLS + 1];      /* who is inside */
byte withoutCell = 0;
bool waitedFor = false;
byte left = 0;
byte sleeping = 0;
bool ended = false;         /* the first subscription's end has returned */
byte ender = NOBODY;        /* the caller that was interrupted by the end */

inline takeCell() {
    cell = 0;
    do
    :: cell == CELLS ->
        withoutCell++;
        break
    :: else ->
        if
        :: atomic { cells[cell] == NOBODY -> cells[cell] = me }; break
        :: atomic { cells[cell] != NOBODY -> cell++ }
        fi
    od
}

inline giveCellBack() {
    if
    :: cell < CELLS -> cells[cell] = NOBODY
    :: else -> withoutCell--
    fi
}

inline wakeIfWaitedFor() {
    if
    :: waitedFor ->
#ifndef BROKEN_NOT_COUNTED
        left++;
#endif
        sleeping = 0
    :: else
    fi
}

/* Looks at one cell after the other. The parameter is whose calls do not count. */
inline lookInside(own) {
    inside = false;
    index = 0;
    do
    :: index == CELLS -> break
    :: else ->
        if
        :: cells[index] != NOBODY && cells[index] != own -> inside = true
        :: else
        fi;
        index++
    od;
    if
    :: withoutCell != 0 && own == NOBODY -> inside = true
    :: else
    fi
}

inline end(own) {
    handler = 0;
#ifndef BROKEN_SAYS_LATE
    waitedFor = true;
#endif
    do
    :: true ->
#ifndef BROKEN_COUNT_READ_LATE
        seen = left;
#endif
        lookInside(own);
        if
        :: !inside -> break
        :: else
        fi;
#ifdef BROKEN_SAYS_LATE
        waitedFor = true;
#endif
#ifdef BROKEN_COUNT_READ_LATE
        seen = left;
#endif
        if
        :: atomic { left == seen -> sleeping = 1 }; sleeping == 0
        :: left != seen
        fi
    od;
    waitedFor = false;
    ended = true;
    taken = false
}

inline mayBeInterrupted() {
#ifdef WITH_INTERRUPTION
    if
    :: atomic { ender == NOBODY -> ender = me };
        end(me)
    :: true
    fi
#else
    skip
#endif
}

proctype Caller(byte me) {
    byte cell, read, usersPointer, index, seen, calls = CALLS;
    bool inside;
    do
    :: calls == 0 -> break
    :: else ->
        calls--;
#ifdef BROKEN_HANDLER_READ_FIRST
        read = handler;
        takeCell();
#else
        takeCell();
        mayBeInterrupted();
        read = handler;
#endif
        mayBeInterrupted();
        if
        :: read != 0 ->
            usersPointer = user;
            assert(usersPointer == read);
            assert(read != 1 || !ended || ender == me);
            mayBeInterrupted();
            assert(read != 1 || !ended || ender == me)
        :: else
        fi;
#ifdef BROKEN_LOOKS_FIRST
        inside = waitedFor;
        giveCellBack();
        if
        :: inside -> left++; sleeping = 0
        :: else
        fi
#else
        giveCellBack();
        wakeIfWaitedFor()
#endif
    od
}

proctype Ender() {
    byte index, seen;
    bool inside;
    end(NOBODY)
}

/* The gate is around it; who begins while the entry is in use takes another one. */
proctype Beginner() {
    byte index;
    bool inside;
    if
    :: !taken ->
#ifdef BROKEN_USED_AT_ONCE
        inside = false;
#else
        lookInside(NOBODY);
#endif
        if
        :: !inside ->
            taken = true;
            user = 2;
            handler = 2
        :: else
        fi
    :: taken
    fi
}

init {
    byte i;
    atomic {
        i = 1;
        do
        :: i > CALLERS -> break
        :: else -> run Caller(i); i++
        od;
#ifndef WITH_INTERRUPTION
        run Ender();
#endif
        run Beginner()
    }
}
