// Byte-range locks. Every granted lock is a record of its own, never merged, split or trimmed.
//
// Bounds are inclusive and signed. An open record's bounds, 0 and -1, overlap no range at an offset
// of 0 or more, so the walks need not tell opens from locks.

#include "shared/locks_internal.h"

#include "shared/pid_internal.h"

namespace {

constexpr int64_t kToTheEnd = -1;

struct ByteRange {
    int64_t start;
    int64_t end;
};

// Wraps where offset + length leaves the signed range, which nobody checks.
constexpr ByteRange rangeOf(int64_t offset, int64_t length) {
    if (length == kToTheEnd) return {offset, INT64_MAX};
    if (offset == 0 && length == 0) return {0, kEmptyRangeAtZeroEnd};
    return {offset, static_cast<int64_t>(static_cast<uint64_t>(offset) +
                                         static_cast<uint64_t>(length) - 1)};
}

bool overlaps(const SharedLockRecord &record, const ByteRange &range) {
    return range.end >= record.start && range.start <= record.end;
}

// The first record that stands against a lock with these flags, or null.
const SharedLockRecord *findConflict(TableView view, const SharedFileEntry &entry,
                                     const LockHolder &holder, const ByteRange &range,
                                     uint32_t flags) {
    for (const SharedLockRecord &record : view.records(entry)) {
        if (!overlaps(record, range)) continue;
        if (!((flags | record.mode) & SHARED_FILE_LOCK_EXCLUSIVE)) continue;
        if ((flags & SHARED_FILE_LOCK_SHARED) && isHeldBy(record, holder)) continue;
        return &record;
    }
    return nullptr;
}

// Whether a record keeps its own holder or another from an access of this kind to its bytes.
bool hinders(const SharedLockRecord &record, const LockHolder &holder, uint32_t flags) {
    const bool isExclusive = (record.mode & SHARED_FILE_LOCK_EXCLUSIVE) != 0;
    if (isHeldBy(record, holder)) {
        if (isExclusive) return false;
        if ((record.mode & SHARED_FILE_LOCK_SHARED) && (flags & SHARED_FILE_TEST_READ))
            return false;
    }
    return isExclusive || (flags & SHARED_FILE_TEST_WRITE);
}

}  // namespace

int LockSharedFileRange(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                        const SharedFileKey *key, int64_t offset, int64_t length, uint32_t flags) {
    const LockHolder holder{ownPid(), owner, handle};
    const ByteRange range = rangeOf(offset, length);
    return underTableMutex(table, [=, file = *key](TableView view) {
        SharedFileEntry *entry = findEntry(view, file);
        if (entry == nullptr) return SHARED_ERR_NOTOPEN;
        if (const auto *conflict = findConflict(view, *entry, holder, range, flags)) {
            return isHeldBy(*conflict, holder) ? SHARED_ERR_SELFLOCKED : SHARED_ERR_LOCKED;
        }
        return addRangeLock(view, holder, entry, flags, range.start, range.end);
    });
}

int UnlockSharedFileRange(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                          const SharedFileKey *key, int64_t offset, int64_t length) {
    const LockHolder holder{ownPid(), owner, handle};
    const ByteRange range = rangeOf(offset, length);
    return underTableMutex(table, [=, file = *key](TableView view) {
        SharedFileEntry *entry = findEntry(view, file);
        if (entry == nullptr) return SHARED_ERR_NOTLOCKED;
        for (SharedLockRecord &record : view.records(*entry)) {
            if (!isHeldBy(record, holder)) continue;
            if (record.start != range.start || record.end != range.end) continue;
            releaseRecord(view, entry, &record);
            return 0;
        }
        return SHARED_ERR_NOTLOCKED;
    });
}

int TestSharedFileRange(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                        const SharedFileKey *key, int64_t offset, int64_t *length, uint32_t flags) {
    const LockHolder holder{ownPid(), owner, handle};
    const int64_t planned = *length;
    int64_t allowed = 0;
    const int result = underTableMutex(table, [=, file = *key, &allowed](TableView view) {
        allowed = planned;
        const SharedFileEntry *entry = findEntry(view, file);
        if (entry == nullptr) return 0;
        ByteRange rest = rangeOf(offset, planned);
        for (const SharedLockRecord &record : view.records(*entry)) {
            if (!hinders(record, holder, flags) || !overlaps(record, rest)) continue;
            if (record.start <= offset) {
                allowed = 0;
                return 0;
            }
            // From here on only a lock that begins still nearer can matter.
            allowed = static_cast<int64_t>(static_cast<uint64_t>(record.start) -
                                           static_cast<uint64_t>(offset));
            rest.end = record.start - 1;
        }
        return 0;
    });
    *length = allowed;
    return result;
}
