// The lock table beside what it is made of and what it stands in for: a process-shared mutex taken
// and released, which every operation pays for, and a lock on an open file description set and
// unset, which is the kernel's own way to lock ranges between processes.
//
// The workloads named "getpid" ask the kernel for the process id at each call, as they would where
// it wipes no memory at a fork. The difference is what the remembered id saves.

#include "worker.h"

#include "iosched/sched.h"
#include "iosched/shared.h"
#include "shared/pid_internal.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr SharedFileKey kFile{0x1000, 0x2000};
constexpr uint32_t kNothing = 0;

SharedArena *arena;
SharedFileLockTable *table;
SharedMutex *mutex;  // the table's own

void openFile(const SharedFileKey &key) {
    uint32_t combined = 0;
    check(OpenSharedFile(table, 1, 1, &key, SHARED_FILE_READ, 0, "/a/path", &combined) == 0,
          "OpenSharedFile");
}

// A table in which `files` files are open. Its arena's file goes at once: nobody else opens it.
void prepareTable(long files, long) {
    char message[128], directory[] = "/tmp/bench_locks.XXXXXX", path[64];
    check(InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, message, sizeof message) == 0,
          message);
    check(::mkdtemp(directory) != nullptr, "mkdtemp");
    std::snprintf(path, sizeof path, "%s/arena", directory);
    check(OpenSharedArena(path, SHARED_ARENA_CREATE, 0600, 4 << 20, &arena) == 0, "arena");
    (void)::unlink(path);
    (void)::rmdir(directory);
    check(AllocateSharedFileLockTable(arena, "bench", 16, 256, 0, &table) == 0, "table");
    mutex = static_cast<SharedMutex *>(table->header);
    for (uint64_t i = 0; i < static_cast<uint64_t>(files); ++i)
        openFile({i, i << 20});
}

void prepareFile(long files, long) {
    prepareTable(files, 0);
    openFile(kFile);
}

void forgetPid(long, long) {
    ownPidWord = &kNothing;
}

template <auto First, auto Second>
void both(long files, long busy) {
    First(files, busy);
    Second(files, busy);
}

// A chunk among `chunks` others, found by its name and given back.
void prepareChunks(long chunks, long) {
    prepareTable(0, 0);
    for (long i = 0; i <= chunks; ++i) {
        char name[32];
        uint64_t size = 64;
        uint32_t created = 0;
        void *chunk = nullptr;
        std::snprintf(name, sizeof name, "chunk %ld", i);
        check(AllocateSharedChunk(arena, name, &size, &chunk, &created) == 0 && created == 1, name);
        check(ReleaseSharedMutex(static_cast<SharedMutex *>(arena->base)) == 0, name);
    }
}

long findChunk(long repeats) {
    for (long i = 0; i < repeats; ++i) {
        uint64_t size = 0;
        uint32_t created = 0;
        void *chunk = nullptr;
        check(AllocateSharedChunk(arena, "chunk 0", &size, &chunk, &created) == 0, "find");
        check(FreeSharedChunk(arena, chunk) == 0 && size >= 64, "give back");
    }
    return repeats;
}

long lockRange(long repeats) {
    for (long i = 0; i < repeats; ++i) {
        check(LockSharedFileRange(table, 1, 1, &kFile, 0, 100, SHARED_FILE_LOCK_EXCLUSIVE) == 0,
              "LockSharedFileRange");
        check(UnlockSharedFileRange(table, 1, 1, &kFile, 0, 100) == 0, "UnlockSharedFileRange");
    }
    return repeats;
}

long openAndClose(long repeats) {
    for (long i = 0; i < repeats; ++i) {
        openFile(kFile);
        check(CloseSharedFile(table, 1, 1, &kFile) == 0, "CloseSharedFile");
    }
    return repeats;
}

// Every operation above takes the mutex once, so each repeat there pays for two such pairs.
long lockSharedMutex(long repeats) {
    for (long i = 0; i < repeats; ++i) {
        check(AquireSharedMutex(mutex) == 0 && mutex->holder != 0, "AquireSharedMutex");
        check(ReleaseSharedMutex(mutex) == 0, "ReleaseSharedMutex");
    }
    return repeats;
}

long lockThreadsMutex(long repeats) {
    for (long i = 0; i < repeats; ++i) {
        check(::pthread_mutex_lock(&mutex->mutex) == 0, "pthread_mutex_lock");
        check(::pthread_mutex_unlock(&mutex->mutex) == 0, "pthread_mutex_unlock");
    }
    return repeats;
}

long lockByKernel(long repeats) {
    struct flock range {};
    range.l_len = 100;
    for (long i = 0; i < repeats; ++i) {
        range.l_type = F_WRLCK;
        check(::fcntl(arena->descriptor, F_OFD_SETLK, &range) == 0, "F_OFD_SETLK");
        range.l_type = F_UNLCK;
        check(::fcntl(arena->descriptor, F_OFD_SETLK, &range) == 0, "F_OFD_SETLK");
    }
    return repeats;
}

constexpr Workload kWorkloads[] = {
    {"mutex-iosched", prepareTable, lockSharedMutex},
    {"mutex-pthread", prepareTable, lockThreadsMutex},
    {"range-iosched", prepareFile, lockRange},
    {"range-kernel", prepareFile, lockByKernel},
    {"range-getpid-iosched", both<prepareFile, forgetPid>, lockRange},
    {"open-iosched", prepareTable, openAndClose},
    {"chunk-iosched", prepareChunks, findChunk},
    {"open-getpid-iosched", both<prepareTable, forgetPid>, openAndClose},
};

}  // namespace

const std::span<const Workload> workloads = kWorkloads;
