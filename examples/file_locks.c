/* Two processes that respect each other's opens and locks, and what is left of one that died. */
#include <iosched/procs.h>
#include <iosched/sched.h>
#include <iosched/shared.h>
#include <stdio.h>
#include <unistd.h>

static int over;
static void onEnd(void *arg, const ChildStatus *status) {
    (void)arg, (void)status;
    over = 1;
}

int main(int argc, char **argv) {
    const char *path = argc > 1 ? argv[1] : "/dev/shm/iosched-locks";
    SharedFileKey key = {.word0 = 1, .word1 = 2}; /* device and inode, say */
    SharedArena *arena;
    SharedFileLockTable *table;
    uint32_t mode, opens, holders[4], count;
    char name[33];
    int64_t free = -1;
    uint64_t size = CalcSharedFileLockTableSize(4, 16, 0) + 4096;
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, NULL, 0) != 0 ||
        OpenSharedArena(path, SHARED_ARENA_CREATE, 0600, size, &arena) != 0 ||
        AllocateSharedFileLockTable(arena, "files", 4, 16, 0, &table) != 0)
        return perror(path), 1;
    pid_t other = ioFork();
    if (other == 0) { /* opens with an oplock, locks 100 bytes, and dies without a word */
        OpenSharedFile(table, 1, 1, &key, SHARED_FILE_READ | SHARED_FILE_OPLOCK_BATCH, 0, "a.txt",
                       &mode);
        _exit(LockSharedFileRange(table, 1, 1, &key, 50, 100, SHARED_FILE_LOCK_EXCLUSIVE));
    }
    registerChild(other, onEnd, NULL);
    while (!over)
        iosched(-1);
    printf("open: %d\n", OpenSharedFile(table, 7, 1, &key, SHARED_FILE_READ, 0, NULL, &mode));
    GetOplockHolders(table, &key, holders, 4, &count);
    printf("the oplock is the other's: %d\n", count == 1 && holders[0] == (uint32_t)other);
    TestSharedFileRange(table, 7, 1, &key, 0, &free, SHARED_FILE_TEST_WRITE);
    printf("bytes before its lock: %lld\n", (long long)free);
    CleanSharedFileLockTable(table, other); /* its process id was reaped here, so it is its own */
    printf("open after the cleaning: %d\n",
           OpenSharedFile(table, 7, 1, &key, SHARED_FILE_WRITE, 0, "a.txt", &mode));
    SetSharedFileMode(table, 7, 1, &key, SHARED_FILE_READ);
    SharedFileInfo(table, &key, &mode, &opens, name, sizeof name);
    printf("%s: mode %u, %u open\n", name, mode, opens);
    LockSharedFileRange(table, 7, 1, &key, 0, 10, SHARED_FILE_LOCK_SHARED);
    UnlockSharedFileRange(table, 7, 1, &key, 0, 10);
    CloseSharedFile(table, 7, 1, &key);
    printf("known: %d\n", SharedFileIsOpen(table, &key));
    FreeSharedFileLockTable(table);
    CloseSharedArena(arena);
    return DeleteSharedArena(path) == 0 ? ExitSched() : 1;
}
