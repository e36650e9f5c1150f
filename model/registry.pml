/* The mechanism of the registry (libsrc/utilities/svregistry.h), for spin to visit every order of
 * its steps: publish, pin, retire, reclaim, help, done once, in place.
 *
 * One thread makes a change and is interrupted in it, at any step, by a handler that makes another
 * one. A second thread makes a third change. Two more threads read. A version's content is the set
 * of the changes that it has; a change may be added to a content only if it is not there yet. The
 * steps are those of the code between which something can come: each reads or writes one variable
 * that others can see.
 *
 * What must hold: nobody reads a version that is being changed or that is free, nor one whose
 * content changes under his pin; no change is made twice, none is lost, a handler leaves no change
 * of its thread undone; and at the end everything but what is published is free again.
 *
 * Each BROKEN_... is a mistake that must be found.
 */

#ifndef READERS
#define READERS 1
#endif
#define VERSIONS 6
#define NONE 255

#define CHANGE 1            /* of the interrupted thread */
#define HANDLERS_CHANGE 2
#define OTHER_CHANGE 4      /* of the second thread */
#ifdef WITH_HANDLER
#define HANDLERS_CHANGES HANDLERS_CHANGE
#else
#define HANDLERS_CHANGES 0
#endif
#ifdef WITH_OTHER
#define OTHER_CHANGES OTHER_CHANGE
#else
#define OTHER_CHANGES 0
#endif
#define ALL_CHANGES (CHANGE | HANDLERS_CHANGES | OTHER_CHANGES)

mtype = { free, inUse, retired };

mtype state[VERSIONS] = free;
byte pins[VERSIONS];
bool superseded[VERSIONS];
byte content[VERSIONS];
bool beingChanged[VERSIONS];
byte published = NONE;

/* The thread that is interrupted: whether its handler runs, whether its change is on its list, what
 * its candidate is, and whether the change is noted as done. The same of the handler's change. */
bool handlerRuns;
bool underWay;
byte candidate = NONE;
bool noted;
byte handlersCandidate = NONE;

byte started;
byte ended;

inline take(version) {
    version = 0;
    do
    :: state[version] == free -> state[version] = inUse; break
    :: else -> version++; assert(version < VERSIONS)
    od
}

inline discard(version) {
    d_step { content[version] = 0; superseded[version] = false; state[version] = free }
}

#ifdef BROKEN_RECLAIM_WHATEVER_IS_PINNED
#define LOOKS_UNREAD(version) true
#else
#define LOOKS_UNREAD(version) (pins[version] == 0)
#endif

/* Every retired version that nobody reads, in any order. */
inline reclaim(version) {
    do
    :: atomic { state[0] == retired && LOOKS_UNREAD(0) -> version = 0 }; reclaimIfUnread(version)
    :: atomic { state[1] == retired && LOOKS_UNREAD(1) -> version = 1 }; reclaimIfUnread(version)
    :: atomic { state[2] == retired && LOOKS_UNREAD(2) -> version = 2 }; reclaimIfUnread(version)
    :: atomic { state[3] == retired && LOOKS_UNREAD(3) -> version = 3 }; reclaimIfUnread(version)
    :: atomic { state[4] == retired && LOOKS_UNREAD(4) -> version = 4 }; reclaimIfUnread(version)
    :: atomic { state[5] == retired && LOOKS_UNREAD(5) -> version = 5 }; reclaimIfUnread(version)
    :: else -> break
    od
}

inline reclaimIfUnread(version) {
    if
    :: atomic { state[version] == retired -> state[version] = inUse };
#if defined BROKEN_RECLAIM_WHATEVER_IS_PINNED || defined BROKEN_RECLAIM_LOOKS_ONLY_BEFORE
        discard(version)
#else
        if
        :: pins[version] == 0 -> discard(version)
        :: else -> state[version] = retired
        fi
#endif
    :: else
    fi;
    version = NONE
}

inline pin(version) {
    do
    :: version = published;
        pins[version]++;
#ifdef BROKEN_PIN_WITHOUT_SECOND_LOOK
        break
#else
        if
        :: published == version -> break
        :: else -> pins[version]--
        fi
#endif
    od
}

inline unpin(version) {
    pins[version]--;
    version = NONE
}

/* The two sides of a reader's protection. */
inline mayRead(version) {
    assert(state[version] != free && !beingChanged[version])
}

inline replaceBy(version, successor, done) {
#ifndef BROKEN_SUPERSEDED_IS_SAID_AFTERWARDS
    superseded[version] = true;
#endif
#ifdef BROKEN_PUBLISH_BY_PLAIN_STORE
    done = (published == version);
    if
    :: done -> published = successor
    :: else
    fi
#else
    atomic {
        done = (published == version);
        if
        :: done -> published = successor
        :: else
        fi
    }
#endif
#ifdef BROKEN_SUPERSEDED_IS_SAID_AFTERWARDS
    ;
    superseded[version] = true
#endif
}

inline askWhether(version, everPublished) {
    if
    :: version == NONE -> everPublished = false
    :: else ->
        if
        :: published == version -> everPublished = true
        :: else -> everPublished = superseded[version]
        fi
    fi
}

/* To a copy that nobody else has seen; and to an original, during which anybody may come. */
inline add(version, change) {
    d_step {
        assert((content[version] & change) == 0);
        content[version] = content[version] | change
    }
}

inline addInPlace(version, change) {
    beingChanged[version] = true;
    add(version, change);
    beingChanged[version] = false
}

inline copy(base, draft) {
    atomic {
        take(draft);
#ifndef BROKEN_DRAFT_IS_NOT_HELD
        pins[draft]++;
#endif
        mayRead(base);
        content[draft] = content[base]
    }
}

inline letGoOf(draft, wasPublished) {
    atomic {
#ifndef BROKEN_DRAFT_IS_NOT_HELD
        pins[draft]--;
#endif
        if
        :: wasPublished
        :: else -> discard(draft)
        fi;
        draft = NONE
    }
}

/* One thread's change. Who has a handler says in itsCandidate what that may ask for. */
inline carryOut(change, itsCandidate, isNoted) {
    do
    ::  pin(base);
        /* Asked under the pin. */
        askWhether(itsCandidate, done);
        done = done || isNoted;
        if
        :: done -> unpin(base); break
        :: else
        fi;
        reclaim(turn);
        if
        :: pins[base] == 1 ->
            copy(base, draft);
#ifdef BROKEN_STAND_IN_IS_NOT_HELD
            pins[draft]--;
#endif
            replaceBy(base, draft, done);
            if
            :: !done
#ifndef BROKEN_IN_PLACE_WITHOUT_SECOND_LOOK
            :: done && pins[base] != 1 -> state[base] = retired
#endif
            :: else ->
#ifndef BROKEN_ORIGINAL_STAYS_SUPERSEDED
                superseded[base] = false;
#endif
                itsCandidate = base;
                addInPlace(base, change);
                replaceBy(draft, base, published2);
#ifdef BROKEN_DONE_IS_NOTED_AFTERWARDS
                itsCandidate = NONE;
#endif
                if
                :: published2 -> isNoted = true
                :: else
                fi;
                itsCandidate = NONE;
                if
                :: published2 -> state[draft] = retired
                :: else -> discard(base)
                fi
            fi;
#ifdef BROKEN_STAND_IN_IS_NOT_HELD
            pins[draft]++;
#endif
            letGoOf(draft, done)
        :: else ->
            copy(base, draft);
            add(draft, change);
#ifndef BROKEN_DONE_IS_NOTED_AFTERWARDS
            itsCandidate = draft;
#endif
#ifdef BROKEN_RETIRED_BEFORE_IT_IS_REPLACED
            state[base] = retired;
#endif
            replaceBy(base, draft, done);
            if
            :: done -> isNoted = true
            :: else
            fi;
            itsCandidate = NONE;
#ifndef BROKEN_RETIRED_BEFORE_IT_IS_REPLACED
            if
            :: done -> state[base] = retired
            :: else
            fi;
#endif
            letGoOf(draft, done)
        fi;
        unpin(base)
    od;
    reclaim(turn)
}

/* Where nobody asks. */
byte nobodysCandidate = NONE;

proctype interrupted() provided (!handlerRuns) {
    byte base = NONE, draft = NONE, turn = NONE;
    bool done, published2;

    underWay = true;
    carryOut(CHANGE, candidate, noted);
    underWay = false;
    ended++
}

/* Comes once, at any step of the thread that it interrupts, does that thread's change first if it
 * is not done, and its own, in one copy. */
#ifdef WITH_HANDLER
proctype handler() {
    byte base = NONE, draft = NONE, turn = NONE;
    bool done, helps;

    handlerRuns = true;
    do
    ::  pin(base);
        helps = false;
        if
        :: underWay && !noted -> askWhether(candidate, done); helps = !done
        :: else
        fi;
#ifdef BROKEN_HANDLER_DOES_NOT_HELP
        helps = false;
#endif
        copy(base, draft);
        if
        :: helps -> add(draft, CHANGE)
        :: else
        fi;
        add(draft, HANDLERS_CHANGE);
        replaceBy(base, draft, done);
        if
        :: done && helps -> noted = true
        :: else
        fi;
        if
        :: done -> state[base] = retired
        :: else
        fi;
        letGoOf(draft, done);
        unpin(base);
        if
        :: done -> break
        :: else
        fi
    od;
    reclaim(turn);
    /* What it interrupted is done. */
    assert(!underWay || (content[published] & CHANGE) != 0);
    atomic { handlerRuns = false; ended++ }
}
#endif

#ifdef WITH_OTHER
proctype other() {
    byte base = NONE, draft = NONE, turn = NONE;
    bool done, published2, otherNoted;
    byte otherCandidate = NONE;

    carryOut(OTHER_CHANGE, otherCandidate, otherNoted);
    ended++
}
#endif

proctype reader() {
    byte version = NONE, seen;

    pin(version);
    mayRead(version);
    seen = content[version];
    mayRead(version);
    assert(content[version] == seen);
    unpin(version);
    ended++
}

init {
    byte turn;
    atomic {
        state[0] = inUse;
        published = 0;
        run interrupted();
#ifdef WITH_HANDLER
        run handler();
#endif
#ifdef WITH_OTHER
        run other();
#endif
        turn = 0;
        do
        :: turn < READERS -> run reader(); turn++
        :: else -> break
        od;
        started = _nr_pr - 1
    };
    ended == started;
    d_step {
        assert(content[published] == ALL_CHANGES);
        turn = 0;
        do
        :: turn < VERSIONS ->
            assert(pins[turn] == 0);
            assert(state[turn] == free || state[turn] == retired || turn == published);
            turn++
        :: else -> break
        od
    }
}
