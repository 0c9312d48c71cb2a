/* iosched/shared.h: memory shared between server processes.
 *
 * File-backed arenas, process-shared mutexes, named chunks, and the file lock table kept in one.
 */
#ifndef IOSCHED_SHARED_H
#define IOSCHED_SHARED_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Result codes. SCHED_ERR_SYSTEM and SCHED_ERR_VERSION are also in sched.h. */
#ifndef SCHED_ERR_SYSTEM
#define SCHED_ERR_SYSTEM 100000
#endif
#define SHARED_ERR_VERSION 350000
#define SHARED_ERR_MAGIC 350001
#define SHARED_ERR_NOSPACE 350002
#define SHARED_ERR_CORRUPT 350003
#define SHARED_ERR_NOTFOUND 350004
#define SHARED_ERR_BUSY 350005
#define SHARED_ERR_DENIED 350100
#define SHARED_ERR_NOLOCKS 350101
#define SHARED_ERR_LOCKED 350102
#define SHARED_ERR_SELFLOCKED 350103
#define SHARED_ERR_NOTLOCKED 350104
#define SHARED_ERR_NOTOPEN 350105
#define SHARED_ERR_BADTABLE 350106
#define SHARED_ERR_OPLOCK 350107

/* ---- process-shared mutexes ---- */

typedef struct SharedMutex {
    pthread_mutex_t mutex; /* 40 bytes */
    uint32_t holder;       /* process id of the holder, 0 while free */
    uint32_t padding;
} SharedMutex;

uint32_t InitializeSharedMutex(SharedMutex *mutex);
uint32_t AquireSharedMutex(SharedMutex *mutex);
uint32_t ReleaseSharedMutex(SharedMutex *mutex);
uint32_t DestroySharedMutex(SharedMutex *mutex);

/* ---- arenas ---- */

typedef struct SharedArena {
    void *base; /* address of the arena header, which begins with its SharedMutex */
    void *mapAddress;
    uint64_t mapLength;
    char *path;
    int32_t descriptor;
    uint64_t size;
} SharedArena;

#define SHARED_ARENA_CREATE 0x1
#define SHARED_ARENA_EXCLUSIVE 0x2

uint32_t OpenSharedArena(const char *path, int flags, mode_t mode, uint64_t size,
                         SharedArena **arena);
uint32_t CloseSharedArena(SharedArena *arena);
uint32_t DeleteSharedArena(const char *path);
uint32_t ForkSharedArena(SharedArena *arena);

/* ---- named chunks ---- */

uint32_t AllocateSharedChunk(SharedArena *arena, const char *name, uint64_t *size, void **chunk,
                             uint32_t *created);
uint32_t FreeSharedChunk(SharedArena *arena, void *chunk);
uint32_t CopySharedChunk(SharedArena *arena, void *chunk, SharedMutex *mutex, void **copy,
                         int64_t *delta);

/* ---- the file lock table ---- */

typedef struct SharedFileLockTable {
    SharedArena *arena;
    void *header; /* the table's header in this process's mapping */
} SharedFileLockTable;

typedef struct SharedFileKey {
    uint64_t word0;
    uint64_t word1;
} SharedFileKey;

#define SHARED_FILE_READ 0x00000001u
#define SHARED_FILE_WRITE 0x00000002u
#define SHARED_FILE_DELETE 0x00000008u
#define SHARED_FILE_DENY_READ 0x00000010u
#define SHARED_FILE_DENY_WRITE 0x00000020u
#define SHARED_FILE_DENY_DELETE 0x00000040u
#define SHARED_FILE_OPLOCK_EXCLUSIVE 0x00000100u
#define SHARED_FILE_OPLOCK_SHARED 0x00000200u
#define SHARED_FILE_OPLOCK_BATCH 0x00000400u
#define SHARED_FILE_OPLOCK_MASK 0x00000700u
#define SHARED_FILE_IGNORE_OPLOCKS 0x00100000u
#define SHARED_FILE_OWNER_COMPAT 0x20000000u
#define SHARED_FILE_OWNER_OVERRIDE 0x40000000u

#define SHARED_FILE_LOCK_SHARED 0x1u
#define SHARED_FILE_LOCK_EXCLUSIVE 0x2u
#define SHARED_FILE_TEST_READ 0x1u
#define SHARED_FILE_TEST_WRITE 0x2u

#define SHARED_FILE_TABLE_READY 3u

uint64_t CalcSharedFileLockTableSize(int32_t processes, int32_t filesPerProcess, int32_t locks);
int AllocateSharedFileLockTable(SharedArena *arena, const char *name, int32_t processes,
                                int32_t filesPerProcess, int32_t locks,
                                SharedFileLockTable **table);
int FreeSharedFileLockTable(SharedFileLockTable *table);
int CleanSharedFileLockTable(SharedFileLockTable *table, int32_t pid);

int OpenSharedFile(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                   const SharedFileKey *key, uint32_t mode, uint32_t maxOpens, const char *name,
                   uint32_t *combinedMode);
int CloseSharedFile(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                    const SharedFileKey *key);
int SharedFileIsOpen(SharedFileLockTable *table, const SharedFileKey *key);
int SharedFileInfo(SharedFileLockTable *table, const SharedFileKey *key, uint32_t *combinedMode,
                   uint32_t *opens, char *name, uint64_t nameSize);

int LockSharedFileRange(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                        const SharedFileKey *key, int64_t offset, int64_t length, uint32_t flags);
int UnlockSharedFileRange(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                          const SharedFileKey *key, int64_t offset, int64_t length);
int TestSharedFileRange(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                        const SharedFileKey *key, int64_t offset, int64_t *length, uint32_t flags);

int GetOplockHolders(SharedFileLockTable *table, const SharedFileKey *key, uint32_t *pids,
                     uint32_t capacity, uint32_t *count);
int SetSharedFileMode(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                      const SharedFileKey *key, uint32_t mode);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
