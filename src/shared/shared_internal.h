// What the units of shared/ know of an arena's bytes, and how they reach them safely.
//
// Every process maps an arena at an address of its own, so the file holds offsets from its start
// (0 = none) and no pointers. An offset read from the file is untrusted: another process may have
// scribbled on it. It becomes an address through arenaPointer(), which refuses what does not lie
// inside the mapping.
#pragma once

#include "iosched/shared.h"

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace iosched_lib {

// ---- the arena file ----
//
// Native byte order; every multi-byte field is unsigned. A change of layout raises kArenaVersion.
// The lock guards both list heads and every block header of the heap.
//
//   0x00  48  lock           the header mutex with its holder's process id at 0x28
//   0x30   4  magic          kArenaMagic, written last: a file without it is not initialised
//   0x34   4  version        kArenaVersion
//   0x38   8  freeList       offset of the first free block, 0 = none
//   0x40   8  allocatedList  offset of the most recently allocated block, 0 = none
//   0x48   -  the heap: blocks, one behind the other, to the end of the file
struct ArenaHeader {
    SharedMutex lock;
    uint32_t magic;
    uint32_t version;
    uint64_t freeList;
    uint64_t allocatedList;
};
static_assert(std::is_trivially_copyable_v<ArenaHeader>);
static_assert(sizeof(pthread_mutex_t) == 40 && sizeof(SharedMutex) == 48);
static_assert(offsetof(SharedMutex, mutex) == 0 && offsetof(SharedMutex, holder) == 0x28 &&
              offsetof(SharedMutex, padding) == 0x2C);
static_assert(offsetof(ArenaHeader, lock) == 0x00 && offsetof(ArenaHeader, magic) == 0x30 &&
              offsetof(ArenaHeader, version) == 0x34);
static_assert(offsetof(ArenaHeader, freeList) == 0x38 &&
              offsetof(ArenaHeader, allocatedList) == 0x40 && sizeof(ArenaHeader) == 0x48);

constexpr uint32_t kArenaMagic = 0x51317093;
constexpr uint32_t kArenaVersion = 1;
constexpr uint64_t kHeapOffset = sizeof(ArenaHeader);

// A block of the heap, free or allocated. The data follows the header; callers know a chunk by the
// address of its data. A named chunk's name follows the data, NUL included. In a free block only
// next and blockSize mean anything.
//
//   0x00   8  next        the next block on the same list, 0 = last
//   0x08   8  name        offset of the chunk's name, 0 = none
//   0x10   8  blockSize   bytes, this header included; a multiple of 8
//   0x18   8  chunkSize   bytes of data asked for
//   0x20   4  references  openers of the chunk
//   0x24   4  padding
//   0x28   -  data, name, unused rest
struct BlockHeader {
    uint64_t next;
    uint64_t name;
    uint64_t blockSize;
    uint64_t chunkSize;
    uint32_t references;
    uint32_t padding;
};
static_assert(std::is_trivially_copyable_v<BlockHeader>);
static_assert(offsetof(BlockHeader, next) == 0x00 && offsetof(BlockHeader, name) == 0x08 &&
              offsetof(BlockHeader, blockSize) == 0x10 && offsetof(BlockHeader, chunkSize) == 0x18);
static_assert(offsetof(BlockHeader, references) == 0x20 && offsetof(BlockHeader, padding) == 0x24 &&
              sizeof(BlockHeader) == 0x28);

constexpr uint64_t kBlockAlignment = 8;
constexpr uint64_t kMinBlockSize = 48;  // a header and one byte of data, rounded up

// ---- the order of stores ----

// Stores above this line come before stores below it; costs no instruction. A killed process stops
// between two instructions, with all before done and none after. So only the compiler can change
// the order in which a dead process's stores came, and what it left in an arena can be repaired as
// long as the order is the one that is promised:
//
// - A mutex names its holder before the first store that it guards and until after the last.
// - Heap: at every instruction the allocated list is whole, and so is every block on it: its sizes,
//   name and references are there before its link is, and nothing of it is overwritten until its
//   link is gone. A block loses its last reference before its name. All that no block on this
//   list covers is free; the free list needs no order, since it can be made anew from that.
// - Lock tables: see SharedLink.
inline void keepStoreOrder() {
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}

// ---- arena_format.cpp ----

// Fills an empty file with zeros up to the size, a multiple of the page size. 0, or -1 with errno
// (ENOSPC when it does not fit). The caller holds the file exclusively.
int writeEmptyArenaFile(int fd, uint64_t size);

// Takes away what an initialisation that failed has written, so that a full disk is not left full.
// One page of zeros stays if the size has one: who only attaches is told that this is no arena.
void giveRoomBack(int fd, uint64_t size);

// Makes an arena with one free block out of a mapped file of zeros. 0 or SCHED_ERR_SYSTEM.
uint32_t initialiseArenaHeader(SharedArena *arena);

// 0, or SHARED_ERR_MAGIC or SHARED_ERR_VERSION when the mapped file is not an arena to work with.
uint32_t checkArenaHeader(const SharedArena *arena);

// Whether the mapped file, which is no arena, is as a creator leaves it that was killed or is yet
// to begin. Any other file becomes an arena only when nobody holds it.
bool isUnfinishedArena(const SharedArena *arena);

// ---- offsets and addresses ----

inline ArenaHeader *arenaHeader(const SharedArena *arena) {
    return static_cast<ArenaHeader *>(arena->base);
}

// Whether `bytes` bytes at an offset are 8-byte aligned and lie between the arena's header and the
// end of its mapping.
inline bool insideHeap(const SharedArena *arena, uint64_t offset, uint64_t bytes) {
    return offset % kBlockAlignment == 0 && offset >= kHeapOffset && offset <= arena->mapLength &&
           bytes <= arena->mapLength - offset;
}

// The record at an arena offset, or null when it does not lie inside the heap or is misaligned.
template <class T>
T *arenaPointer(const SharedArena *arena, uint64_t offset, uint64_t bytes = sizeof(T)) {
    static_assert(alignof(T) <= kBlockAlignment);
    if (!insideHeap(arena, offset, bytes)) return nullptr;
    return reinterpret_cast<T *>(static_cast<char *>(arena->base) + offset);
}

// An address's distance from the base. An address outside the mapping gives an offset that
// arenaPointer() refuses.
inline uint64_t arenaOffset(const SharedArena *arena, const void *address) {
    return reinterpret_cast<uintptr_t>(address) - reinterpret_cast<uintptr_t>(arena->base);
}

// ---- mutexes ----

// Whether the mutex can be what its users left: of a kind without pointers, with a word that says
// free or held. AquireSharedMutex() looks at the kind alone. The word would cost a fifth of its
// time, and one that nobody writes then reads as held: whoever waits for it waits for a repairer.
bool isSoundMutex(const SharedMutex *mutex);

// AquireSharedMutex(), but with EINVAL for a mutex that is not sound.
uint32_t acquireIfSound(SharedMutex *mutex);

// Holds a shared mutex, if it is sound, from construction until the end of its scope. When locking
// failed, result() is not 0, errno says why, and nothing is released later. Must not live across a
// fork: the child would release what its parent holds.
class SharedMutexGuard {
public:
    explicit SharedMutexGuard(SharedMutex *mutex)
        : result_(acquireIfSound(mutex)), mutex_(result_ == 0 ? mutex : nullptr) {}
    ~SharedMutexGuard() { release(); }
    SharedMutexGuard(const SharedMutexGuard &) = delete;
    SharedMutexGuard &operator=(const SharedMutexGuard &) = delete;

    uint32_t result() const { return result_; }

    void release() {
        if (mutex_ != nullptr) (void)ReleaseSharedMutex(mutex_);
        mutex_ = nullptr;
    }

    // From here on the caller of the library function holds the mutex.
    void leaveLocked() { mutex_ = nullptr; }

private:
    uint32_t result_;
    SharedMutex *mutex_;
};

// Start-up, called by InitSched as the last of its steps; returns 0. From then on
// AquireSharedMutex() records the process id, also in children made with ioFork().
int initMutexes();

}  // namespace iosched_lib

using namespace iosched_lib;
