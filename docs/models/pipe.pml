/* How a caught signal becomes a callback of the loop, and what becomes of that in a child:
 * src/sched/signals_unix.cpp. Signals get in only while a pass waits; the handler marks the signal
 * and puts a byte into the self-pipe, and nothing of the loop runs in between. Callbacks run passes
 * of their own, fork, and have the library ended and started again. A child of a fork has the
 * parent's marks and, until it has made its own, the parent's pipe. It may fail to get one; its
 * passes then call what is marked themselves.
 *
 * Shown: no process ever waits in poll with a mark that no byte tells of, so every signal that has
 * arrived gets its callback; and each process reads its own bytes only.
 *
 * guards: NO_SECOND_WAKE NO_WAKE_OF_NEW_PIPE NO_OWN_PIPE NO_LOST_PIPE_CARE
 */

#define SIGNALS 2          /* different ones, numbered 0 and 1 */
#define ARRIVALS 4         /* that the outside sends, to either process */
#define ROOM 2             /* bytes that a pipe takes; one more is not needed to wake */
#define DEPTH 2            /* passes inside each other */
#define PIPES 3            /* one to begin with, one after a fork, one after a new start */

#define marked(p) (marks[p * SIGNALS] || marks[p * SIGNALS + 1])
#define bytesOf(p) bytes[own[p]]

bool marks[2 * SIGNALS];   /* of the parent, 0, and the child, 1 */
byte bytes[PIPES + 1];     /* in each pipe; the last one is none at all */
byte own[2];               /* the pipe whose ends a process has */
bool lost[2];              /* it has none and wants one */
byte arrivals = ARRIVALS;
bool forked, restarted;
bool waits[2];             /* stands in poll */

inline wake(p) {
    if
    :: own[p] < PIPES && bytesOf(p) < ROOM -> bytesOf(p)++
    :: else
    fi
}

/* createSelfPipe: number names the new pipe. */
inline createPipe(p, number) {
    own[p] = number;
    bytes[number] = 0;
    lost[p] = false;
#ifndef NO_WAKE_OF_NEW_PIPE
    if
    :: marked(p) -> wake(p)
    :: else
    fi
#endif
}

/* What the loop does between two waits is invisible to others, but for the pipe that a child still
 * shares; a pass is therefore a few steps. level: how many selfPipeFunc() are at work, at[] where
 * each of them stands in callPendingSignals(). */
proctype Loop(byte p; byte level; byte at0; byte at1) {
    byte at[DEPTH];
    at[0] = at0;
    at[1] = at1;
    if
    :: p == 1 ->
#ifndef NO_OWN_PIPE
        if                                  /* afterForkChildSelfPipe() */
        :: d_step { createPipe(p, 1) }
        :: d_step { own[p] = PIPES; lost[p] = true }
        fi;
#endif
        goto body                           /* the child is still inside the callback that forked */
    :: else
    fi;

pass:
    if                                      /* runSignalsWithoutPipe() */
    :: lost[p] ->
        if
        :: d_step { createPipe(p, 1) }
#ifdef NO_LOST_PIPE_CARE
        :: skip
#else
        :: level < DEPTH -> at[level] = 0; level++; goto callbacks
        :: level == DEPTH -> goto passDone  /* the model goes no deeper: what waits, waits */
#endif
        fi
    :: else
    fi;
    waits[p] = true;                        /* poll, signals let in */
endWait:
    do
    :: atomic { arrivals > 0 -> arrivals--; marks[p * SIGNALS] = true; wake(p) }
    :: atomic { arrivals > 0 -> arrivals--; marks[p * SIGNALS + 1] = true; wake(p) }
    :: atomic { own[p] < PIPES && bytesOf(p) > 0 -> break }
    :: atomic { marked(p) -> waits[p] = false; goto passDone }  /* EINTR: nothing is dispatched */
    od;
    waits[p] = false;
    if
    :: level == DEPTH -> goto passDone
    :: else -> at[level] = 0; level++
    fi;

callbacks:                                  /* callPendingSignals(), from where it stands */
    do
    :: at[level - 1] == SIGNALS -> break
    :: at[level - 1] < SIGNALS && !marks[p * SIGNALS + at[level - 1]] -> at[level - 1]++
    :: at[level - 1] < SIGNALS && marks[p * SIGNALS + at[level - 1]] ->
        marks[p * SIGNALS + at[level - 1]] = false;
        at[level - 1]++;
body:
        if                                  /* what the callback does */
        :: skip
        :: level < DEPTH -> goto pass
        :: atomic { !forked && p == 0 ->    /* ioFork() */
               forked = true;
               marks[2] = marks[0];
               marks[3] = marks[1];
               own[1] = own[0];
               run Loop(1, level, at[0], at[1])
           };
           goto body
        :: d_step { !restarted && p == 0 && !lost[p] -> /* ExitSched(), InitSched() */
               restarted = true;
               bytesOf(p) = 0;              /* nobody reads it any more */
               createPipe(p, 2)
           };
           goto body
        fi
    od;
    if                                      /* selfPipeFunc() goes on: drainSelfPipe() */
    :: own[p] < PIPES -> bytesOf(p) = 0
    :: else
    fi;
#ifndef NO_SECOND_WAKE
    d_step {
        if
        :: marked(p) -> wake(p)
        :: else
        fi
    };
#endif
    level--;
passDone:
    if
    :: level > 0 -> goto callbacks          /* the callback that ran this pass comes back */
    :: else -> goto pass
    fi
}

/* What must never be, looked at in every state. */
active proctype Watcher() {
endWatch:
    atomic {
        (waits[0] && marked(0) && bytesOf(0) == 0) ||
        (waits[1] && marked(1) && bytesOf(1) == 0) -> assert(false)
    }
}

init { run Loop(0, 0, 0, 0) }
