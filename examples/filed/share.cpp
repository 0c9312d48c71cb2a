#include "share.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

Share share;

namespace {

constexpr char kTableName[] = "filed.locks";
constexpr char kBoardName[] = "filed.board";
constexpr int32_t kFilesPerWorker = 256;
constexpr int32_t kLocksPerWorker = 1024;
constexpr uint64_t kSlackBytes = uint64_t{64} * 1024;  // block headers, names, rounding

bool openBoard() {
    uint64_t size = sizeof(Board);
    void *chunk = nullptr;
    uint32_t created = 0;
    if (AllocateSharedChunk(share.arena, kBoardName, &size, &chunk, &created) != 0) return false;
    // A new chunk comes zero-filled, which is all the board needs, and with the arena's mutex held.
    if (created) (void)ReleaseSharedMutex(arenaMutex());
    share.board = static_cast<Board *>(chunk);
    return true;
}

}  // namespace

SharedMutex *arenaMutex() {
    return static_cast<SharedMutex *>(share.arena->base);
}
SharedMutex *tableMutex() {
    return static_cast<SharedMutex *>(share.table->header);
}

bool openShare() {
    const int processes = 2 * settings.workers;  // old and new workers at a restart
    const int locks = processes * kLocksPerWorker;
    const uint64_t size = CalcSharedFileLockTableSize(processes, kFilesPerWorker, locks) +
                          sizeof(Board) + kSlackBytes;
    uint32_t code =
        OpenSharedArena(settings.arenaPath, SHARED_ARENA_CREATE, 0600, size, &share.arena);
    if (code != 0) {
        logLine("cannot open the arena %s: code %u, %s", settings.arenaPath, code, strerror(errno));
        return false;
    }
    struct stat info;
    if (fstat(share.arena->descriptor, &info) == 0) {
        share.device = info.st_dev;
        share.inode = info.st_ino;
    }
    code = static_cast<uint32_t>(AllocateSharedFileLockTable(share.arena, kTableName, processes,
                                                             kFilesPerWorker, locks, &share.table));
    if (code != 0 || !openBoard()) {
        logLine("cannot set up the arena %s: code %u", settings.arenaPath, code);
        return false;
    }
    // A second master on the same arena would find the first one's board; workers of both would
    // share the table, but neither master could clean up after the other.
    for (const BoardSlot &slot : share.board->slots) {
        if (slot.pid == 0) continue;
        logLine("the arena %s is another server's (worker %d)", settings.arenaPath,
                slot.pid.load());
        return false;
    }
    return true;
}

bool adoptShare() {
    if (ForkSharedArena(share.arena) != 0) return false;
    // The new descriptor would reach the programs that RUN starts, and its lock with it.
    return fcntl(share.arena->descriptor, F_SETFD, FD_CLOEXEC) == 0;
}

void leaveShare() {
    // The table's handle is left to the end of the process: freeing it would give back a reference
    // that is the master's.
    (void)CloseSharedArena(share.arena);
    share.arena = nullptr;
}

void closeShare(bool usable) {
    if (usable) {
        (void)FreeSharedFileLockTable(share.table);
        (void)FreeSharedChunk(share.arena, share.board);
    }
    (void)CloseSharedArena(share.arena);
    share.arena = nullptr;
    if (!settings.keepArena) (void)DeleteSharedArena(settings.arenaPath);
}
