#include "shared/call_wrap.h"

#include <cerrno>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

std::function<int(std::string_view)> callHook;

namespace {

bool hookIsRunning;

int errorFor(const char *call) {
    if (!callHook || hookIsRunning) return 0;
    hookIsRunning = true;
    const int error = callHook(call);
    hookIsRunning = false;
    return error;
}

// Whether a call that reports by errno is to fail.
bool failsNow(const char *call) {
    const int error = errorFor(call);
    if (error != 0) errno = error;
    return error != 0;
}

}  // namespace

// Calls that return their error number.
#define WRAP_THREADS_CALL(name, parameters, arguments)                                             \
    extern "C" int __real_##name parameters;                                                       \
    extern "C" int __wrap_##name parameters;                                                       \
    extern "C" int __wrap_##name parameters {                                                      \
        const int error = errorFor(#name);                                                         \
        return error != 0 ? error : __real_##name arguments;                                       \
    }

WRAP_THREADS_CALL(pthread_mutexattr_init, (pthread_mutexattr_t * attribute), (attribute))
WRAP_THREADS_CALL(pthread_mutexattr_setpshared, (pthread_mutexattr_t * attribute, int shared),
                  (attribute, shared))
WRAP_THREADS_CALL(pthread_mutexattr_destroy, (pthread_mutexattr_t * attribute), (attribute))
WRAP_THREADS_CALL(pthread_mutex_init,
                  (pthread_mutex_t * mutex, const pthread_mutexattr_t *attribute),
                  (mutex, attribute))
WRAP_THREADS_CALL(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
WRAP_THREADS_CALL(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))

extern "C" {
int __real_ftruncate(int fd, off_t length);
int __wrap_ftruncate(int fd, off_t length);
ssize_t __real_write(int fd, const void *bytes, size_t count);
ssize_t __wrap_write(int fd, const void *bytes, size_t count);
void *__real_mmap(void *at, size_t length, int access, int flags, int fd, off_t offset);
void *__wrap_mmap(void *at, size_t length, int access, int flags, int fd, off_t offset);

int __wrap_ftruncate(int fd, off_t length) {
    return failsNow("ftruncate") ? -1 : __real_ftruncate(fd, length);
}

ssize_t __wrap_write(int fd, const void *bytes, size_t count) {
    return failsNow("write") ? -1 : __real_write(fd, bytes, count);
}

void *__wrap_mmap(void *at, size_t length, int access, int flags, int fd, off_t offset) {
    return failsNow("mmap") ? MAP_FAILED : __real_mmap(at, length, access, flags, fd, offset);
}
}
