/* An arena, a chunk in it that two processes count in, and a private copy of it. */
#include <iosched/procs.h>
#include <iosched/sched.h>
#include <iosched/shared.h>
#include <stdio.h>
#include <stdlib.h>

typedef struct {
    SharedMutex mutex;
    int64_t count;
} Counter;
static int over;
static void onEnd(void *arg, const ChildStatus *status) {
    over = status->pid != 0 && arg == NULL;
}

static void countTo(Counter *counter, int times) {
    while (times-- > 0) {
        AquireSharedMutex(&counter->mutex);
        ++counter->count;
        ReleaseSharedMutex(&counter->mutex);
    }
}

int main(int argc, char **argv) {
    const char *path = argc > 1 ? argv[1] : "/dev/shm/iosched-chunks";
    SharedArena *arena;
    void *chunk, *copy;
    uint64_t size = sizeof(Counter);
    uint32_t created;
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, NULL, 0) != 0 ||
        OpenSharedArena(path, SHARED_ARENA_CREATE, 0600, 65536, &arena) != 0 ||
        AllocateSharedChunk(arena, "counter", &size, &chunk, &created) != 0)
        return perror(path), 1;
    Counter *counter = chunk;
    if (created) { /* nobody sees the chunk before the arena's mutex is released */
        InitializeSharedMutex(&counter->mutex);
        ReleaseSharedMutex((SharedMutex *)arena->base);
    }
    pid_t worker = ioFork();
    if (worker == 0) {
        ForkSharedArena(arena); /* a lock of its own on the file: in use while it runs */
        countTo(counter, 1000);
        exit(0);
    }
    registerChild(worker, onEnd, NULL);
    countTo(counter, 1000);
    while (!over)
        iosched(-1);
    CopySharedChunk(arena, chunk, &counter->mutex, &copy, NULL);
    printf("counted to %lld\n", (long long)((Counter *)copy)->count);
    free(copy);
    DestroySharedMutex(&counter->mutex); /* nobody uses it any more */
    FreeSharedChunk(arena, chunk);
    printf("in use: %s\n", DeleteSharedArena(path) == SHARED_ERR_BUSY ? "not deleted" : "deleted");
    CloseSharedArena(arena);
    return DeleteSharedArena(path) == 0 ? ExitSched() : 1;
}
