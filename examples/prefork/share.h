// What master and workers share: the arena, the lock table in it, and the board.
//
// What survives a worker: its opens and locks in the table, until the master has them removed; its
// counts, which the master adds to the totals; the references on table and board, which are the
// master's alone; and connections that nobody has accepted, in the queue of the master's socket.
// What does not: its connections, its descriptors, and its lock on the arena's file.
//
// The board is a named chunk of counters beside the lock table. Each worker writes only its own
// slot and the master only the totals, so it needs no lock; readers see numbers that are a moment
// old.
#pragma once

#include "mutex_state.h"
#include "service.h"

#include <atomic>
#include <iosched/shared.h>
#include <string>
#include <sys/types.h>

// No format for strangers: a server's processes are one build. But programs that look at a service
// from outside read it too, to learn who the workers are, so its offsets are fixed here.
//
//   0x00  8  accepted      0x18  8  killed      0x30  8  repairs
//   0x08  8  requests      0x20  8  replaced    0x38     slots
//   0x10  8  refusals      0x28  8  cleanings
struct BoardSlot {
    std::atomic<int32_t> pid;  // 0 = free; taken and freed by the master
    std::atomic<uint16_t> accepting;
    std::atomic<uint16_t> leaving;
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
    std::atomic<uint64_t> repairs;                       // mutexes that died with their holder
    BoardSlot slots[2 * kMaxWorkers];  // twice: at a restart the old worker stays for a while
};
static_assert(std::atomic<uint64_t>::is_always_lock_free &&
              std::atomic<uint16_t>::is_always_lock_free);
static_assert(offsetof(BoardSlot, accepting) == 4 && offsetof(BoardSlot, leaving) == 6 &&
              offsetof(BoardSlot, connections) == 8 && offsetof(BoardSlot, accepted) == 16 &&
              offsetof(BoardSlot, requests) == 24 && offsetof(BoardSlot, refusals) == 32 &&
              sizeof(BoardSlot) == 40);
static_assert(offsetof(Board, requests) == 0x08 && offsetof(Board, refusals) == 0x10 &&
              offsetof(Board, killed) == 0x18 && offsetof(Board, replaced) == 0x20 &&
              offsetof(Board, cleanings) == 0x28 && offsetof(Board, repairs) == 0x30 &&
              offsetof(Board, slots) == 0x38);

// What the chunks are called in a service's arena.
inline std::string tableName(const std::string &name) {
    return name + ".locks";
}
inline std::string boardName(const std::string &name) {
    return name + ".board";
}

struct Share {
    SharedArena *arena;
    SharedFileLockTable *table;
    Board *board;
    dev_t device;  // of the arena file, which must not be served
    ino_t inode;
};
extern Share share;

// Makes the arena with table and board. Returns false when it could not, with the reason in the
// log.
bool openShare();

// In a worker, after ioFork(): a descriptor and a lock on the arena file of its own. Table and
// board are used through the inherited mapping; the references on their chunks stay the master's.
bool adoptShare();
void leaveShare();

// In the master, when no worker is left: gives the chunks back and removes the file. With usable
// false the mutexes are not touched, for one of them may be locked for ever.
void closeShare(bool usable);

// The lock table's mutex, and the arena's.
SharedMutex *tableMutex();
SharedMutex *arenaMutex();
