// Process-shared mutexes that say who holds them.
//
// The holder's process id is cached, since a system call for each lock would cost more than the
// lock. The cache is right in the process that called InitSched and in children made with ioFork();
// a child made with plain fork() goes on recording its parent.
//
// A waiter looks again after each slice of time. An unlock wakes one waiter; if that one is killed
// before it runs, or the unlocker between freeing the word and its wake, the mutex is free and the
// other waiters would sleep until somebody contends again, on a quiet server for ever.
//
// Whoever can write to an arena can scribble on its mutexes, and the C library trusts what lies in
// them: on kinds that nobody makes here it follows pointers in them, or asserts and ends the
// process. So the words that decide this are looked at before each call.

#include "shared/shared_internal.h"

#include "iosched/procs.h"

#include <cerrno>
#include <ctime>
#include <unistd.h>

namespace {

// How long a lost wake can last, and how often a waiter's process wakes up for nothing.
constexpr long kSliceNs = 20'000'000;

// glibc's words in a mutex: a kind among flags, and 0 free, 1 held, 2 held and waited for.
constexpr unsigned kSharedFlag = 0x80, kElisionFlags = 0x300;
constexpr unsigned kLastPlainKind = PTHREAD_MUTEX_ADAPTIVE_NP;
constexpr unsigned kLastWord = 2;
static_assert(offsetof(pthread_mutex_t, __data.__lock) == 0x00 &&
              offsetof(pthread_mutex_t, __data.__kind) == 0x10);

// What AquireSharedMutex() records; 0 until initMutexes() has run.
int32_t currentPid;

uint32_t resultOf(int error) {
    errno = error;
    return error == 0 ? 0 : SCHED_ERR_SYSTEM;
}

unsigned wordOf(const int &word) {
    return static_cast<unsigned>(__atomic_load_n(&word, __ATOMIC_RELAXED));
}

// Whether the mutex is of a kind that keeps no pointers: neither robust nor with a protocol.
bool isPlain(const pthread_mutex_t *mutex) {
    return (wordOf(mutex->__data.__kind) & ~(kSharedFlag | kElisionFlags)) <= kLastPlainKind;
}

timespec endOfSlice() {
    constexpr long kSecondNs = 1'000'000'000;
    timespec time;
    (void)::clock_gettime(CLOCK_MONOTONIC, &time);  // this clock exists
    time.tv_nsec += kSliceNs;
    time.tv_sec += time.tv_nsec / kSecondNs;
    time.tv_nsec %= kSecondNs;
    return time;
}

// Waits as long as it takes, in slices. Kept out of the way of those who find the mutex free.
[[gnu::noinline]] int waitForMutex(pthread_mutex_t *mutex) {
    for (;;) {
        const timespec end = endOfSlice();
        const int error = pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &end);
        if (error != ETIMEDOUT) return error;
        if (!isPlain(mutex)) return EINVAL;
    }
}

// Tries before it waits. The try is a wait until a time long past: a free mutex is then locked at
// the price of pthread_mutex_lock(), where pthread_mutex_trylock() costs a tenth more, and for a
// held one glibc answers without asking the kernel. Nor does it assert that the owner's word was 0.
int lockMutex(pthread_mutex_t *mutex) {
    static constexpr timespec kLongPast{-1, 0};
    if (!isPlain(mutex)) return EINVAL;
    const int error = pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &kLongPast);
    return error == ETIMEDOUT ? waitForMutex(mutex) : error;
}

void forkProc(void * /*arg*/, int phase, int value) {
    if (phase == FORK_CHILD) currentPid = value;
}

// Other processes look at the holder without the lock, so it is written in one piece.
void recordHolder(SharedMutex *mutex, uint32_t pid) {
    __atomic_store_n(&mutex->holder, pid, __ATOMIC_RELAXED);
}

}  // namespace

bool iosched_lib::isSoundMutex(const SharedMutex *mutex) {
    return isPlain(&mutex->mutex) && wordOf(mutex->mutex.__data.__lock) <= kLastWord;
}

uint32_t iosched_lib::acquireIfSound(SharedMutex *mutex) {
    return isSoundMutex(mutex) ? AquireSharedMutex(mutex) : resultOf(EINVAL);
}

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
    if (resultOf(lockMutex(&mutex->mutex)) != 0) return SCHED_ERR_SYSTEM;
    recordHolder(mutex, static_cast<uint32_t>(currentPid));
    keepStoreOrder();  // whoever finds a change half made finds out whose it is
    return 0;
}

uint32_t ReleaseSharedMutex(SharedMutex *mutex) {
    // Before the unlock: nobody may find the mutex free while it still names a holder, and the next
    // holder's id must not be wiped.
    keepStoreOrder();
    recordHolder(mutex, 0);
    return resultOf(isPlain(&mutex->mutex) ? pthread_mutex_unlock(&mutex->mutex) : EINVAL);
}

uint32_t DestroySharedMutex(SharedMutex *mutex) {
    return resultOf(pthread_mutex_destroy(&mutex->mutex));
}

int iosched_lib::initMutexes() {
    currentPid = ::getpid();
    // Without the hook, children record this process; locking itself works all the same.
    (void)registerFork(forkProc, nullptr);
    return 0;
}
