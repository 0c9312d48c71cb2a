#include "shared/call_wrap.h"

#include <ctime>
#include <sys/file.h>
#include <utility>

std::function<void(int, const char *)> syslogHook;
std::function<void(LockMoment)> flockHook;
int exclusiveFd = -1;
bool secondIsEnding = false;

namespace {

void tell(LockMoment moment) {
    static bool hookIsRunning;
    if (!flockHook || std::exchange(hookIsRunning, true)) return;
    flockHook(moment);
    hookIsRunning = false;
}

}  // namespace

extern "C" {
void __wrap_syslog(int priority, const char *line, ...);
int __real_flock(int fd, int operation);
int __wrap_flock(int fd, int operation);
int __real_clock_gettime(clockid_t clock, timespec *time);
int __wrap_clock_gettime(clockid_t clock, timespec *time);
}

void __wrap_syslog(int priority, const char *line, ...) {
    if (syslogHook) syslogHook(priority, line);
}

int __wrap_flock(int fd, int operation) {
    if (operation == LOCK_SH && fd == exclusiveFd) {
        exclusiveFd = -1;
        tell(LockMoment::stillLocked);
        (void)__real_flock(fd, LOCK_UN);
        tell(LockMoment::givenUp);
    } else if (operation != LOCK_UN) {
        tell(LockMoment::beforeLock);
    }
    const int result = __real_flock(fd, operation);
    if (result == 0 && (operation & LOCK_EX) != 0) exclusiveFd = fd;
    return result;
}

int __wrap_clock_gettime(clockid_t clock, timespec *time) {
    const int result = __real_clock_gettime(clock, time);
    if (secondIsEnding) time->tv_nsec = 999'999'999;
    return result;
}
