/* Whose a signal is (libsrc/utilities/svownership.h), for spin to visit every order of its steps.
 *
 * One thread has just found itself the last manager's and tears the state down. On a second thread
 * the signal has arrived: the kernel has chosen the library's handler, which has not run yet. With
 * WITH_TAKER a third thread makes a manager, which first completes the teardown, and takes the
 * signal over anew.
 *
 * The operating system has one action for the signal; the tables have the host's handler on record
 * or not. What must hold at the end: the signal is the host's again, or the library's with the
 * host's handler on record; and the host's handler was called once.
 *
 * Each BROKEN_... is a mistake that must be found.
 */

mtype = { library, host };
mtype action = library;

byte count = 0;             /* odd: the host's */

byte teardown = 1;          /* the one that goes on; 0: none */
byte generation = 1;

byte tables = 1;            /* the version of the registry, 0: none */
byte versions = 1;
bool onRecord[12];          /* the host's handler, by version; in the first one it is */
#define recorded(version) ((version) == 1 || onRecord[version])

byte managers = 0;
bool handling = false;
byte marks = 0;             /* of a take-over */
byte called = 0;            /* the host's handler */
byte ended = 0;

#define hosts(value) ((value) % 2 == 1)

inline install(wanted, displaced) {
    atomic { displaced = action; action = wanted; wanted = library }
}

inline makeTables() {
    atomic {
        if
        :: tables == 0 -> versions++; tables = versions
        :: else
        fi
    }
}

/* A change publishes another version; it fails if there is none. */
inline change(recordsToo) {
    atomic {
        if
        :: tables != 0 ->
           versions++;
           onRecord[versions] = recorded(tables) || recordsToo;
           tables = versions
        :: else
        fi
    }
}

/* What settle() does: the library has displaced something, perhaps too late. */
inline settle(displaced, seen, now, wanted) {
    do
    :: now = count;
       if
       :: !hosts(now) ->
          if
#ifndef BROKEN_NOT_PUT_ON_RECORD
          :: now != seen && displaced == host ->
             change(true)
#endif
          :: else
          fi;
          break
       :: else ->
          if
          :: displaced == library -> break
          :: else ->
#ifdef BROKEN_NOT_PUT_BACK
             break
#else
             wanted = displaced;
             install(wanted, displaced);
             if
             :: count == now -> break
#ifdef BROKEN_NOT_LOOKED_AT_AGAIN
             :: else -> break
#else
             :: else -> wanted = library; install(wanted, displaced)
#endif
             fi
#endif
          fi
       fi
    od
}

/* What tearDown() does, of which others may do the rest. */
inline tearDown(which, seen, now, wanted, displaced, given, others, pinned) {
    pinned = tables;
    seen = count;
    if
    :: teardown == which ->
       given = true;
#ifndef BROKEN_NOT_GIVEN
       atomic {
           if
#ifdef BROKEN_GIVEN_WHATEVER_WAS_SEEN
           :: true -> count = count + 1 - count % 2
#else
           :: count == seen -> count = seen + 1 - seen % 2
           :: else -> given = hosts(count)
#endif
           fi
       }
#endif
       if
       :: given ->
          wanted = host;
          install(wanted, displaced);
          if
#ifndef BROKEN_LATE_HAND_BACK_NOT_SETTLED
          :: teardown != which ->
#ifndef BROKEN_NOT_MARKED
             marks++;
#endif
             if
             :: hosts(count) -> settle(displaced, seen, now, wanted)
             :: !hosts(count) && displaced == library ->
                wanted = library;
                install(wanted, displaced);
                settle(displaced, seen, now, wanted)
             :: else
             fi;
#ifndef BROKEN_NOT_MARKED
             marks--
#endif
#endif
          :: else
          fi
       :: else
       fi
    :: else
    fi;
    if
    :: teardown == which ->
       others = managers != 0;
#ifdef BROKEN_NO_TABLES_IN_BETWEEN
       others = false;
#endif
       atomic {
           if
           :: tables == pinned && others -> versions++; tables = versions
           :: tables == pinned && !others -> tables = 0
           :: else
           fi
       };
       if
       :: managers != 0 -> makeTables()
       :: else
       fi;
       atomic {
           if
           :: teardown == which -> teardown = 0
           :: else
           fi
       }
    :: else
    fi
}

/* A manager goes, and tears down if it is the last one. */
inline managerGone(which, seen, now, wanted, displaced, given, others, pinned) {
    atomic {
        managers--;
        which = 0;
        if
        :: managers == 0 && handling && teardown == 0 ->
           handling = false;
           generation++;
           teardown = generation;
           which = generation
        :: else
        fi
    };
    if
    :: which != 0 -> tearDown(which, seen, now, wanted, displaced, given, others, pinned)
    :: else
    fi
}

active proctype lastManager() {
    byte seen, now, pinned;
    mtype wanted, displaced;
    bool given, others;
    tearDown(1, seen, now, wanted, displaced, given, others, pinned);
    ended++
}

active proctype dispatch() {
    byte seen, now, sentOn, pinned, which;
    mtype wanted, displaced;
    bool given, others, records;
    bool first = true;
arrival:
    if
    :: action == host && !first -> called++; goto over
    :: else
    fi;
    first = false;
    seen = count;
    if
    :: hosts(seen) && teardown != 0 -> seen = seen - 1
    :: else
    fi;
    managers++;
    makeTables();
    if
    :: marks != 0 ->
       managerGone(which, seen, now, wanted, displaced, given, others, pinned);
       (marks == 0);
       goto arrival
    :: else
    fi;
    atomic { pinned = tables; records = pinned != 0 && recorded(pinned) };
#ifndef BROKEN_NOT_SENT_ON
    now = count;
    if
    :: (hosts(now) || now != seen) && sentOn != now && (!records || teardown == 0) ->
       sentOn = now;
       managerGone(which, seen, now, wanted, displaced, given, others, pinned);
       goto arrival
    :: else
    fi;
#endif
    if
    :: records -> called++
    :: else
    fi;
    if
    :: teardown == 0 && count == seen && !hosts(seen) ->
       wanted = library;
       install(wanted, displaced)
    :: else ->
       marks++;
       if
       :: !hosts(count) ->
          wanted = library;
          install(wanted, displaced);
          settle(displaced, seen, now, wanted)
       :: else
       fi;
       marks--
    fi;
    managerGone(which, seen, now, wanted, displaced, given, others, pinned);
over:
    ended++
}

#ifdef WITH_TAKER
active proctype taker() {
    byte seen, now, which, pinned;
    mtype wanted, displaced;
    bool given, others;
    managers++;
    makeTables();
    which = teardown;
    if
    :: which != 0 -> tearDown(which, seen, now, wanted, displaced, given, others, pinned)
    :: else
    fi;
    change(false);          /* the signal's table */
    marks++;
#ifndef BROKEN_NOT_TAKEN
    atomic { count = count + count % 2 };
#endif
    wanted = library;
    install(wanted, displaced);
    if
    :: displaced == host -> change(true)
    :: else
    fi;
    marks--;
    handling = true;
    ended++
}
#endif

#ifdef WITH_TAKER
#define PROCESSES 3
#else
#define PROCESSES 2
#endif

active proctype judge() {
    (ended == PROCESSES);
    assert(called == 1);
#ifdef WITH_TAKER
    assert(action == library && recorded(tables))
#else
    assert(action == host)
#endif
}
