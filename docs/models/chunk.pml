/* How processes make and find one named chunk, here a lock table: src/shared/alloc.cpp and
 * createTable() in src/shared/locks_table.cpp. The creator comes back from AllocateSharedChunk()
 * with the arena's header mutex held and lets go of it when the table stands; should the making
 * fail, it lets go first and frees the chunk then, so that others may find it half made for a
 * moment: they look at its mark. A process may die at every step, also with the mutex held, which
 * then nobody gets any more; the rest wait, as the header says (arenactl repairs it).
 *
 * Shown: who gets a table gets a whole one, is refused only one whose making failed, and keeps it
 * until it lets go.
 *
 * guards: RELEASED_EARLY NO_MARK NO_COUNT
 */

#define USERS 3
#define ROUNDS 2

byte holder;               /* of the header mutex: a process's number + 1, 0 = free */
bool listed;               /* the chunk is on the allocated list */
byte references;
byte built;                /* 2: the table stands */
bool ready;                /* its mark, written last */
bool spoilt;               /* its maker has given up */
byte using;                /* processes that have been given the table */
byte deaths = 2;
bool dying[USERS];

/* Waiting for it is a place to end: its holder may have died. */
#define LOCK atomic { holder == 0 -> holder = me + 1 }

inline unlock() {
    atomic { assert(holder == me + 1); holder = 0 }
}

/* FreeSharedChunk: under the mutex, the last reference takes the chunk off the list. */
inline drop() {
    references--;
    if
    :: references == 0 ->
        atomic { assert(using == 0); listed = false; built = 0; ready = false; spoilt = false }
    :: else
    fi
}

proctype User(byte me) {
    byte rounds = ROUNDS;
    bool creator, mine;
    {
        do
        :: rounds > 0 ->
            rounds--;
endFirst:   LOCK;
            if
            :: listed ->
#ifndef NO_COUNT
                references++;
#endif
                unlock();
                creator = false
            :: else ->
                d_step { listed = true; references = 1; assert(built == 0) };
                creator = true
            fi;
            if
            :: creator ->
#ifdef RELEASED_EARLY
                unlock();
#endif
                if
                :: built = 1; built = 2; ready = true;
#ifndef RELEASED_EARLY
                    unlock()
#endif
                :: spoilt = true;  /* the table's mutex could not be made */
#ifndef RELEASED_EARLY
                    unlock();
#endif
                    goto failed
                fi
            :: else ->
#ifndef NO_MARK
                if
                :: ready
                :: !ready -> assert(spoilt); goto failed  /* SHARED_ERR_BADTABLE */
                fi
#endif
            fi;
            d_step { assert(listed && ready && built == 2); mine = true; using++ };
            d_step { assert(listed && ready && built == 2); mine = false; using-- };
failed:     skip;
endSecond:  LOCK;
            drop();
            unlock()
        :: else -> break
        od
    } unless { dying[me] };
    atomic {
        if
        :: mine -> using--; mine = false
        :: else
        fi
    }
}

active proctype Death() {
    do
    :: deaths > 0 ->
        deaths--;
        if
        :: dying[0] = true
        :: dying[1] = true
        :: dying[2] = true
        fi
    :: break
    od
}

init {
    atomic {
        run User(0);
        run User(1);
        run User(2)
    }
}
