#include "shared/call_wrap.h"

#include <cerrno>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

std::function<int(std::string_view)> callHook;
std::function<void(int, const char *)> syslogHook;
std::function<void(LockMoment)> flockHook;
int exclusiveFd = -1;

namespace {

bool hookIsRunning;

template <class Hook, class Argument>
int askHook(const Hook &hook, Argument argument) {
    if (!hook || hookIsRunning) return 0;
    hookIsRunning = true;
    int error = 0;
    if constexpr (std::is_void_v<decltype(hook(argument))>)
        hook(argument);
    else
        error = hook(argument);
    hookIsRunning = false;
    return error;
}

// Whether a call that reports by errno is to fail.
bool failsNow(const char *call) {
    const int error = askHook(callHook, call);
    if (error != 0) errno = error;
    return error != 0;
}

}  // namespace

// Calls that return their error number, and calls that return -1 (or so) and set errno.
#define WRAP_THREADS_CALL(name, parameters, arguments)                                             \
    extern "C" int __real_##name parameters;                                                       \
    extern "C" int __wrap_##name parameters;                                                       \
    extern "C" int __wrap_##name parameters {                                                      \
        const int error = askHook(callHook, #name);                                                \
        return error != 0 ? error : __real_##name arguments;                                       \
    }
#define WRAP_SYSTEM_CALL(type, name, failure, parameters, arguments)                               \
    extern "C" type __real_##name parameters;                                                      \
    extern "C" type __wrap_##name parameters;                                                      \
    extern "C" type __wrap_##name parameters {                                                     \
        return failsNow(#name) ? failure : __real_##name arguments;                                \
    }

WRAP_THREADS_CALL(pthread_mutexattr_init, (pthread_mutexattr_t * attribute), (attribute))
WRAP_THREADS_CALL(pthread_mutexattr_setpshared, (pthread_mutexattr_t * attribute, int shared),
                  (attribute, shared))
WRAP_THREADS_CALL(pthread_mutexattr_destroy, (pthread_mutexattr_t * attribute), (attribute))
WRAP_THREADS_CALL(pthread_mutex_init,
                  (pthread_mutex_t * mutex, const pthread_mutexattr_t *attribute),
                  (mutex, attribute))
WRAP_THREADS_CALL(pthread_mutex_clocklock,
                  (pthread_mutex_t * mutex, clockid_t clock, const timespec *end),
                  (mutex, clock, end))
WRAP_THREADS_CALL(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))
WRAP_SYSTEM_CALL(int, ftruncate, -1, (int fd, off_t length), (fd, length))
WRAP_SYSTEM_CALL(ssize_t, write, -1, (int fd, const void *bytes, size_t count), (fd, bytes, count))
WRAP_SYSTEM_CALL(int, stat, -1, (const char *path, struct stat *status), (path, status))
WRAP_SYSTEM_CALL(int, fstat, -1, (int fd, struct stat *status), (fd, status))
WRAP_SYSTEM_CALL(void *, mmap, MAP_FAILED,
                 (void *at, size_t length, int access, int flags, int fd, off_t offset),
                 (at, length, access, flags, fd, offset))

extern "C" void __wrap_syslog(int priority, const char *line, ...);
extern "C" void __wrap_syslog(int priority, const char *line, ...) {
    if (syslogHook) syslogHook(priority, line);
}

extern "C" int __real_flock(int fd, int operation);
extern "C" int __wrap_flock(int fd, int operation);
extern "C" int __wrap_flock(int fd, int operation) {
    if (operation == LOCK_SH && fd == exclusiveFd) {
        exclusiveFd = -1;
        (void)askHook(flockHook, LockMoment::stillLocked);
        (void)__real_flock(fd, LOCK_UN);
        (void)askHook(flockHook, LockMoment::givenUp);
    } else if (operation != LOCK_UN) {
        (void)askHook(flockHook, LockMoment::beforeLock);
    }
    const int result = __real_flock(fd, operation);
    if (result == 0 && (operation & LOCK_EX) != 0) exclusiveFd = fd;
    return result;
}
