// Process-shared mutexes that say who holds them.
//
// The holder's process id is cached, since a system call for each lock would cost more than the lock.
// The cache is right in the process that called InitSched and in children made with ioFork(); a
// child made with plain fork() goes on recording its parent.

#include "shared/shared_internal.h"

#include "iosched/procs.h"

#include <cerrno>
#include <unistd.h>

namespace {

// What AquireSharedMutex() records; 0 until initMutexes() has run.
int32_t currentPid;

uint32_t resultOf(int error) {
    errno = error;
    return error == 0 ? 0 : SCHED_ERR_SYSTEM;
}

void forkProc(void * /*arg*/, int phase, int value) {
    if (phase == FORK_CHILD) currentPid = value;
}

// Other processes look at the holder without the lock, so it is written in one piece.
void recordHolder(SharedMutex *mutex, uint32_t pid) {
    __atomic_store_n(&mutex->holder, pid, __ATOMIC_RELAXED);
}

}  // namespace

uint32_t InitializeSharedMutex(SharedMutex *mutex) {
    pthread_mutexattr_t attribute;
    if (resultOf(pthread_mutexattr_init(&attribute)) != 0) return SCHED_ERR_SYSTEM;
    if (resultOf(pthread_mutexattr_setpshared(&attribute, PTHREAD_PROCESS_SHARED)) != 0 ||
        resultOf(pthread_mutex_init(&mutex->mutex, &attribute)) != 0) {
        (void)pthread_mutexattr_destroy(&attribute);  // errno keeps the call that failed
        return SCHED_ERR_SYSTEM;
    }
    return resultOf(pthread_mutexattr_destroy(&attribute));
}

uint32_t AquireSharedMutex(SharedMutex *mutex) {
    if (resultOf(pthread_mutex_lock(&mutex->mutex)) != 0) return SCHED_ERR_SYSTEM;
    recordHolder(mutex, static_cast<uint32_t>(currentPid));
    return 0;
}

uint32_t ReleaseSharedMutex(SharedMutex *mutex) {
    // Before the unlock: nobody may find the mutex free while it still names a holder, and the next
    // holder's id must not be wiped.
    recordHolder(mutex, 0);
    return resultOf(pthread_mutex_unlock(&mutex->mutex));
}

uint32_t DestroySharedMutex(SharedMutex *mutex) {
    return resultOf(pthread_mutex_destroy(&mutex->mutex));
}

int initMutexes() {
    currentPid = ::getpid();
    // Without the hook, children record this process; locking itself works all the same.
    (void)registerFork(forkProc, nullptr);
    return 0;
}
