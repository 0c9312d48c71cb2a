// Mutexes and processes as they are seen from outside.
#pragma once

#include <iosched/shared.h>
#include <sys/types.h>

// A mutex as it is seen without asking for it.
struct MutexState {
    bool locked;
    pid_t owner;  // 0 = free, or locked for a few instructions, or for ever, by nobody on record
};

// Goes by the thread id that the C library keeps beside the lock; it is the process id in processes
// of one thread. The holder field is second: a child of plain fork() records its parent there.
MutexState stateOf(const SharedMutex *mutex);

// The letter that the system has for a process's state, 'T' for stopped, 'Z' for one that has ended
// and was not reaped; 0 if there is no such process.
char processState(pid_t pid);
