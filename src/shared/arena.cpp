// Arenas: files that server processes map into their memory together.
//
// flock locks say who uses the file: a shared one for every open handle, an exclusive one only
// while the file is initialised or deleted. That alone is not enough, for three reasons:
//
// - Between open and flock another process may delete the file. A lock counts only once the locked
//   file is seen, under the lock, to be the one at the path (checkLockedFile). From then on it
//   stays there: whoever deletes a file holds it exclusively, and has checked the same thing.
// - Turning the exclusive lock into a shared one gives it up for a moment, in which another process
//   may delete the file or initialise it again with another size. So a creator, once it has the
//   shared lock, trusts nothing that it did before: it attaches like everybody else.
// - A creator whose exclusive lock is refused attaches, and may find that the other process is an
//   attacher of a file that nobody has initialised yet. It lets go and tries again for a while.
//
// Nobody writes to or truncates a file without holding its lock, so an open handle's mapping never
// shrinks. A killed creator leaves no magic, or a whole arena (in a window of two instructions with
// its mutex locked).

#include "shared/shared_internal.h"

#include "iosched/util.h"
#include "support/guards.h"

#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

// Each fresh start means that another process has just deleted the file; a thousand in a row means
// a file system whose paths and descriptors never agree.
constexpr int kMaxStarts = 1000;

// How long a creator waits for a file that is in use and not initialised yet. An attacher that
// finds it so holds its lock for microseconds.
constexpr int kNotReadyTries = 500;
constexpr timespec kNotReadyPause{0, 1000000};

// Beside the public result codes: the locked file is not the one at the path.
constexpr uint32_t kStartOver = 1;

// The handle as it is allocated. The mapping keeps the file's inode from being used again, so
// device and inode identify the mapped file for as long as the handle is open.
struct ArenaRecord {
    SharedArena arena;
    bool sizeIsTooLarge;  // what was asked for cannot be rounded up to whole pages
    dev_t device;
    ino_t inode;
};

const ArenaRecord *recordOf(const SharedArena *arena) {
    return reinterpret_cast<const ArenaRecord *>(arena);
}

// Owns a handle with all it holds until release().
class ArenaGuard {
public:
    explicit ArenaGuard(ArenaRecord *record) : record_(record) {}
    ~ArenaGuard() {
        if (record_ == nullptr) return;
        ErrnoGuard keep;
        (void)CloseSharedArena(&record_->arena);
    }
    ArenaGuard(const ArenaGuard &) = delete;
    ArenaGuard &operator=(const ArenaGuard &) = delete;
    ArenaRecord *get() const { return record_; }
    SharedArena *release() { return &std::exchange(record_, nullptr)->arena; }

private:
    ArenaRecord *record_;
};

ArenaRecord *newArenaRecord(const char *path, uint64_t size) {
    HeapGuard<ArenaRecord> record(newRecord<ArenaRecord>());
    if (record.get() == nullptr) return nullptr;
    const auto page = static_cast<uint64_t>(::getpagesize());
    record->arena.descriptor = -1;
    record->arena.size = (size + page - 1) / page * page;
    record->sizeIsTooLarge = record->arena.size < size;
    record->arena.path = ::strdup(path);
    return record->arena.path == nullptr ? nullptr : record.release();
}

void unmapArena(SharedArena *arena) {
    if (arena->mapAddress == nullptr) return;
    ErrnoGuard keep;
    (void)MemUnmap(arena->mapAddress, arena->mapLength);
    arena->mapAddress = nullptr;
    arena->base = nullptr;
}

int mapArena(SharedArena *arena) {
    int64_t offset = 0;
    arena->mapLength = 0;
    return MemMap(&arena->mapLength, MEMMAP_READ | MEMMAP_WRITE | MEMMAP_SHARED, arena->descriptor,
                  &offset, &arena->mapAddress, &arena->base);
}

// 0, or kStartOver when the locked file is not the one at the path, or SCHED_ERR_SYSTEM when that
// cannot be told. To be asked only while a lock on the descriptor is held; any answer is stale
// without one.
uint32_t checkLockedFile(int fd, const char *path) {
    struct stat locked, named;
    if (::fstat(fd, &locked) < 0) return SCHED_ERR_SYSTEM;
    if (::stat(path, &named) < 0) return errno == ENOENT ? kStartOver : SCHED_ERR_SYSTEM;
    return locked.st_dev == named.st_dev && locked.st_ino == named.st_ino ? 0 : kStartOver;
}

// 0, or the errno value of a size that no file can be given here. Asked before the old contents go;
// a write beyond the limit on a file's size would also end the process, with SIGXFSZ.
int sizeError(const SharedArena *arena) {
    if (recordOf(arena)->sizeIsTooLarge) return EINVAL;
    rlimit limit;
    if (::getrlimit(RLIMIT_FSIZE, &limit) < 0) return errno;
    return arena->size > limit.rlim_cur ? EFBIG : 0;
}

// Leaves nothing mapped: what it wrote holds only until the lock is turned into a shared one, and
// attachFile() maps what is there then.
uint32_t fillFile(SharedArena *arena) {
    if (writeEmptyArenaFile(arena->descriptor, arena->size) < 0) return SCHED_ERR_SYSTEM;
    if (mapArena(arena) < 0) return SCHED_ERR_SYSTEM;
    const uint32_t result = initialiseArenaHeader(arena);
    unmapArena(arena);
    return result;
}

// Under the exclusive lock.
uint32_t initialiseFile(SharedArena *arena) {
    // attachFile() asks again; here it saves filling a file that is gone, perhaps without success.
    if (const uint32_t failed = checkLockedFile(arena->descriptor, arena->path)) return failed;
    if (const int error = sizeError(arena)) {
        errno = error;
        return SCHED_ERR_SYSTEM;
    }
    // First of all this takes the magic away: whoever is killed from here on leaves no arena
    // behind.
    if (::ftruncate(arena->descriptor, 0) < 0) return SCHED_ERR_SYSTEM;
    const uint32_t result = fillFile(arena);
    if (result != 0) {
        ErrnoGuard keep;
        giveRoomBack(arena->descriptor, arena->size);
    }
    return result;
}

// Takes the shared lock, or turns an exclusive one into it, and maps the file as it then is.
uint32_t attachFile(SharedArena *arena) {
    if (::flock(arena->descriptor, LOCK_SH) < 0) return SCHED_ERR_SYSTEM;
    if (const uint32_t failed = checkLockedFile(arena->descriptor, arena->path)) return failed;
    if (mapArena(arena) < 0) return SCHED_ERR_SYSTEM;
    return checkArenaHeader(arena);
}

// Initialises the file if nobody else holds it. Also 0, having done nothing, if somebody does.
uint32_t initialiseIdleFile(SharedArena *arena) {
    if (::flock(arena->descriptor, LOCK_EX | LOCK_NB) == 0) return initialiseFile(arena);
    return errno == EWOULDBLOCK ? 0 : SCHED_ERR_SYSTEM;
}

// Whether attaching failed on a file that can still become an arena while others hold it: an empty
// one, where mapping fails with EINVAL, or an unfinished one.
bool isNotReady(const SharedArena *arena, uint32_t attached) {
    if (attached == SHARED_ERR_MAGIC) return isUnfinishedArena(arena);
    return attached == SCHED_ERR_SYSTEM && errno == EINVAL;
}

// Joins the file behind the descriptor, as its initialiser or as an attacher.
uint32_t joinFile(SharedArena *arena, bool create) {
    for (int triesLeft = kNotReadyTries;; --triesLeft) {
        if (create) {
            const uint32_t failed = initialiseIdleFile(arena);
            if (failed != 0) return failed;
        }
        const uint32_t attached = attachFile(arena);
        if (!create || triesLeft == 0 || !isNotReady(arena, attached)) return attached;
        unmapArena(arena);
        (void)::flock(arena->descriptor, LOCK_UN);  // somebody must be able to initialise it
        (void)::nanosleep(&kNotReadyPause, nullptr);
    }
}

uint32_t openAndJoin(SharedArena *arena, int flags, mode_t mode) {
    int openFlags = O_RDWR | O_CLOEXEC;
    if ((flags & SHARED_ARENA_CREATE) != 0) openFlags |= O_CREAT;
    if ((flags & SHARED_ARENA_EXCLUSIVE) != 0) openFlags |= O_EXCL;
    for (int starts = 0; starts < kMaxStarts; ++starts) {
        FdGuard fd(::open(arena->path, openFlags, mode));
        if (fd.get() < 0) return SCHED_ERR_SYSTEM;
        arena->descriptor = fd.get();
        const uint32_t result = joinFile(arena, (flags & SHARED_ARENA_CREATE) != 0);
        if (result != kStartOver) {
            (void)fd.release();  // the handle's from here on
            return result;
        }
        arena->descriptor = -1;
    }
    errno = ESTALE;
    return SCHED_ERR_SYSTEM;
}

// Remembers which file is mapped, for ForkSharedArena().
int recordIdentity(ArenaRecord *record) {
    struct stat status;
    if (::fstat(record->arena.descriptor, &status) < 0) return -1;
    record->device = status.st_dev;
    record->inode = status.st_ino;
    return 0;
}

// 0 if the locked file is the one that is mapped, and as long as it was then; else
// SCHED_ERR_SYSTEM, with ESTALE where it is another. A handle that has been without a lock may have
// been overtaken by a creator or a deleter.
uint32_t checkMappedFile(const SharedArena *arena, int fd) {
    const ArenaRecord *record = recordOf(arena);
    struct stat status;
    if (::fstat(fd, &status) < 0) return SCHED_ERR_SYSTEM;
    const bool same = status.st_dev == record->device && status.st_ino == record->inode &&
                      static_cast<uint64_t>(status.st_size) == arena->mapLength;
    const uint32_t failed = same ? checkLockedFile(fd, arena->path) : kStartOver;
    if (failed == kStartOver)
        errno = ESTALE;  // a lock on another or a deleted file protects nothing
    return failed == 0 ? 0 : SCHED_ERR_SYSTEM;
}

}  // namespace

uint32_t OpenSharedArena(const char *path, int flags, mode_t mode, uint64_t size,
                         SharedArena **arena) {
    ArenaGuard opened(newArenaRecord(path, size));
    if (opened.get() == nullptr) return SCHED_ERR_SYSTEM;
    const uint32_t result = openAndJoin(&opened.get()->arena, flags, mode);
    if (result != 0) return result;
    if (recordIdentity(opened.get()) < 0) return SCHED_ERR_SYSTEM;
    *arena = opened.release();
    return 0;
}

uint32_t CloseSharedArena(SharedArena *arena) {
    unmapArena(arena);
    if (arena->descriptor >= 0) (void)::close(arena->descriptor);  // drops the lock in any case
    std::free(arena->path);
    std::free(arena);
    return 0;
}

uint32_t DeleteSharedArena(const char *path) {
    for (int starts = 0; starts < kMaxStarts; ++starts) {
        FdGuard fd(::open(path, O_RDWR | O_CLOEXEC));
        if (fd.get() < 0) return SCHED_ERR_SYSTEM;
        if (::flock(fd.get(), LOCK_EX | LOCK_NB) < 0)
            return errno == EWOULDBLOCK ? SHARED_ERR_BUSY : SCHED_ERR_SYSTEM;
        // Another process may have deleted this file and made a new one, which others now use.
        const uint32_t failed = checkLockedFile(fd.get(), path);
        if (failed == kStartOver) continue;
        if (failed != 0) return failed;
        return ::unlink(path) < 0 ? SCHED_ERR_SYSTEM : 0;
    }
    errno = ESTALE;
    return SCHED_ERR_SYSTEM;
}

uint32_t ForkSharedArena(SharedArena *arena) {
    // The inherited descriptor keeps the parent's lock alive. It goes last: were it closed before
    // the child has a lock of its own, the parent's end could leave the mapped file to a creator.
    // (Linux lets the mapping, too, keep the lock, but promises it nowhere.)
    FdGuard inherited(std::exchange(arena->descriptor, -1));
    FdGuard own(::open(arena->path, O_RDWR));
    if (own.get() < 0 && (errno == EMFILE || errno == ENFILE)) {
        inherited.reset();  // no room for two
        own.reset(::open(arena->path, O_RDWR));
    }
    if (own.get() < 0) return SCHED_ERR_SYSTEM;
    const bool locked = ::flock(own.get(), LOCK_SH) == 0;
    if (locked && checkMappedFile(arena, own.get()) != 0) return SCHED_ERR_SYSTEM;
    arena->descriptor = own.release();
    return locked ? 0 : SCHED_ERR_SYSTEM;
}
