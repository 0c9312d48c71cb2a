// The mutexes of an arena in the hands of a process that repairs it.
//
// They are plain mutexes of the C library, so one whose holder died stays locked. What is done here
// is to put this process in the dead one's place, so that the library's own unlock ends it. Nowhere
// is the lock word written 0: the C library may be about to wake somebody by it.
#pragma once

#include "iosched/shared.h"
#include "processes.h"

enum class Holder {
    kNone,      // the mutex is free
    kAlive,     // held by a process that may yet release it
    kDead,      // held by one that cannot
    kNameless,  // locked, with no owner recorded: just being locked or unlocked, or for ever
};

// Who holds a mutex at this moment, and the thread id of the holder, 0 for none. Not for a mutex
// that this process holds itself.
Holder judgeHolder(const SharedMutex *mutex, const Processes &processes, uint32_t *thread);

// Whether the mutex is one of an arena: shared between processes, of the default type, its word one
// that means something. With others the C library follows pointers that lie in the mutex.
bool canTakeOver(const SharedMutex *mutex);

// Makes this process the holder. Only for a mutex whose locker is known to be dead.
void takeOver(SharedMutex *mutex);

// Takes the mutex if it is free.
bool tryLock(SharedMutex *mutex);

// Ends what takeOver() or tryLock() began. All that wait look again: a process that died between
// its unlock and the wake, or between the wake and its lock, has left them asleep.
void release(SharedMutex *mutex);
void wakeAll(const SharedMutex *mutex);
