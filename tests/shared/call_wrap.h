// The system and threads calls by which arenas and tables are made, to fail or to die at, and the
// moments of a lock on a file in which another process could come in between.
//
// The calls that the CMakeLists.txt beside this names to the linker ask the hook first, wherever in
// the test program they are made; calls inside shared libraries do not.
#pragma once

#include <functional>
#include <string_view>

// Gets the call's name. 0 lets the call through, an error number makes it fail so. Not called while
// it is running itself.
extern std::function<int(std::string_view call)> callHook;

// A hook that lets the call of that name fail, after so many that it lets through.
inline std::function<int(std::string_view)> failing(std::string_view call, int error,
                                                    int letThrough = 0) {
    return
        [=](std::string_view now) mutable { return now == call && letThrough-- == 0 ? error : 0; };
}

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
