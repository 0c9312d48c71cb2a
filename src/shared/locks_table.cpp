// The lock table as a whole: its size, its making, attaching to it, cleaning it; and the primitives
// that the operations on files share.
//
// A table is made under the arena's mutex, which AllocateSharedChunk leaves taken for its creator.
// So whoever finds the chunk by its name finds a finished table, and looks at its state without a
// lock.

#include "shared/locks_internal.h"

#include "shared/pid_internal.h"
#include "support/guards.h"

#include <cerrno>
#include <syslog.h>

namespace {

constexpr int32_t kExtraLocksPerProcess =
    20;                                   // beyond one per file, where the caller names no number
constexpr int32_t kMaxEntries = 1 << 30;  // the largest number whose buckets a signed 32-bit holds

// What a table is made of.
struct TableShape {
    uint32_t buckets;
    int32_t entries;
    int32_t records;
};

// About one to two entries per bucket when the table is full; a power of two, 16 at least.
uint32_t bucketsFor(int32_t entries) {
    if (entries <= 32) return 16;
    uint32_t power = 32;
    while (power < static_cast<uint32_t>(entries))
        power *= 2;
    return power / 2;
}

// Products wrap at 32 bits: the size is a number that all processes must agree on, for all
// arguments.
TableShape shapeFor(int32_t processes, int32_t filesPerProcess, int32_t locks) {
    const uint32_t servers = static_cast<uint32_t>(processes);
    const uint32_t entries = servers * static_cast<uint32_t>(filesPerProcess);
    const uint32_t records = locks != 0 ? static_cast<uint32_t>(locks)
                                        : entries + servers * uint32_t{kExtraLocksPerProcess};
    return {bucketsFor(static_cast<int32_t>(entries)), static_cast<int32_t>(entries),
            static_cast<int32_t>(records)};
}

constexpr uint64_t headerBytes(uint64_t buckets) {
    return sizeof(SharedFileLockHeader) + sizeof(SharedLink) * buckets;
}

uint64_t tableBytes(const TableShape &shape) {
    return headerBytes(shape.buckets) +
           sizeof(SharedFileEntry) * static_cast<uint64_t>(int64_t{shape.entries}) +
           sizeof(SharedLockRecord) * static_cast<uint64_t>(int64_t{shape.records});
}

// Whether a table can be made of these counts: none negative, no product wrapped.
bool countsAreUsable(int32_t processes, int32_t filesPerProcess, int32_t locks) {
    if (processes < 0 || filesPerProcess < 0 || locks < 0) return false;
    const int64_t entries = int64_t{processes} * filesPerProcess;
    const int64_t records = entries + int64_t{processes} * kExtraLocksPerProcess;
    return entries <= kMaxEntries && records <= INT32_MAX;
}

// Turns zero bytes into an empty table. The array ends are handed out first: every element is
// pushed onto the front of its list, in the order of addresses.
void buildTable(TableView view, const TableShape &shape) {
    SharedFileLockHeader *header = view.header();
    header->bucketCount = static_cast<int32_t>(shape.buckets);
    view.makeEmpty(&header->freeEntries);
    view.makeEmpty(&header->freeRecords);
    for (uint32_t i = 0; i < shape.buckets; ++i)
        view.makeEmpty(view.bucket(i));

    auto *entries = reinterpret_cast<SharedFileEntry *>(view.bucket(shape.buckets));
    for (int32_t i = 0; i < shape.entries; ++i)
        view.pushFront(&header->freeEntries, &entries[i].link);
    auto *records = reinterpret_cast<SharedLockRecord *>(entries + shape.entries);
    for (int32_t i = 0; i < shape.records; ++i)
        view.pushFront(&header->freeRecords, &records[i].link);
    keepStoreOrder();  // the table is whole
    header->state = SHARED_FILE_TABLE_READY;
}

// Makes the table in a new chunk. The arena's mutex, held since the chunk's creation, is released
// here; after a failure the chunk is gone and errno is that of the call that failed.
uint32_t createTable(SharedFileLockTable *table, const TableShape &shape) {
    auto *arenaMutex = static_cast<SharedMutex *>(table->arena->base);
    const TableView view(table);
    SharedMutex *mutex = &view.header()->mutex;
    uint32_t failed = InitializeSharedMutex(mutex);
    if (failed == 0) failed = AquireSharedMutex(mutex);
    if (failed != 0) {
        ErrnoGuard keep;
        (void)ReleaseSharedMutex(arenaMutex);
        (void)FreeSharedChunk(table->arena, table->header);
        return failed;
    }
    buildTable(view, shape);
    (void)ReleaseSharedMutex(mutex);  // taken just above: it cannot fail
    (void)ReleaseSharedMutex(arenaMutex);
    return 0;
}

// Whether a chunk found by its name is a table, as far as can be told without trusting it. The name
// may be somebody else's, and the chunk too small for the very fields that are looked at.
bool isReadyTable(const void *chunk, uint64_t chunkBytes) {
    if (chunkBytes < sizeof(SharedFileLockHeader)) return false;
    const auto *header = static_cast<const SharedFileLockHeader *>(chunk);
    return header->state == SHARED_FILE_TABLE_READY && isSoundMutex(&header->mutex) &&
           header->bucketCount > 0 &&
           chunkBytes >= headerBytes(static_cast<uint64_t>(header->bucketCount));
}

}  // namespace

SharedLink *iosched_lib::bucketOf(TableView view, const SharedFileKey &key) {
    return view.bucket(((key.word0 & UINT32_MAX) ^ key.word1) % view.bucketCount());
}

SharedFileEntry *iosched_lib::findEntry(TableView view, const SharedFileKey &key) {
    for (SharedFileEntry &entry : view.entries(bucketOf(view, key))) {
        if (entry.word0 == key.word0 && entry.word1 == key.word1) return &entry;
    }
    return nullptr;
}

int iosched_lib::addRangeLock(TableView view, const LockHolder &holder, SharedFileEntry *entry,
                              uint32_t mode, int64_t start, int64_t end) {
    auto *record = view.takeFirst<SharedLockRecord>(&view.header()->freeRecords);
    if (record == nullptr) {
        ::syslog(LOG_ERR, "addRangeLock: no more locks");
        return SHARED_ERR_NOLOCKS;
    }
    record->pid = holder.pid;
    record->owner = holder.owner;
    record->handle = holder.handle;
    record->start = start;
    record->end = end;
    record->mode = mode;
    view.append(&entry->records, &record->link);
    return 0;
}

void iosched_lib::releaseRecord(TableView view, SharedFileEntry *entry, SharedLockRecord *record) {
    if (isOpenRecord(*record)) --entry->openCount;
    view.unlink(&record->link);
    view.pushFront(&view.header()->freeRecords, &record->link);
}

void iosched_lib::releaseEntry(TableView view, SharedFileEntry *entry) {
    view.unlink(&entry->link);
    view.pushFront(&view.header()->freeEntries, &entry->link);
}

void iosched_lib::rebuildMode(TableView view, SharedFileEntry *entry) {
    uint32_t combined = 0;
    for (const SharedLockRecord &record : view.records(*entry)) {
        if (isOpenRecord(record)) combined |= record.mode;
    }
    entry->combinedMode = combined;
}

void iosched_lib::settleEntry(TableView view, SharedFileEntry *entry) {
    if (view.isEmpty(&entry->records))
        releaseEntry(view, entry);
    else
        rebuildMode(view, entry);
}

uint64_t CalcSharedFileLockTableSize(int32_t processes, int32_t filesPerProcess, int32_t locks) {
    return tableBytes(shapeFor(processes, filesPerProcess, locks));
}

int AllocateSharedFileLockTable(SharedArena *arena, const char *name, int32_t processes,
                                int32_t filesPerProcess, int32_t locks,
                                SharedFileLockTable **table) {
    // A size of 0 only attaches. So do counts that no table can be made of: an existing table keeps
    // its own, whatever the arguments are.
    const bool canMake = processes != 0 && countsAreUsable(processes, filesPerProcess, locks);
    const TableShape shape = shapeFor(processes, filesPerProcess, locks);
    uint64_t chunkBytes = canMake ? tableBytes(shape) : 0;
    HeapGuard<SharedFileLockTable> handle(newRecord<SharedFileLockTable>());
    if (handle.get() == nullptr) return SCHED_ERR_SYSTEM;
    handle->arena = arena;
    preparePid();

    uint32_t created = 0;
    const uint32_t failed =
        AllocateSharedChunk(arena, name, &chunkBytes, &handle->header, &created);
    if (failed == SHARED_ERR_NOTFOUND && processes != 0) {
        errno = EINVAL;
        return SCHED_ERR_SYSTEM;
    }
    if (failed != 0) return static_cast<int>(failed);
    if (created != 0) {
        if (const uint32_t failedToMake = createTable(handle.get(), shape))
            return static_cast<int>(failedToMake);
    } else if (!isReadyTable(handle->header, chunkBytes)) {
        // A chunk of another kind under the table's name: the reference just taken goes back, and
        // with it the chunk, should its owners have given up theirs meanwhile.
        (void)FreeSharedChunk(arena, handle->header);
        return SHARED_ERR_BADTABLE;
    }
    *table = handle.release();
    return 0;
}

int FreeSharedFileLockTable(SharedFileLockTable *table) {
    HeapGuard<SharedFileLockTable> handle(table);
    return static_cast<int>(FreeSharedChunk(handle->arena, handle->header));
}

int CleanSharedFileLockTable(SharedFileLockTable *table, int32_t pid) {
    const auto dead = static_cast<uint32_t>(pid);
    return underTableMutex(table, [dead](TableView view) {
        for (uint32_t i = 0; i < view.bucketCount(); ++i) {
            for (SharedFileEntry &entry : view.entries(view.bucket(i))) {
                for (SharedLockRecord &record : view.records(entry)) {
                    if (record.pid == dead) releaseRecord(view, &entry, &record);
                }
                settleEntry(view, &entry);
            }
        }
        return 0;
    });
}
