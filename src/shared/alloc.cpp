// Named, reference-counted chunks in an arena's heap.
//
// The blocks of two lists tile the heap: the free list in address order, never with two neighbours
// in a row, and the allocated list with the newest block first. All state lies in the arena, so
// every process sees it at once, and every process can have damaged it. Nothing read from there is
// followed unchecked: blockAt() lets through only a block that lies inside the heap, and a walk
// takes no more steps than the heap has room for blocks, so that a cycle ends it.

#include "shared/shared_internal.h"

#include "sched/sched_internal.h"
#include "support/guards.h"

#include <algorithm>
#include <cstring>

namespace {

// What the trace calls a chunk without a name that could be shown.
constexpr const char *kNoName = "?";

// The block at an offset, or null when none can be there.
BlockHeader *blockAt(const SharedArena *arena, uint64_t offset) {
    auto *block = arenaPointer<BlockHeader>(arena, offset, kMinBlockSize);
    if (block == nullptr) return nullptr;
    const uint64_t size = block->blockSize;
    const bool sound =
        size >= kMinBlockSize && size % kBlockAlignment == 0 && insideHeap(arena, offset, size);
    return sound ? block : nullptr;
}

char *dataOf(BlockHeader *block) {
    return reinterpret_cast<char *>(block) + sizeof(BlockHeader);
}

// Bytes from the name's first byte to the block's end; 0 if the name does not start inside the
// block.
uint64_t roomForName(uint64_t offset, const BlockHeader *block) {
    const uint64_t begin = offset + sizeof(BlockHeader);
    const uint64_t end = offset + block->blockSize;
    return block->name >= begin && block->name < end ? end - block->name : 0;
}

const char *nameAddress(const SharedArena *arena, const BlockHeader *block) {
    return static_cast<const char *>(arena->base) + block->name;
}

// The name of an allocated block for the trace; kNoName when it has none, or a damaged one.
const char *storedName(const SharedArena *arena, const BlockHeader *block) {
    const uint64_t room = roomForName(arenaOffset(arena, block), block);
    if (room == 0) return kNoName;
    const char *name = nameAddress(arena, block);
    return std::memchr(name, '\0', room) != nullptr ? name : kNoName;
}

// The block whose data is at the address, or null when no chunk can be there.
BlockHeader *blockOfChunk(const SharedArena *arena, const void *chunk) {
    BlockHeader *block = blockAt(arena, arenaOffset(arena, chunk) - sizeof(BlockHeader));
    if (block == nullptr) return nullptr;
    return block->chunkSize <= block->blockSize - sizeof(BlockHeader) ? block : nullptr;
}

// Goes along one of the two lists.
class BlockWalk {
public:
    BlockWalk(const SharedArena *arena, uint64_t *head)
        : arena_(arena), link_(head), stepsLeft_(arena->mapLength / kMinBlockSize) {}

    // The next block; null at the end of the list, and where the list is damaged.
    BlockHeader *next() {
        if (block_ != nullptr) link_ = &block_->next;
        block_ = nullptr;
        if (*link_ == 0) return nullptr;
        if (stepsLeft_ > 0) block_ = blockAt(arena_, *link_);
        damaged_ = block_ == nullptr;
        --stepsLeft_;
        return block_;
    }

    bool damaged() const { return damaged_; }
    uint64_t offset() const { return *link_; }

    // The link that holds offset(): the head, or the field of the block before.
    uint64_t *link() const { return link_; }

private:
    const SharedArena *arena_;
    uint64_t *link_;
    uint64_t stepsLeft_;
    BlockHeader *block_ = nullptr;
    bool damaged_ = false;
};

// Finds an allocated chunk by its name of so many bytes, NUL included: 0, SHARED_ERR_NOTFOUND or
// SHARED_ERR_CORRUPT. No name finds nothing.
uint32_t findChunk(const SharedArena *arena, const char *name, uint64_t bytes,
                   BlockHeader **found) {
    if (name == nullptr) return SHARED_ERR_NOTFOUND;
    BlockWalk walk(arena, &arenaHeader(arena)->allocatedList);
    while (BlockHeader *block = walk.next()) {
        if (block->name == 0) continue;
        const uint64_t room = roomForName(walk.offset(), block);
        if (room == 0) return SHARED_ERR_CORRUPT;
        if (room < bytes || std::memcmp(nameAddress(arena, block), name, bytes) != 0) continue;
        *found = block;
        return blockOfChunk(arena, dataOf(block)) != nullptr ? 0 : SHARED_ERR_CORRUPT;
    }
    return walk.damaged() ? SHARED_ERR_CORRUPT : SHARED_ERR_NOTFOUND;
}

// Bytes of a block for such a chunk. A chunk larger than the arena is returned as is: no block has
// that size, and adding to it could wrap.
uint64_t neededBlockSize(const SharedArena *arena, uint64_t chunkSize, uint64_t nameBytes) {
    if (chunkSize > arena->mapLength) return chunkSize;
    const uint64_t bytes = sizeof(BlockHeader) + chunkSize + nameBytes;
    return (bytes + kBlockAlignment - 1) / kBlockAlignment * kBlockAlignment;
}

// A free block and the link to it.
struct FreeBlock {
    uint64_t *link;
    BlockHeader *block;
};

// Chooses where a block of the needed size goes: the first that fits exactly, else the smallest of
// the larger ones, the first of that size. 0, SHARED_ERR_NOSPACE or SHARED_ERR_CORRUPT.
uint32_t chooseFreeBlock(const SharedArena *arena, uint64_t needed, FreeBlock *chosen) {
    FreeBlock best{nullptr, nullptr};
    uint64_t lastEnd = kHeapOffset;
    BlockWalk walk(arena, &arenaHeader(arena)->freeList);
    while (BlockHeader *block = walk.next()) {
        if (walk.offset() < lastEnd) return SHARED_ERR_CORRUPT;
        lastEnd = walk.offset() + block->blockSize;
        if (block->blockSize < needed) continue;
        if (best.block == nullptr || block->blockSize < best.block->blockSize)
            best = {walk.link(), block};
        if (block->blockSize == needed) break;
    }
    if (walk.damaged()) return SHARED_ERR_CORRUPT;
    if (best.block == nullptr) return SHARED_ERR_NOSPACE;
    *chosen = best;
    return 0;
}

// Takes the block off the free list. What it has over the needed size stays there as a block in its
// place, unless that would be no more than a header.
void takeFreeBlock(FreeBlock chosen, uint64_t needed) {
    BlockHeader *block = chosen.block;
    if (block->blockSize > needed + sizeof(BlockHeader)) {
        auto *rest = reinterpret_cast<BlockHeader *>(reinterpret_cast<char *>(block) + needed);
        *rest = BlockHeader{};
        rest->next = block->next;
        rest->blockSize = block->blockSize - needed;
        block->next = *chosen.link + needed;
        block->blockSize = needed;
    }
    *chosen.link = block->next;
}

// Fills in a block taken off the free list and puts it at the head of the allocated list.
void makeChunk(const SharedArena *arena, BlockHeader *block, uint64_t size, const char *name,
               uint64_t nameBytes) {
    ArenaHeader *header = arenaHeader(arena);
    block->chunkSize = size;
    block->name = 0;
    block->references = 1;
    block->padding = 0;
    if (name != nullptr) {
        char *place = dataOf(block) + size;
        std::memcpy(place, name, nameBytes);
        block->name = arenaOffset(arena, place);
    }
    std::memset(dataOf(block), 0, size);
    block->next = header->allocatedList;
    keepStoreOrder();  // the block is whole
    header->allocatedList = arenaOffset(arena, block);
}

bool unlinkAllocated(const SharedArena *arena, const BlockHeader *wanted) {
    BlockWalk walk(arena, &arenaHeader(arena)->allocatedList);
    while (BlockHeader *block = walk.next()) {
        if (block != wanted) continue;
        *walk.link() = block->next;
        keepStoreOrder();  // from here on the block's own link may change
        return true;
    }
    return false;
}

// Puts a block, which is on no list, into its place on the free list and merges it with the free
// blocks right before and right behind it. On SHARED_ERR_CORRUPT it is still on no list.
uint32_t insertFreeBlock(const SharedArena *arena, BlockHeader *block) {
    const uint64_t begin = arenaOffset(arena, block);
    const uint64_t end = begin + block->blockSize;
    BlockHeader *before = nullptr;  // a free block that ends where this one begins
    BlockWalk walk(arena, &arenaHeader(arena)->freeList);
    while (BlockHeader *freeBlock = walk.next()) {
        if (walk.offset() >= end) break;
        const uint64_t freeEnd = walk.offset() + freeBlock->blockSize;
        if (freeEnd > begin) return SHARED_ERR_CORRUPT;  // they overlap
        if (freeEnd == begin) before = freeBlock;
        if (before != nullptr) break;
    }
    if (walk.damaged()) return SHARED_ERR_CORRUPT;

    const uint64_t followingOffset = before != nullptr ? before->next : walk.offset();
    BlockHeader *following = nullptr;  // a free block that begins where this one ends
    if (followingOffset == end) {
        following = blockAt(arena, followingOffset);
        if (following == nullptr) return SHARED_ERR_CORRUPT;
    }

    if (before != nullptr) {
        before->blockSize += block->blockSize;
    } else {
        block->next = followingOffset;
        *walk.link() = begin;
        before = block;
    }
    if (following != nullptr) {
        before->next = following->next;
        before->blockSize += following->blockSize;
    }
    return 0;
}

}  // namespace

uint32_t AllocateSharedChunk(SharedArena *arena, const char *name, uint64_t *size, void **chunk,
                             uint32_t *created) {
    // A bad pointer of the caller's ends it here, where it holds nothing yet. Who creates a chunk
    // gets its address while holding the mutex, so that place is tried too.
    *created = 0;
    const uint64_t wanted = *size;
    const uint64_t nameBytes = name != nullptr ? std::strlen(name) + 1 : 0;
    *static_cast<void *volatile *>(chunk) = *static_cast<void *volatile *>(chunk);

    SharedMutexGuard lock(&arenaHeader(arena)->lock);
    if (lock.result() != 0) return lock.result();
    BlockHeader *existing = nullptr;
    const uint32_t lookup = findChunk(arena, name, nameBytes, &existing);
    if (lookup == 0) {
        ++existing->references;
        SCHED_TRACE(SCHED_TRACE_CHUNKS, "AllocateSharedChunk(%s): refs=%d\n",
                    nameAddress(arena, existing), static_cast<int>(existing->references));
        const uint64_t found = existing->chunkSize;
        lock.release();
        *size = found;
        *chunk = dataOf(existing);
        return 0;
    }
    if (lookup != SHARED_ERR_NOTFOUND || wanted == 0) return lookup;

    const uint64_t needed = neededBlockSize(arena, wanted, nameBytes);
    FreeBlock chosen;
    const uint32_t result = chooseFreeBlock(arena, needed, &chosen);
    if (result != 0) return result;
    takeFreeBlock(chosen, needed);
    makeChunk(arena, chosen.block, wanted, name, nameBytes);

    *chunk = dataOf(chosen.block);
    *created = 1;
    SCHED_TRACE(SCHED_TRACE_CHUNKS, "AllocateSharedChunk(%s): refs=%d\n",
                name != nullptr ? name : kNoName, 1);
    // The caller fills the chunk before anybody else can find it.
    lock.leaveLocked();
    return 0;
}

uint32_t FreeSharedChunk(SharedArena *arena, void *chunk) {
    SharedMutexGuard lock(&arenaHeader(arena)->lock);
    if (lock.result() != 0) return lock.result();

    BlockHeader *block = blockOfChunk(arena, chunk);
    if (block == nullptr || block->references == 0) return SHARED_ERR_CORRUPT;
    const char *name = storedName(arena, block);
    --block->references;
    SCHED_TRACE(SCHED_TRACE_CHUNKS, "FreeSharedChunk(%s): refs=%d\n", name,
                static_cast<int>(block->references));
    if (block->references != 0) return 0;

    keepStoreOrder();  // or a death here could leave a reference to a chunk that nobody finds
    block->name = 0;
    if (!unlinkAllocated(arena, block)) return SHARED_ERR_CORRUPT;
    return insertFreeBlock(arena, block);
}

uint32_t CopySharedChunk(SharedArena *arena, void *chunk, SharedMutex *mutex, void **copy,
                         int64_t *delta) {
    if (delta != nullptr) *delta = 0;
    *copy = nullptr;
    const BlockHeader *block = blockOfChunk(arena, chunk);
    if (block == nullptr) return SHARED_ERR_CORRUPT;

    const uint64_t bytes = block->chunkSize;
    HeapGuard<char> buffer(static_cast<char *>(std::malloc(bytes)));
    if (buffer.get() == nullptr) return SCHED_ERR_SYSTEM;
    if (mutex != nullptr) {
        SharedMutexGuard lock(mutex);
        if (lock.result() != 0) return lock.result();
        std::memcpy(buffer.get(), chunk, bytes);
    } else {
        std::memcpy(buffer.get(), chunk, bytes);
    }
    if (delta != nullptr) {
        const uint64_t address = reinterpret_cast<uintptr_t>(buffer.get());
        *delta = static_cast<int64_t>(address - arenaOffset(arena, chunk));
    }
    *copy = buffer.release();
    return 0;
}
