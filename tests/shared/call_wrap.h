// The moments of a lock on a file in which another process could come in between, what is written to
// the system log, and a clock about to turn to the next second.
//
// The calls that the CMakeLists.txt beside this names to the linker come here, wherever in the test
// program they are made; calls inside shared libraries do not.
#pragma once

#include <functional>

// Gets what is written to the system log, which never gets there itself.
extern std::function<void(int priority, const char *line)> syslogHook;

// flock makes the turn from an exclusive to a shared lock as little atomic as the manual permits:
// the lock is given up, and only then asked for again.
enum class LockMoment {
    beforeLock,   // the file is open, the lock not yet asked for
    givenUp,      // exclusive lock given up on the way to the shared one
    stillLocked,  // right before that: everything written, exclusive lock held
};

// Called at each moment of every flock call; not while it is running itself, so it may lock too.
extern std::function<void(LockMoment)> flockHook;
// The descriptor that got an exclusive lock last. To be set to -1 once it is closed.
extern int exclusiveFd;

// Lets every time that is asked for lie a nanosecond before the next second.
extern bool secondIsEnding;
