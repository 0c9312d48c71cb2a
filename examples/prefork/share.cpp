#include "share.h"
#include "arenactl/result_words.h"
#include "service.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

Share share;

namespace {

constexpr uint64_t kSlackBytes = uint64_t{64} * 1024;  // block headers, names, rounding

// A creator makes an arena of whatever file it finds, so that file is looked at first. Taken over
// is one that is empty, begins with zeros (nobody got as far as the header) or is an arena already.
bool mayBecomeArena(const char *path) {
    constexpr size_t kMagicAt = 0x30;
    constexpr uint32_t kMagic = 0x51317093;
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return true;  // and OpenSharedArena() says why there is none to be had
    char page[4096] = {};
    uint32_t magic = 0;
    struct stat info;
    const bool readable =
        fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && pread(fd, page, sizeof page, 0) >= 0;
    (void)close(fd);
    memcpy(&magic, page + kMagicAt, sizeof magic);
    const bool blank = std::all_of(page, page + sizeof page, [](char byte) { return byte == 0; });
    return readable && (blank || magic == kMagic);
}

bool openBoard() {
    uint64_t size = sizeof(Board);
    void *chunk = nullptr;
    uint32_t created = 0;
    if (AllocateSharedChunk(share.arena, boardName(service.name).c_str(), &size, &chunk,
                            &created) != 0)
        return false;
    // A new chunk comes zero-filled, which is all the board needs, and with the arena's mutex held.
    if (created) (void)ReleaseSharedMutex(arenaMutex());
    share.board = static_cast<Board *>(chunk);
    return true;
}

// The file goes too, unless another server uses it: then it is refused as busy.
bool abandonArena() {
    (void)CloseSharedArena(share.arena);
    (void)DeleteSharedArena(service.arenaPath);
    return false;
}

}  // namespace

SharedMutex *arenaMutex() {
    return static_cast<SharedMutex *>(share.arena->base);
}
SharedMutex *tableMutex() {
    return static_cast<SharedMutex *>(share.table->header);
}

// A result code with what it means.
static std::string inWords(uint32_t code) {
    const ResultWords *words = wordsOfResult(code);
    return "code " + std::to_string(code) + (words ? std::string(" (") + words->meaning + ")" : "");
}

bool openShare() {
    const int processes = 2 * service.workers;  // old and new workers at a restart
    const int locks = processes * service.locksPerWorker;
    const uint64_t size = CalcSharedFileLockTableSize(processes, service.filesPerWorker, locks) +
                          service.chunkBytes + sizeof(Board) + kSlackBytes;
    if (!mayBecomeArena(service.arenaPath)) {
        logLine("%s is no arena and is left alone", service.arenaPath);
        return false;
    }
    uint32_t code =
        OpenSharedArena(service.arenaPath, SHARED_ARENA_CREATE, 0600, size, &share.arena);
    if (code != 0) {
        logLine("cannot open the arena %s: %s, %s", service.arenaPath, inWords(code).c_str(),
                strerror(errno));
        return false;
    }
    struct stat info;
    if (fstat(share.arena->descriptor, &info) == 0) {
        share.device = info.st_dev;
        share.inode = info.st_ino;
    }
    code = static_cast<uint32_t>(
        AllocateSharedFileLockTable(share.arena, tableName(service.name).c_str(), processes,
                                    service.filesPerWorker, locks, &share.table));
    if (code != 0 || !openBoard()) {
        logLine("cannot set up the arena %s: %s", service.arenaPath, inWords(code).c_str());
        return abandonArena();
    }
    // A second master on the same arena would find the first one's board; workers of both would
    // share the table, but neither master could clean up after the other.
    for (const BoardSlot &slot : share.board->slots) {
        if (slot.pid == 0) continue;
        logLine("the arena %s is another server's (worker %d)", service.arenaPath, slot.pid.load());
        (void)FreeSharedFileLockTable(share.table);
        (void)FreeSharedChunk(share.arena, share.board);
        return abandonArena();
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
    if (!service.keepArena) (void)DeleteSharedArena(service.arenaPath);
}
