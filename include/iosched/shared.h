/* iosched/shared.h: memory shared between server processes.
 *
 * File-backed arenas, process-shared mutexes, named chunks, and the file lock table kept in one.
 * What holds for the whole header:
 *
 * - Result codes: 0 is success. SCHED_ERR_SYSTEM means that a system or threads call failed and
 *   errno says why; the other codes say it all themselves, and errno then means nothing.
 * - Outputs are written on success only, where nothing else is said.
 * - Nothing here needs the loop. InitSched() is needed for one thing: that mutexes record who
 *   holds them.
 * - One thread per process. None of the functions may be called in a signal handler.
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
#define SHARED_ERR_VERSION 350000    /* an arena of another layout version */
#define SHARED_ERR_MAGIC 350001      /* no initialised arena */
#define SHARED_ERR_NOSPACE 350002    /* no free block is large enough */
#define SHARED_ERR_CORRUPT 350003    /* not a chunk of this arena, or its lists are damaged */
#define SHARED_ERR_NOTFOUND 350004   /* no chunk of that name, and no size to make one */
#define SHARED_ERR_BUSY 350005       /* some process has the arena open */
#define SHARED_ERR_DENIED 350100     /* refused by the other opens, or by the limit */
#define SHARED_ERR_NOLOCKS 350101    /* the table is full */
#define SHARED_ERR_LOCKED 350102     /* another holder has a conflicting lock */
#define SHARED_ERR_SELFLOCKED 350103 /* the caller's own lock conflicts */
#define SHARED_ERR_NOTLOCKED 350104  /* the holder has no such lock */
#define SHARED_ERR_NOTOPEN 350105    /* nobody has the file open */
#define SHARED_ERR_BADTABLE 350106   /* the chunk is no lock table that is ready */
#define SHARED_ERR_OPLOCK 350107     /* an oplock is in the way, or there is none to keep */

/* ---- process-shared mutexes ----
 *
 * Neither recursive nor robust: who locks twice waits for ever. Once the holder has died, everybody
 * waits until the arena is repaired (arenactl repair); the holder field then names the dead process.
 * Waiting heals by itself where nobody holds the mutex: a waiter looks again every 20 ms, so that a
 * wake which was lost with a killed process strands nobody.
 *
 * Whoever can write to the memory can damage a mutex. A kind that InitializeSharedMutex() does not make
 * (robust, with a protocol, or none at all) is refused with EINVAL. A lock word that says "held" is
 * believed, whoever wrote it. One that says neither "free" nor "held" is refused with EINVAL by the
 * functions on chunks; who comes upon it in AquireSharedMutex() or in an operation on a lock table
 * waits as for a dead holder.
 *
 * Every function returns 0, or SCHED_ERR_SYSTEM, and sets errno in either case: to 0, or to the error
 * of the threads call. */

/* 48 bytes in memory that the processes share. */
typedef struct SharedMutex {
    pthread_mutex_t mutex; /* 40 bytes */
    uint32_t holder;       /* process id of the holder, 0 while free */
    uint32_t padding;
} SharedMutex;

/* Makes a mutex, once, before any process uses it. Leaves the holder field as it is. */
uint32_t InitializeSharedMutex(SharedMutex *mutex);

/* Locks, waiting as long as it takes (in slices of 20 ms), and records the process as the holder: by its process id from
 * InitSched() on, by 0 before. A child of ioFork() records itself; a child of plain fork() records its
 * parent. A failure leaves the holder field as it is. */
uint32_t AquireSharedMutex(SharedMutex *mutex);

/* Clears the holder field, then unlocks. The field stays cleared even if the unlocking fails. */
uint32_t ReleaseSharedMutex(SharedMutex *mutex);

/* Ends a mutex that nobody holds or waits for. Never to be called on an arena's header mutex. */
uint32_t DestroySharedMutex(SharedMutex *mutex);

/* ---- arenas ----
 *
 * An arena is a file that processes map at addresses of their own, so what lies in it refers to
 * other places in it by their distance from the base. Whoever has it open holds a shared flock lock on
 * the file; programs that are not built on this library may take part in that. The file must not be
 * cut, written to or renamed by other means while it is in use.
 *
 * The processes that share an arena trust each other. Whoever can write the file can change what every
 * other process reads in it; the library checks what it follows, so that bad bytes end in an error and
 * not in a stray write, but it cannot tell a forged record from a true one. Whoever can open it for
 * reading can hold everybody up with flock. So give it mode 0600, in a directory that only its owner
 * writes to. SHARED_ARENA_CREATE takes over whatever file it finds at the path. */

/* An open arena. Read the fields, never write them. */
typedef struct SharedArena {
    void *base;         /* the arena header, which begins with its SharedMutex */
    void *mapAddress;   /* the mapping: its start */
    uint64_t mapLength; /* and its length in bytes, the file's size */
    char *path;         /* as given to OpenSharedArena() */
    int32_t descriptor; /* of the file, with the shared lock; -1 = none */
    uint64_t size;      /* bytes asked for, in whole pages */
} SharedArena;

#define SHARED_ARENA_CREATE 0x1    /* make the file; initialise it unless it is in use */
#define SHARED_ARENA_EXCLUSIVE 0x2 /* with CREATE: fail if the file exists (EEXIST) */

/* Opens the arena at the path.
 *
 *   flags  SHARED_ARENA_ flags; other bits are ignored. With SHARED_ARENA_CREATE the first process
 *          that finds no other user initialises the arena, which discards what was in it; every
 *          other process attaches. Without it an open only attaches.
 *   mode   permissions of a file that is made, as for open(2).
 *   size   bytes, rounded up to whole pages; used only by the process that initialises. The
 *          file is written out in full, so that a full disk shows here (ENOSPC). 0 empties the
 *          file and fails with EINVAL. A size that cannot be rounded up fails with EINVAL, and one
 *          above the limit on a file's size (RLIMIT_FSIZE) with EFBIG; the file then stays as it
 *          is.
 *   arena  receives the handle, the caller's until CloseSharedArena().
 *
 * Waits while another process initialises. A creator that finds the file in use and empty or half
 * made tries for about half a second. A file that was cut or added to is an arena all the same: what
 * no longer lies in it is damage.
 *
 * Returns 0; SCHED_ERR_SYSTEM (EINVAL for an empty file, EINTR when a caught signal ended the wait,
 * ESTALE when the path never leads to the file that was opened); SHARED_ERR_MAGIC for a file that is
 * no arena or was half made; SHARED_ERR_VERSION. After a failure nothing is left open, and no room on
 * the disk is left taken: a file whose initialisation failed is cut to one page of zeros, for the
 * next creator. */
uint32_t OpenSharedArena(const char *path, int flags, mode_t mode, uint64_t size,
                         SharedArena **arena);

/* Unmaps and frees the handle and gives up its lock; the file and its chunks stay, references
 * included. Returns 0. */
uint32_t CloseSharedArena(SharedArena *arena);

/* Removes an arena's file, unless a process (the caller too) has it open: then SHARED_ERR_BUSY.
 * Returns 0, or SCHED_ERR_SYSTEM with errno of open, flock or unlink, or ESTALE as above. */
uint32_t DeleteSharedArena(const char *path);

/* To be called in a child after a fork, for each arena that it goes on using: gives it a descriptor
 * and a lock of its own in place of those that it shares with its parent. The mapping stays. The
 * new descriptor is inherited by programs that the child executes. The path is opened again, so a
 * relative one must still lead to the file.
 *
 * Returns 0, or SCHED_ERR_SYSTEM, after which the handle's descriptor is -1 or has no lock. EINTR
 * means that a caught signal ended the wait for the lock; ESTALE that another file is at the path
 * now, or that this one was made anew with another size while the handle had no lock. The call may
 * be repeated. */
uint32_t ForkSharedArena(SharedArena *arena);

/* ---- named chunks ----
 *
 * Pieces of an arena, 8-byte aligned, with as many references as successful calls asked for them.
 * The functions take the arena's header mutex, so a trace callback must not call them. A damaged
 * arena gets SHARED_ERR_CORRUPT; nothing outside the mapping is read or written. */

/* Finds the chunk of that name and adds a reference, or makes one.
 *
 *   name     compared byte by byte; NULL makes a chunk without a name, which nobody else finds.
 *   size     in: bytes of a chunk to be made, 0 = only look it up. Out: bytes of a chunk found.
 *   chunk    receives the address of the chunk's data, all zeros in a new chunk.
 *   created  receives 1 when this call made the chunk; 0 else, on failure too.
 *
 * With *created 1 the caller holds the arena's header mutex: it fills the chunk in and then calls
 * ReleaseSharedMutex((SharedMutex *)arena->base). Until then nobody else can see the chunk, and the
 * caller must not call AllocateSharedChunk() or FreeSharedChunk() on this arena.
 *
 * Returns 0, SHARED_ERR_NOTFOUND, SHARED_ERR_NOSPACE, SHARED_ERR_CORRUPT or SCHED_ERR_SYSTEM; a
 * failure changes nothing in the arena. */
uint32_t AllocateSharedChunk(SharedArena *arena, const char *name, uint64_t *size, void **chunk,
                             uint32_t *created);

/* Drops one reference; with the last one the chunk's block goes back to the heap.
 *
 * Returns 0; SCHED_ERR_SYSTEM, with nothing changed; or SHARED_ERR_CORRUPT. That also answers an
 * address where no chunk can be, or one without references, and changes nothing then. If the last
 * reference was dropped and a list turned out to be damaged or not to hold the chunk, the
 * chunk has no name and no references and is on no list. */
uint32_t FreeSharedChunk(SharedArena *arena, void *chunk);

/* Copies a chunk's data into memory from malloc, which the caller frees.
 *
 *   mutex  held during the copying; NULL for none.
 *   copy   receives the copy's address, or NULL on failure.
 *   delta  receives what, added to the arena offset of a place in the chunk, gives the address of
 *          that place in the copy; 0 on failure. NULL when it is not wanted.
 *
 * The caller holds a reference to the chunk. Returns 0, SHARED_ERR_CORRUPT for an address where no
 * chunk can be, or SCHED_ERR_SYSTEM (memory, or the mutex). */
uint32_t CopySharedChunk(SharedArena *arena, void *chunk, SharedMutex *mutex, void **copy,
                         int64_t *delta);

/* ---- the file lock table ----
 *
 * Server processes that share files record in one table which files they hold open, how, and which
 * byte ranges of them they have locked, so that each respects the opens and locks of the others. A
 * table is a named chunk of an arena; a process reaches it through a SharedFileLockTable of its
 * own.
 *
 * Every function but CalcSharedFileLockTableSize and SharedFileIsOpen returns an int: 0 or one of
 * the result codes at the head of this file, and a failure changes nothing in the table. Every
 * operation takes the table's mutex for its whole run, waiting for it as long as need be.
 * SCHED_ERR_SYSTEM means that the mutex failed, with errno from the POSIX threads call; after
 * success errno is 0. The mutex is not robust: a process that dies inside an operation leaves the
 * table locked, and the mutex's holder field names the dead. No operation allocates memory, and
 * none makes a system call while nobody else is in the table; a full table writes one line to the
 * system log, at LOG_ERR.
 *
 * Whoever holds an open or a lock is named by three numbers: the calling process's id, which is
 * taken at each call, and an owner id and a handle id of the caller's choice. A child of fork(), of
 * ioFork() or of clone() with memory of its own is a holder of its own from its first call on. A
 * child of vfork() runs in its parent's memory and may be taken for it: it must not call these
 * functions.
 *
 * Pointers must not be NULL where nothing else is said. What they lead to is read before the table's
 * mutex is taken and written after it is released: a bad pointer ends its caller, not the table. Not
 * for use in a signal handler. */

/* A process's access to a table. Made by AllocateSharedFileLockTable, freed by
 * FreeSharedFileLockTable; in between it belongs to the caller, and a child that inherits the
 * arena's mapping may go on using it. */
typedef struct SharedFileLockTable {
    SharedArena *arena;
    void *header; /* the table's header in this process's mapping */
} SharedFileLockTable;

/* Which file: any 128 bits that all processes derive from it alike, device and inode for example.
 * The table compares keys whole and spreads them by the low half of word0 and by word1. */
typedef struct SharedFileKey {
    uint64_t word0;
    uint64_t word1;
} SharedFileKey;

/* Mode words of opens. A file's combined mode is the OR of the mode words of its opens. Bits
 * without a name are kept and combined like the others; of them, 0x0800 to 0x4000 go the way of the
 * oplock bits when an open joins others, and 0x8000 is left out of what SharedFileInfo reports. */
#define SHARED_FILE_READ 0x00000001u        /* access wanted */
#define SHARED_FILE_WRITE 0x00000002u       /* access wanted */
#define SHARED_FILE_DELETE 0x00000008u      /* access wanted */
#define SHARED_FILE_DENY_READ 0x00000010u   /* others may not read */
#define SHARED_FILE_DENY_WRITE 0x00000020u  /* others may not write */
#define SHARED_FILE_DENY_DELETE 0x00000040u /* others may not delete, if this side has access */
#define SHARED_FILE_OPLOCK_EXCLUSIVE 0x00000100u /* other opens get SHARED_ERR_OPLOCK */
#define SHARED_FILE_OPLOCK_SHARED 0x00000200u    /* stops nobody */
#define SHARED_FILE_OPLOCK_BATCH 0x00000400u     /* other opens get SHARED_ERR_OPLOCK */
#define SHARED_FILE_OPLOCK_MASK 0x00000700u
#define SHARED_FILE_IGNORE_OPLOCKS 0x00100000u /* of a request only: open despite oplocks */
#define SHARED_FILE_OWNER_COMPAT 0x20000000u   /* see OpenSharedFile */
#define SHARED_FILE_OWNER_OVERRIDE 0x40000000u /* see OpenSharedFile */

/* Flags of byte-range locks. */
#define SHARED_FILE_LOCK_SHARED 0x1u    /* read lock; stacks on the same holder's locks */
#define SHARED_FILE_LOCK_EXCLUSIVE 0x2u /* write lock; with SHARED stacks on the holder's own */
/* What TestSharedFileRange asks for. */
#define SHARED_FILE_TEST_READ 0x1u
#define SHARED_FILE_TEST_WRITE 0x2u

/* The state word of a table that is ready for use. */
#define SHARED_FILE_TABLE_READY 3u

/* The bytes of chunk that a table needs for
 *
 *   processes * filesPerProcess  files open at once, and
 *   locks                        opens and range locks together; 0 stands for
 *                                processes * (filesPerProcess + 20)
 *
 * Checks nothing: products are taken in 32 bits and wrap. */
uint64_t CalcSharedFileLockTableSize(int32_t processes, int32_t filesPerProcess, int32_t locks);

/* Creates the table called name in the arena, or attaches to the one that is there.
 *
 *   arena      an open arena, which must stay open as long as the handle is used
 *   name       of the chunk, not kept
 *   processes, filesPerProcess, locks
 *              the size of a new table, as for CalcSharedFileLockTableSize; an existing table keeps
 *              its own. With processes 0 the call only attaches, and the other two do not count.
 *   table      receives the new handle; untouched after a failure
 *
 * Returns 0; SHARED_ERR_NOTFOUND when there is no such chunk and processes is 0; SHARED_ERR_NOSPACE
 * when the arena has no room; SHARED_ERR_BADTABLE when the chunk of that name is not a ready table
 * (its mutex damaged, say) or is too small for its own bucket count; or SCHED_ERR_SYSTEM with errno:
 * EINVAL, when a table would have to be made, for a negative count, for more than 2^30 files, or for
 * processes * (filesPerProcess + 20) above INT32_MAX; ENOMEM; or what a mutex gave. A failure keeps
 * no memory and no reference on the chunk. */
int AllocateSharedFileLockTable(SharedArena *arena, const char *name, int32_t processes,
                                int32_t filesPerProcess, int32_t locks,
                                SharedFileLockTable **table);

/* Frees the handle and gives back its reference on the chunk; the last reference takes the table
 * with it. What this process has open or locked stays in the table: close it first, or let another
 * process clean. To be called before the arena is closed. Returns the result of FreeSharedChunk;
 * the handle is gone in every case. */
int FreeSharedFileLockTable(SharedFileLockTable *table);

/* Removes every open and every lock of a process that has ended, whatever owners and handles it
 * used. Walks the whole table. The library never does this by itself. Returns 0, also when the
 * process held nothing, or SCHED_ERR_SYSTEM. */
int CleanSharedFileLockTable(SharedFileLockTable *table, int32_t pid);

/* Records an open of a file, if the opens that stand allow it.
 *
 *   mode          mode word: access wanted, access denied to others, oplock asked for
 *   maxOpens      the most opens that the file may have at once, 0 for any number. Counts only when
 *                 this is the file's first open.
 *   name          for the eyes of SharedFileInfo, likewise of the first open only: its last 32
 *                 characters are kept. May be NULL.
 *   combinedMode  receives the file's combined mode with the results 0, SHARED_ERR_DENIED and
 *                 SHARED_ERR_OPLOCK; untouched otherwise
 *
 * The first open of a file gets all that it asks for. A later one is refused
 *
 *   with SHARED_ERR_OPLOCK  while an open, even the caller's own, holds the exclusive or the batch
 *                           oplock, unless mode has SHARED_FILE_IGNORE_OPLOCKS;
 *   with SHARED_ERR_DENIED  when the limit is reached, or when the combined mode denies an access
 *                           that mode wants, or mode one that the combined mode has.
 *
 * An open that joins others so loses its oplock bits. What would be denied is let in after all,
 * with its oplock bits, by an earlier open of the same process and owner that has
 * SHARED_FILE_OWNER_OVERRIDE, when mode has one of the two owner bits; or by one that has
 * SHARED_FILE_OWNER_COMPAT, when mode has it too and wants no write access that the earlier open
 * lacks. The first such open, in the order of opening, to which one of these applies decides.
 *
 * A holder may open a file several times. Returns 0, one of the two refusals, SHARED_ERR_NOLOCKS
 * when the table is full, or SCHED_ERR_SYSTEM. */
int OpenSharedFile(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                   const SharedFileKey *key, uint32_t mode, uint32_t maxOpens, const char *name,
                   uint32_t *combinedMode);

/* Removes all opens and all locks of the holder on the file. Returns 0, also when the holder had
 * none; SHARED_ERR_NOTOPEN when nobody has the file open; or SCHED_ERR_SYSTEM. */
int CloseSharedFile(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                    const SharedFileKey *key);

/* Returns 1 when the table knows the file, else 0; and 1 when the mutex cannot be taken. */
int SharedFileIsOpen(SharedFileLockTable *table, const SharedFileKey *key);

/* Reports on a file.
 *
 *   combinedMode  receives the combined mode without bit 0x8000
 *   opens         receives the number of opens
 *   name          receives up to nameSize - 1 characters of the stored name, which has 32 at most,
 *                 and a NUL behind them; NULL when it is not wanted
 *   nameSize      bytes at name; 0 writes nothing there
 *
 * Returns 0; SHARED_ERR_NOTOPEN, with 0 in both numbers and nothing in name; or SCHED_ERR_SYSTEM
 * with nothing written. */
int SharedFileInfo(SharedFileLockTable *table, const SharedFileKey *key, uint32_t *combinedMode,
                   uint32_t *opens, char *name, uint64_t nameSize);

/* Locks a range of a file's bytes, or refuses at once: nobody waits in a table.
 *
 *   offset  first byte, 0 or more
 *   length  bytes; -1 for all from offset on, however far the file may grow. offset + length must
 *           not pass 2^63: neither is checked. A length of 0 at offset 0 conflicts with nothing;
 *           anywhere else such a lock overlaps locks that cover both offset - 1 and offset.
 *   flags   SHARED_FILE_LOCK_SHARED or SHARED_FILE_LOCK_EXCLUSIVE
 *
 * The file must be open, by anybody. Two shared locks never conflict; an exclusive one conflicts
 * with every other lock on its bytes; a shared one is granted on top of its own holder's exclusive
 * lock. With no flag the lock is shared but does not stack so; with both it is exclusive and stacks
 * on all locks of its own holder. Locks are not merged: each is unlocked by itself.
 *
 * Returns 0; SHARED_ERR_LOCKED or SHARED_ERR_SELFLOCKED when the oldest conflicting lock is another
 * holder's or the caller's; SHARED_ERR_NOTOPEN; SHARED_ERR_NOLOCKS when the table is full; or
 * SCHED_ERR_SYSTEM. */
int LockSharedFileRange(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                        const SharedFileKey *key, int64_t offset, int64_t length, uint32_t flags);

/* Removes the holder's oldest lock of exactly this offset and length, of whatever kind. Returns 0;
 * SHARED_ERR_NOTLOCKED when there is none, or no such file; or SCHED_ERR_SYSTEM. */
int UnlockSharedFileRange(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                          const SharedFileKey *key, int64_t offset, int64_t length);

/* Asks how far from offset on the caller may read or write.
 *
 *   length  on entry the bytes of the planned access, -1 for all from offset on. Unchanged when
 *           nothing is in the way; else receives the bytes before the nearest lock that is, 0 when
 *           that lock covers offset; 0 also when the mutex cannot be taken
 *   flags   SHARED_FILE_TEST_READ, SHARED_FILE_TEST_WRITE or both
 *
 * In a reader's way are other holders' exclusive locks; in a writer's way also all shared locks,
 * the caller's own included unless flags asks for reading too. Returns 0 or SCHED_ERR_SYSTEM. */
int TestSharedFileRange(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                        const SharedFileKey *key, int64_t offset, int64_t *length, uint32_t flags);

/* Lists the processes whose opens of the file hold an oplock of any kind.
 *
 *   pids      receives one process id for each such open, in the order of opening; may be NULL with
 *             a capacity of 0
 *   capacity  elements at pids; further opens are left out
 *   count     receives the number written; 0 when nobody has the file open or the call fails
 *
 * A snapshot: holders may be gone by the time it is read. Returns 0 or SCHED_ERR_SYSTEM. */
int GetOplockHolders(SharedFileLockTable *table, const SharedFileKey *key, uint32_t *pids,
                     uint32_t capacity, uint32_t *count);

/* Replaces the mode word of the holder's oldest record on the file, its first open in the usual
 * order of calls. So a holder lowers or gives up an oplock; an open without one cannot take one.
 * The new access and deny bits are not tested against the other opens; they count for later ones.
 *
 * Returns 0; SHARED_ERR_NOTOPEN when nobody has the file open; SHARED_ERR_DENIED when the holder
 * has nothing on it; SHARED_ERR_OPLOCK when mode asks for an oplock and the open has none; or
 * SCHED_ERR_SYSTEM. */
int SetSharedFileMode(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                      const SharedFileKey *key, uint32_t mode);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
