#include "shared/interposed_flock.h"

#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

std::function<void(LockMoment)> flockHook;

namespace {

int exclusiveFd = -1;  // the descriptor that got an exclusive lock last
bool hookIsRunning;

int realFlock(int fd, int operation) {
    return static_cast<int>(::syscall(SYS_flock, fd, operation));
}

void runHook(LockMoment moment) {
    if (!flockHook || hookIsRunning) return;
    hookIsRunning = true;
    flockHook(moment);
    hookIsRunning = false;
}

}  // namespace

extern "C" int flock(int fd, int operation) noexcept {
    if (operation == LOCK_SH && fd == exclusiveFd) {
        exclusiveFd = -1;
        runHook(LockMoment::stillLocked);
        (void)realFlock(fd, LOCK_UN);
        runHook(LockMoment::givenUp);
    } else if (operation != LOCK_UN) {
        runHook(LockMoment::beforeLock);
    }
    const int result = realFlock(fd, operation);
    if (result == 0 && (operation & LOCK_EX) != 0) exclusiveFd = fd;
    return result;
}
