/* Whose a signal is (libsrc/registry/svownership.h), for spin to visit every order of its steps.
 *
 * Two threads to which a signal comes, and one or two that hand it back, take it over, clear the
 * host's record, or make and destroy the last manager; with HOST_CHANGES the host installs actions
 * of its own at any time. What is published changes inside the gate, and nobody reads it while that
 * is closed. But everybody can see each step that concerns the count or what the system has.
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
 * Not in it: how what is published changes while it is read; faults, which come again by themselves
 * instead of being sent on; ordinary signals that merge; system calls that fail; signals that are
 * not held back while they are dispatched; two threads that share a place among those that have
 * sent a signal on; installHandlerInSystem() by hand; fork. What the host installs while a signal is
 * the library's is gone after the next dispatch, so nothing is demanded of that.
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
#define DISPATCHERS 2

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
byte handedBackBy = 0;
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
    handedBackBy = me;
    countHandBack();
    d_step {
        installed = action;
        newest = action;
        handedBackToNewest = true;
        installedBehind = false;
        mustBeOnRecord = 0;
        owner = ownerThen
    }
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

inline takeOver(me, action, displaced, kept) {
    closeGate(me);
    d_step {
        assert(tables);
        action = installed;
#ifdef BROKEN_LIBRARY_TAKEN_FOR_THE_HOST
        kept = action != IGNORING && (records & recordOf(action)) == 0;
#else
        kept = !nobodys(action) && (records & recordOf(action)) == 0;
#endif
        if
        :: kept -> records = records | recordOf(action)
        :: else
        fi
    };
    d_step {
        displaced = installed;
        installed = LIBRARY;
        owner = theLibrary;
        installedBehind = false;
        if
        :: handedBack(count) -> mustBeOnRecord = (nobodys(newest) -> 0 : newest)
        :: else
        fi
    };
#ifndef BROKEN_TAKE_OVER_NOT_COUNTED
    count = count + 1 - count % 2;
#endif
    d_step {
        if
#ifndef BROKEN_NEWER_ACTION_FORGOTTEN
        :: !nobodys(displaced) && displaced != action ->
            if
            :: kept -> records = records & ~recordOf(action)
            :: else
            fi;
            records = records | recordOf(displaced)
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

/* A late arrival. It is dispatched all the same if the library has the signal again, or was called
 * by hand. */
inline sendOn(me, now, isSent, byHand) {
    closeGate(me);
    d_step {
        now = count;
#ifdef BROKEN_SENT_ON_FOR_EVER
        sentOn[me] = 0;
#endif
        if
        :: !handedBack(now)
        :: else ->
            if
            :: installed == LIBRARY || sentOn[me] == now ->
                count++;
                /* Otherwise the library has what is the host's. */
                if
                :: byHand -> owner = theLibrary; mustBeOnRecord = 0
                :: else
                fi
            :: else -> sentOn[me] = now; isSent = true
            fi
        fi
    };
    openGate()
}

#if defined BROKEN_OWN_HAND_BACK_NOT_TOLD
#define leftToTheHost handedBack(current)
#elif defined BROKEN_OTHERS_HAND_BACK_NOT_TOLD
#define leftToTheHost false
#elif defined BROKEN_NEVER_INSTALLED_AGAIN
#define leftToTheHost true
#else
#define leftToTheHost (handedBack(current) && handedBackBy != me)
#endif

/* The end of a dispatch: something else than the library may have been installed. */
inline stayInstalled(me, seen, current) {
    current = installed;
    if
#ifdef BROKEN_INSTALLED_OUTSIDE_THE_GATE
    :: current != LIBRARY && count == seen -> d_step { installed = LIBRARY; installedBehind = false }
    :: current != LIBRARY && count != seen ->
#else
    :: current != LIBRARY ->
#endif
        closeGate(me);
#ifdef BROKEN_COUNT_AT_ARRIVAL_BELIEVED
        current = seen;
#else
        current = count;
#endif
        if
        :: leftToTheHost
        :: else ->
            d_step { installed = LIBRARY; installedBehind = false };
#ifndef BROKEN_TAKEN_BACK_WITHOUT_COUNTING
            if
            :: handedBack(current) -> count++
            :: else
            fi
#endif
        fi;
        openGate()
    :: else
    fi;
    current = 0
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
    byte signals, called, sent, seen, found, action;
    bool byHand, isSent, last;

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
            sendOn(me, seen, isSent, byHand);
            if
            :: isSent ->
                d_step { isSent = false; sent++; seen = 0; found = 0 };
                assert(sent <= 1 + CHANGERS * CHANGES);
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
        stayInstalled(me, seen, action);
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
            newest = nextAction;
            nextAction++;
            handedBackToNewest = false;
            installedBehind = true
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
               (handedBackToNewest && installed > newest && !nobodys(installed)))
    :: owner == theLibrary ->
        assert(count % 2 == 1 || count == 0);
        assert(installed == LIBRARY || (installedBehind && installed == newest));
        assert(mustBeOnRecord == 0 || (records & recordOf(mustBeOnRecord)) != 0)
    :: owner == anybody
    fi
}
