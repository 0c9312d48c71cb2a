// A flock that shows tests the moments in which another process could come in between.
//
// The test program's own flock takes the place of the C library's. It makes the turn from an
// exclusive to a shared lock as little atomic as the manual permits: the lock is given up, and only
// then asked for again.
#pragma once

#include <functional>

enum class LockMoment {
    beforeLock,   // the file is open, the lock not yet asked for
    givenUp,      // exclusive lock given up on the way to the shared one
    stillLocked,  // right before that: everything written, exclusive lock held
};

// Called at each moment of every flock call; not while it is running itself, so it may lock too.
extern std::function<void(LockMoment)> flockHook;
