/* SPDX-FileCopyrightText: 2026 The Sorvane signals authors */
/* SPDX-License-Identifier: Apache-2.0 */

/* Whose a signal is (libsrc/registry/svownership.h), for spin to visit every order of its steps.
 *
 * Threads to which a signal comes, and others that hand it back, take it over, clear the host's
 * record, or make and destroy the last manager; with HOST_CHANGES=1 the host installs an action of
 * its own at any time. What is published changes inside the gate, and nobody reads it while that is
 * closed. But everybody can see each step that concerns the count or what the system has.
 *
 * What must hold:
 * - Each signal is called once, by the library or by the host's action, also if it is sent on.
 *   Sending it on ends, also if the host's handler calls the library by hand, or the host puts the
 *   library back (WITH_CHAIN).
 * - When all is over, a signal that was handed back last is the host's, with the action that it was
 *   handed back to or a newer one of the host's. One that was taken over last, or handed back by a
 *   handler of its own dispatch (WITH_HANDLER), is the library's, and what the host had is on
 *   record, unless that was cleared or torn down. The library itself is never on record.
 * - Nothing is torn down while there is a manager.
 *
 * What the host installs while a signal is the library's is gone after the next dispatch, so nothing
 * is demanded of that. Nor of what it installs in the few instructions of a hand-back, or between a
 * dispatch's last look and its installation: that counts as installed before. If it installs
 * something before a dispatch has looked whose the signal is by now, a signal that comes to another
 * thread for the second time may be taken for a call by hand, which takes the signal over.
 *
 * Not in it: how what is published changes while it is read; faults, which come again by themselves
 * instead of being sent on; ordinary signals that merge; system calls that fail; signals that are
 * not held back while they are dispatched; threads that share a place among those that have sent a
 * signal on; a host that changes its action twice within the end of one dispatch;
 * installHandlerInSystem() by hand; fork.
 *
 * Each BROKEN_... is a mistake that must be found.
 */

#ifndef SIGNALS
#define SIGNALS 1           /* that come to each thread */
#endif
#ifndef CHANGERS
#define CHANGERS 1
#endif
#ifndef CHANGES
#define CHANGES 2           /* of each changer */
#endif
#ifndef HOST_CHANGES
#define HOST_CHANGES 0
#endif
#ifndef DISPATCHERS
#define DISPATCHERS 2
#endif

/* Actions: the library's; the host's, numbered in the order in which it installs them; ignoring,
 * which nobody has to get back. */
#define LIBRARY 0
#define FIRST 1
#define IGNORING 6
#define nobodys(action) ((action) == LIBRARY || (action) == IGNORING)
#define recordOf(action) (1 << (action))

#define handedBack(count) ((count) % 2 == 0 && (count) != 0)

byte gate = 0;                          /* the thread that has closed it */
byte installed = LIBRARY;
byte records = recordOf(FIRST);
bool tables = true;
bool handling = true;
byte managers = CHANGERS;
byte remembered = LIBRARY;              /* the action that the signal was handed back to */
byte handedBackBy = 0;
byte handedBackAt = 0;                  /* the count when that was done */
byte unsettled = 0;                     /* dispatches that may have installed, and not looked */
byte sentOn[DISPATCHERS + 1];           /* the count at which a thread has sent a signal on */
#ifdef NEVER_TAKEN
byte count = 0;                         /* somebody has installed the library by hand */
#else
byte count = 1;
#endif

/* What is demanded at the end. */
mtype = { theLibrary, theHost, anybody };
mtype owner = theLibrary;
byte newest = FIRST;                    /* the action that the host has, or would have */
bool handedBackToNewest = false;
bool handingBack = false;
byte installing = 0;                    /* dispatches between their last look and installing */
byte settling = 0;                      /* dispatches that have installed, and not looked */
bool installedBetween = false;          /* by the host, then: whoever comes twice takes the signal */
bool installedMeanwhile = false;        /* by the host, during either: the newest may be lost */
bool installedBehind = false;           /* by the host, while the signal is the library's */
byte mustBeOnRecord = 0;
byte nextAction = FIRST + 1;
byte ended = 0;

inline closeGate(me) {
    atomic { gate == 0 -> gate = me }
}

inline openGate() {
    gate = 0
}

inline countHandBack() {
#if defined BROKEN_HAND_BACK_NOT_COUNTED
    skip
#elif defined BROKEN_SECOND_HAND_BACK_NOT_COUNTED
    count = count + count % 2
#else
    count = count + 2 - count % 2
#endif
}

inline handBackTo(me, action, ownerThen) {
    d_step { remembered = action; handedBackBy = me; installedMeanwhile = false };
    countHandBack();
    d_step {
        installed = action;
        newest = action;
        handedBackToNewest = true;
        handingBack = true;
        installedBehind = false;
        mustBeOnRecord = 0;
        owner = ownerThen
    };
#ifndef BROKEN_END_OF_HAND_BACK_NOT_COUNTED
    count = count + 2;
#endif
    d_step { handedBackAt = count; handingBack = false }
}

inline findFirstRecord(action) {
    action = FIRST;
    do
    :: action < IGNORING && (records & recordOf(action)) == 0 -> action++
    :: else -> break
    od
}

inline handBack(me, action, ownerThen) {
    closeGate(me);
    d_step { findFirstRecord(action); handling = false };
    handBackTo(me, action, ownerThen);
    action = 0;
    openGate()
}

inline clear(me, action) {
    closeGate(me);
    d_step { findFirstRecord(action) };
    if
    :: records != 0 && records == recordOf(action) -> handBackTo(me, action, theHost)
    :: else
    fi;
    d_step {
        records = records & ~recordOf(action);
        if
        :: mustBeOnRecord == action -> mustBeOnRecord = 0
        :: else
        fi;
        action = 0
    };
    openGate()
}

inline keepOnRecord(hosts, isNew) {
    isNew = !nobodys(hosts) && (records & recordOf(hosts)) == 0;
    records = (isNew -> records | recordOf(hosts) : records)
}

#ifdef BROKEN_REMEMBERED_ACTION_NOT_TAKEN
#define hidesHostsAction(action) false
#else
#define hidesHostsAction(action) ((action) == LIBRARY && unsettled > 0 && handedBack(count))
#endif

inline takeOver(me, action, displaced, kept) {
    closeGate(me);
    d_step {
        assert(tables);
        action = installed;
        if
        :: hidesHostsAction(action) -> action = remembered
        :: else
        fi;
#ifdef BROKEN_LIBRARY_TAKEN_FOR_THE_HOST
        kept = action != IGNORING && (records & recordOf(action)) == 0;
        records = (kept -> records | recordOf(action) : records)
#else
        keepOnRecord(action, kept)
#endif
    };
    d_step {
        displaced = installed;
        installed = LIBRARY;
        installedBehind = false;
        if
        :: handedBack(count) && owner == theHost ->
            mustBeOnRecord = (nobodys(newest) || installedMeanwhile -> 0 : newest)
        :: else
        fi;
        owner = theLibrary
    };
#ifndef BROKEN_TAKE_OVER_NOT_COUNTED
    count = count + 1 - count % 2;
#endif
    d_step {
        if
#ifndef BROKEN_NEWER_ACTION_FORGOTTEN
        :: displaced != LIBRARY && displaced != action ->
            records = (kept -> records & ~recordOf(action) : records);
            keepOnRecord(displaced, kept)
#endif
        :: else
        fi;
        handling = true;
        kept = false;
        displaced = 0;
        action = 0
    };
    openGate()
}

inline beginTables(me) {
    closeGate(me);
    tables = true;
    openGate()
}

/* A manager is made: counted before the gate is looked at. */
inline enter(me) {
#ifndef BROKEN_MANAGER_COUNTED_AFTER_A_LOOK
    managers++;
#endif
    if
    :: gate == 0 && tables
    :: else -> beginTables(me)
    fi
#ifdef BROKEN_MANAGER_COUNTED_AFTER_A_LOOK
    ;
    managers++
#endif
}

#ifdef BROKEN_LAST_MANAGER_DECIDES_BEFORE_THE_GATE
#define stillTheLast true
#else
#define stillTheLast (managers == 0 && handling)
#endif

/* A manager is destroyed. The last one decides inside the gate that it is that. */
inline leave(me, action, last) {
    d_step { managers--; last = managers == 0 && handling };
    if
    :: last ->
        last = false;
        closeGate(me);
        if
        :: stillTheLast ->
            action = FIRST;
            do
            :: action == IGNORING -> break
            :: action < IGNORING && (records & recordOf(action)) == 0 -> action++
            :: action < IGNORING && (records & recordOf(action)) != 0 ->
                handBackTo(me, action, theHost);
                action++
            od;
            atomic { handling = false; records = 0; tables = false; action = 0 }
        :: else
        fi;
        openGate()
    :: else
    fi
}

/* What was sent on before may have met the library again, and is sent on once more. */
inline countPuttingBack() {
#ifdef BROKEN_PUT_BACK_WITHOUT_COUNTING
    skip
#else
    count = count + 2
#endif
}

/* If the host replaces what was found just between, its new action counts. */
inline putBack(hosts, found, replaced) {
    d_step { replaced = installed; installed = hosts };
    if
#ifndef BROKEN_PUT_BACK_OVER_A_NEWER_ACTION
    :: replaced != LIBRARY && replaced != found -> installed = replaced
#endif
    :: else
    fi;
    replaced = 0
}

/* A late arrival. It is dispatched all the same if the library has the signal again, or was called
 * by hand. */
inline sendOn(me, now, isSent, byHand, isInstalled, replaced) {
    closeGate(me);
    d_step {
        now = count;
        isSent = sentOn[me] != now;
#ifdef BROKEN_SENT_ON_FOR_EVER
        isSent = true;
#endif
        isInstalled = installed == LIBRARY
    };
    if
    :: !handedBack(now) -> isSent = false
    :: else ->
        d_step {
            sentOn[me] = now;
            isSent = (isInstalled -> unsettled > 0 : isSent)
        };
        if
        :: !isSent ->
            d_step {
                count++;
                /* Otherwise the library has what is the host's. */
                if
                :: byHand || installedBetween -> owner = theLibrary; mustBeOnRecord = 0
                :: else
                fi
            }
        :: isSent && isInstalled ->
            countPuttingBack();
            putBack(remembered, LIBRARY, replaced)
        :: else
        fi
    fi;
    isInstalled = false;
    openGate()
}

#ifdef BROKEN_OWN_HAND_BACK_NOT_TOLD
#define handedBackByThisThread false
#else
#define handedBackByThisThread (handedBackBy == me)
#endif

#ifdef BROKEN_OLDER_ACTION_TAKEN_FOR_A_NEWER
#define newer true
#else
#define newer (before >= handedBackAt)
#endif

/* The signal has changed hands, and the library was installed all the same. */
inline settle(me, displaced, before, current, replaced) {
    closeGate(me);
    if
    :: handedBackByThisThread ->
#ifndef BROKEN_TAKEN_BACK_WITHOUT_COUNTING
        count = count + 1 - count % 2;
#endif
#ifndef BROKEN_PUT_BACK_BY_ANOTHER_NOT_SEEN
        d_step { installed = LIBRARY; installedBehind = false }
#else
        skip
#endif
    :: else ->
        if
        :: displaced == LIBRARY
        :: displaced != LIBRARY && count % 2 == 1 ->
            if
            :: newer -> d_step { keepOnRecord(displaced, current); current = 0 }
            :: else
            fi
        :: else ->
            countPuttingBack();
            current = installed;
            if
            :: current == LIBRARY && !newer -> putBack(remembered, current, replaced)
            :: (current == LIBRARY || current == remembered) && newer ->
                putBack(displaced, current, replaced)
            :: else
            fi;
            current = 0
        fi
    fi;
    openGate()
}

/* The end of a dispatch: installs first, then looks. */
inline stayInstalled(me, seen, before, displaced, current, replaced) {
#ifndef BROKEN_NEVER_INSTALLED_AGAIN
#ifndef BROKEN_UNSETTLED_NOT_COUNTED
    unsettled++;
#endif
    d_step { before = count; installing++ };
    d_step { displaced = installed; installed = LIBRARY; installedBehind = false; installing--; settling++ };
    if
#ifndef BROKEN_OTHERS_HAND_BACK_NOT_TOLD
    :: count != seen -> settle(me, displaced, before, current, replaced)
#endif
    :: else
    fi;
    d_step { displaced = 0; before = 0; settling-- }
#ifndef BROKEN_UNSETTLED_NOT_COUNTED
    ;
    unsettled--
#endif
#else
    skip
#endif
}

/* Finds what is published. If nobody has ever had anything for the library's signal, that is called
 * by ignoring it. */
inline pin(found) {
    atomic {
        gate == 0 ->
        assert(tables);
        found = (records == 0 && mustBeOnRecord == 0 && count % 2 == 1 -> recordOf(IGNORING)
                                                                       : records)
    }
}

proctype dispatcher(byte me) {
    byte signals, called, sent, seen, found, action, before, displaced, replaced;
    bool byHand, isSent, isInstalled, last;

    do
    :: signals < SIGNALS ->
        d_step { signals++; called = 0; sent = 0 };
arrival:
        /* The kernel chooses. */
        atomic {
            byHand = false;
            if
            :: installed == LIBRARY
#ifdef WITH_CHAIN
            :: installed == FIRST || installed == IGNORING -> called++; goto over
            :: else -> byHand = true
#else
            :: else -> called++; goto over
#endif
            fi
        };
        enter(me);
look:
#ifdef BROKEN_COUNT_READ_ONLY_AFTER_PINNING
        pin(found);
#endif
        seen = count;
#ifndef BROKEN_LATE_ARRIVAL_DISPATCHED
        if
        :: handedBack(seen) ->
#ifdef BROKEN_LATE_ARRIVAL_DROPPED
            leave(me, action, last);
            goto over
#else
            sendOn(me, seen, isSent, byHand, isInstalled, replaced);
            if
            :: isSent ->
                d_step { isSent = false; sent++; seen = 0; found = 0 };
                assert(sent <= DISPATCHERS + 2 * CHANGERS * CHANGES);
#ifndef BROKEN_SENT_ON_AND_DISPATCHED
                leave(me, action, last);
                goto arrival
#endif
            :: else -> goto look
            fi
#endif
        :: else
        fi;
#endif
#ifndef BROKEN_COUNT_READ_ONLY_AFTER_PINNING
        pin(found);
#ifndef BROKEN_COUNT_NOT_READ_AGAIN
        if
        :: count != seen -> found = 0; goto look
        :: else
        fi;
#endif
#endif
        d_step {
            assert((found & recordOf(LIBRARY)) == 0);
            if
            :: found != 0 -> called++; found = 0
            :: else
            fi
        };
#ifdef WITH_HANDLER
        if
        :: me == 1 -> handBack(me, action, theLibrary)
        :: true
        fi;
#endif
        stayInstalled(me, seen, before, displaced, action, replaced);
        seen = 0;
        leave(me, action, last);
over:
        assert(called == 1)
    :: else -> break
    od;
    ended++
}

proctype changer(byte me) {
    byte changes, action, displaced;
    bool kept, last, gone;

    do
    :: changes < CHANGES ->
        changes++;
        if
        :: !gone -> handBack(me, action, theHost)
#ifdef WITH_CLEAR
        :: !gone -> clear(me, action)
#endif
#ifndef WITH_CHAIN
        :: !gone -> takeOver(me, action, displaced, kept)
#endif
#ifdef WITH_TEARDOWN
        :: !gone -> gone = true; leave(me, action, last)
        :: gone -> gone = false; enter(me); takeOver(me, action, displaced, kept)
#endif
        fi
    :: else -> break
    od;
    ended++
}

#if HOST_CHANGES > 0
proctype host() {
    byte changes;

    do
    :: changes < HOST_CHANGES ->
        changes++;
        if
        :: d_step {
            true ->
            installed = nextAction;
            installedBetween = installedBetween || settling > 0;
            if
            :: handingBack || installing > 0 -> installedMeanwhile = true
            :: else ->
                newest = nextAction;
                handedBackToNewest = false;
                installedMeanwhile = false;
                installedBehind = true
            fi;
            nextAction++
           }
#ifdef WITH_CHAIN
        :: d_step { true -> installed = LIBRARY; owner = anybody }
#endif
        fi
    :: else -> break
    od;
    ended++
}
#endif

init {
    byte turn;
    atomic {
        turn = 1;
        do
        :: turn <= DISPATCHERS -> run dispatcher(turn); turn++
        :: else -> break
        od;
        turn = 1;
        do
        :: turn <= CHANGERS -> run changer(DISPATCHERS + turn); turn++
        :: else -> break
        od;
#if HOST_CHANGES > 0
        run host();
#endif
        turn = _nr_pr - 1
    };
    ended == turn;
    if
    :: owner == theHost ->
        assert(handedBack(count));
        assert(installed == newest ||
               (handedBackToNewest && installed > newest && !nobodys(installed)) ||
               (installedMeanwhile && !nobodys(installed)))
    :: owner == theLibrary ->
        assert(count % 2 == 1 || count == 0);
        assert(installed == LIBRARY || (installedBehind && installed == newest));
        assert(mustBeOnRecord == 0 || (records & recordOf(mustBeOnRecord)) != 0)
    :: owner == anybody
    fi
}
