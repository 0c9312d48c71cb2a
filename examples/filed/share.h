// What master and workers share: the arena, the lock table in it, and the board.
//
// The board is a named chunk of counters beside the lock table. Each worker writes only its own slot
// and the master only the totals, so it needs no lock; readers see numbers that are a moment old.
#pragma once

#include "filed.h"

#include <atomic>
#include <iosched/shared.h>
#include <sys/types.h>

struct BoardSlot {
    std::atomic<int32_t> pid;  // 0 = free; taken and freed by the master
    std::atomic<uint32_t> leaving;
    std::atomic<uint64_t> connections;  // open now
    std::atomic<uint64_t> accepted;
    std::atomic<uint64_t> requests;
    std::atomic<uint64_t> refusals;  // requests answered with ERR
};

struct Board {
    std::atomic<uint64_t> accepted, requests, refusals;  // of the workers that have ended
    std::atomic<uint64_t> killed;                        // workers that a signal ended
    std::atomic<uint64_t> replaced;                      // workers started in another's place
    std::atomic<uint64_t> cleanings;                     // dead workers whose records were removed
    BoardSlot slots[2 * kMaxWorkers];  // twice: at a restart the old worker stays for a while
};

struct Share {
    SharedArena *arena;
    SharedFileLockTable *table;
    Board *board;
    dev_t device;  // of the arena file, which must not be served
    ino_t inode;
};
extern Share share;

// Makes the arena with table and board. Returns false when it could not, with the reason in the log.
bool openShare();

// In a worker, after ioFork(): a descriptor and a lock on the arena file of its own. Table and board
// are used through the inherited mapping; the references on their chunks stay the master's.
bool adoptShare();
void leaveShare();

// In the master, when no worker is left: gives the chunks back and removes the file. With usable
// false the mutexes are not touched, for one of them may be locked for ever.
void closeShare(bool usable);

// The lock table's mutex, and the arena's.
SharedMutex *tableMutex();
SharedMutex *arenaMutex();
