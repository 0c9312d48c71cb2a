// Opens of files: the share test, the oplock test and the owner rule; closing, and what is known of
// an open file.
//
// A request is tested against the union of all opens of the file, the entry's combined mode, and
// not against each open apart. Only the owner rule looks at single records.

#include "shared/locks_internal.h"

#include "shared/pid_internal.h"

#include <algorithm>
#include <cstring>
#include <syslog.h>

namespace {

constexpr uint32_t kAnyAccess = SHARED_FILE_READ | SHARED_FILE_WRITE | SHARED_FILE_DELETE;
constexpr uint32_t kOwnerBits = SHARED_FILE_OWNER_COMPAT | SHARED_FILE_OWNER_OVERRIDE;
constexpr uint32_t kRefusingOplocks = SHARED_FILE_OPLOCK_EXCLUSIVE | SHARED_FILE_OPLOCK_BATCH;
// Taken from an open that joins others: the oplocks and four bits above them that go with them.
constexpr uint32_t kFirstOpenBits = 0x7F00;
constexpr uint32_t kUnreportedBit = 0x8000;

// Whether an open with mode a forbids others the access that mode b wants.
bool isDenied(uint32_t a, uint32_t b) {
    if ((a & SHARED_FILE_DENY_READ) && (b & SHARED_FILE_READ)) return true;
    if ((a & SHARED_FILE_DENY_WRITE) && (b & SHARED_FILE_WRITE)) return true;
    return (a & SHARED_FILE_DENY_DELETE) && (b & SHARED_FILE_DELETE) && (a & kAnyAccess);
}

bool canShare(uint32_t wanted, uint32_t combined) {
    return !isDenied(wanted, combined) && !isDenied(combined, wanted);
}

// The second chance of an open that the limit or the share test refuses: an earlier open of the
// same process and owner may let it in. The first record with a verdict decides, even when it
// refuses.
bool ownerAllows(TableView view, const SharedFileEntry &entry, const LockHolder &holder,
                 uint32_t wanted) {
    if (!(wanted & kOwnerBits) || !(entry.combinedMode & kOwnerBits)) return false;
    for (const SharedLockRecord &record : view.records(entry)) {
        if (!isOpenRecord(record) || !(record.mode & kOwnerBits)) continue;
        if (record.pid != holder.pid || record.owner != holder.owner) continue;
        if (record.mode & SHARED_FILE_OWNER_OVERRIDE) return true;
        if (!(wanted & SHARED_FILE_OWNER_COMPAT)) continue;
        return !(wanted & SHARED_FILE_WRITE) || (record.mode & SHARED_FILE_WRITE);
    }
    return false;
}

// Whether a request may join a file that is open already: 0 or the code of the refusal. An open
// that joins through the share test loses its oplock bits; one that its owner lets in keeps them.
int joinOpenFile(TableView view, const SharedFileEntry &entry, const LockHolder &holder,
                 bool minusOplocks, uint32_t *wanted) {
    if (!minusOplocks && (entry.combinedMode & kRefusingOplocks)) return SHARED_ERR_OPLOCK;
    const bool hasPlace = entry.openLimit == 0 || entry.openLimit > entry.openCount;
    if (hasPlace && canShare(*wanted, entry.combinedMode)) {
        *wanted &= ~kFirstOpenBits;
        return 0;
    }
    return ownerAllows(view, entry, holder, *wanted) ? 0 : SHARED_ERR_DENIED;
}

// Stores the end of the name, where files in deep directories differ.
void storeName(SharedFileEntry *entry, const char *name) {
    std::memset(entry->name, 0, kStoredNameBytes);
    if (name == nullptr) return;
    const size_t length = std::strlen(name);
    const size_t kept = std::min(length, kStoredNameBytes);
    std::memcpy(entry->name, name + (length - kept), kept);
}

// An entry for a file that nobody has open, or null after a line in the system log.
SharedFileEntry *makeEntry(TableView view, const SharedFileKey &key, uint32_t maxOpens,
                           const char *name) {
    auto *entry = view.takeFirst<SharedFileEntry>(&view.header()->freeEntries);
    if (entry == nullptr) {
        ::syslog(LOG_ERR, "OpenSharedFile: no more locks");
        return nullptr;
    }
    entry->word0 = key.word0;
    entry->word1 = key.word1;
    entry->combinedMode = 0;
    entry->openLimit = maxOpens;
    entry->openCount = 0;
    storeName(entry, name);
    view.makeEmpty(&entry->records);
    view.pushFront(bucketOf(view, key), &entry->link);
    return entry;
}

int recordOpen(TableView view, SharedFileEntry *entry, const LockHolder &holder, uint32_t mode) {
    const int result = addRangeLock(view, holder, entry, mode, 0, kOpenRecordEnd);
    if (result == 0) {
        entry->combinedMode |= mode;
        ++entry->openCount;
    } else if (entry->openCount == 0 && view.isEmpty(&entry->records)) {
        storeName(entry, nullptr);
        releaseEntry(view, entry);
    }
    return result;
}

}  // namespace

int OpenSharedFile(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                   const SharedFileKey *key, uint32_t mode, uint32_t maxOpens, const char *name,
                   uint32_t *combinedMode) {
    const LockHolder holder{ownPid(), owner, handle};
    return underTableMutex(table, [=](TableView view) {
        uint32_t wanted = mode & ~SHARED_FILE_IGNORE_OPLOCKS;
        SharedFileEntry *entry = findEntry(view, *key);
        if (entry != nullptr) {
            const bool minusOplocks = (mode & SHARED_FILE_IGNORE_OPLOCKS) != 0;
            if (const int refused = joinOpenFile(view, *entry, holder, minusOplocks, &wanted)) {
                *combinedMode = entry->combinedMode;
                return refused;
            }
        } else {
            entry = makeEntry(view, *key, maxOpens, name);
            if (entry == nullptr) return SHARED_ERR_NOLOCKS;
        }
        if (const int failed = recordOpen(view, entry, holder, wanted)) return failed;
        *combinedMode = entry->combinedMode;
        return 0;
    });
}

int CloseSharedFile(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                    const SharedFileKey *key) {
    const LockHolder holder{ownPid(), owner, handle};
    return underTableMutex(table, [=](TableView view) {
        SharedFileEntry *entry = findEntry(view, *key);
        if (entry == nullptr) return SHARED_ERR_NOTOPEN;
        for (SharedLockRecord &record : view.records(*entry)) {
            if (isHeldBy(record, holder)) releaseRecord(view, entry, &record);
        }
        settleEntry(view, entry);
        return 0;
    });
}

int SharedFileIsOpen(SharedFileLockTable *table, const SharedFileKey *key) {
    int isOpen = 1;  // so does a table that cannot be looked at answer: the safe answer
    (void)underTableMutex(table, [key, &isOpen](TableView view) {
        isOpen = findEntry(view, *key) != nullptr ? 1 : 0;
        return 0;
    });
    return isOpen;
}

int SharedFileInfo(SharedFileLockTable *table, const SharedFileKey *key, uint32_t *combinedMode,
                   uint32_t *opens, char *name, uint64_t nameSize) {
    return underTableMutex(table, [=](TableView view) {
        const SharedFileEntry *entry = findEntry(view, *key);
        if (entry == nullptr) {
            *combinedMode = 0;
            *opens = 0;
            return SHARED_ERR_NOTOPEN;
        }
        *combinedMode = entry->combinedMode & ~kUnreportedBit;
        *opens = entry->openCount;
        if (name != nullptr && nameSize != 0) {
            // The stored name is padded with NUL, so its bytes past the end fill the rest.
            const auto copied = std::min<uint64_t>(nameSize - 1, kStoredNameBytes);
            std::memcpy(name, entry->name, copied);
            name[copied] = '\0';
        }
        return 0;
    });
}
