// Care: what the lock table needs when a worker dies, stands still, or is to be killed.
//
// A worker that dies leaves its records in the table, and perhaps a mutex locked. The records are
// removed and the mutex is repaired by errands (errand.h), one at a time, in an order: a mutex
// first, since cleaning needs it. A watch looks at both mutexes all the while, from outside: it
// finds those that died with a holder that was not seen to take them, and those whose holder lives
// and stands still. Of the last it only tells, unless it is allowed to kill.
#pragma once

#include <sys/types.h>

// Starts the watch.
void startCare();

// A worker has ended and was reaped by this process.
void careForDead(pid_t worker);

// Has one worker killed at a moment when it holds no mutex.
void killOneLater();

// While it is so nobody may be started: a new worker that got a dead one's number would lose its
// records with the dead one's.
bool careUnderWay();

// The service is stopping: no more kills, and cleaning is given up when it does not come to an end.
void wantCareToEnd();

// True while a mutex is held by somebody who may never let go: then nobody should wait for it.
bool mutexIsStuck();
