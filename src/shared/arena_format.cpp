// The bytes of an arena file: writing an empty one, and telling one from any other file.

#include "shared/shared_internal.h"

#include "support/guards.h"

#include <algorithm>
#include <unistd.h>

int iosched_lib::writeEmptyArenaFile(int fd, uint64_t size) {
    if (::lseek(fd, 0, SEEK_SET) < 0) return -1;  // an earlier attempt may have moved it

    const auto page = static_cast<size_t>(::getpagesize());
    HeapGuard<char> zeros(static_cast<char *>(std::calloc(1, page)));
    if (zeros.get() == nullptr) return -1;

    // Written out instead of extended: a page that finds no room later would end a process with
    // SIGBUS, here it is an error.
    for (uint64_t written = 0; written < size; written += page) {
        const ssize_t count = ::write(fd, zeros.get(), page);
        if (count == static_cast<ssize_t>(page)) continue;
        if (count >= 0) errno = ENOSPC;
        return -1;
    }
    return 0;
}

void iosched_lib::giveRoomBack(int fd, uint64_t size) {
    if (::ftruncate(fd, 0) < 0) return;
    (void)writeEmptyArenaFile(fd, std::min(size, static_cast<uint64_t>(::getpagesize())));
}

uint32_t iosched_lib::initialiseArenaHeader(SharedArena *arena) {
    ArenaHeader *header = arenaHeader(arena);
    auto *block = arenaPointer<BlockHeader>(arena, kHeapOffset);
    if (InitializeSharedMutex(&header->lock) != 0) return SCHED_ERR_SYSTEM;
    if (AquireSharedMutex(&header->lock) != 0) return SCHED_ERR_SYSTEM;
    *block = BlockHeader{};
    block->blockSize = arena->size - kHeapOffset;
    header->freeList = kHeapOffset;
    header->version = kArenaVersion;
    // Last, and kept last by the compiler: a file with the magic is whole.
    __atomic_store_n(&header->magic, kArenaMagic, __ATOMIC_RELEASE);
    return ReleaseSharedMutex(&header->lock);
}

uint32_t iosched_lib::checkArenaHeader(const SharedArena *arena) {
    const ArenaHeader *header = arenaHeader(arena);
    // Behind the end of the file but in its last page there are zeros, so reading is safe. A file
    // that has been cut or added to is an arena all the same: the heap ends where the mapping does.
    if (header->magic != kArenaMagic) return SHARED_ERR_MAGIC;
    return header->version == kArenaVersion ? 0 : SHARED_ERR_VERSION;
}

bool iosched_lib::isUnfinishedArena(const SharedArena *arena) {
    const auto page = static_cast<uint64_t>(::getpagesize());
    return arenaHeader(arena)->magic == 0 && arena->mapLength % page == 0;
}
