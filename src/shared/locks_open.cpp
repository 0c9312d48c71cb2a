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
// An open that joins an open file loses these bits: the oplocks, and four above them that are kept
// or lost together with them. Who opens a file first, or is let in by its owner, keeps them.
constexpr uint32_t kLostByJoining = 0x7F00;
constexpr uint32_t kUnreportedBit = 0x8000;

// Whether an open with the mode `denying` forbids others the access that the mode `wanting` has.
bool isDenied(uint32_t denying, uint32_t wanting) {
    if ((denying & SHARED_FILE_DENY_READ) && (wanting & SHARED_FILE_READ)) return true;
    if ((denying & SHARED_FILE_DENY_WRITE) && (wanting & SHARED_FILE_WRITE)) return true;
    return (denying & SHARED_FILE_DENY_DELETE) && (wanting & SHARED_FILE_DELETE) &&
           (denying & kAnyAccess);  // who has no access itself cannot keep others from deleting
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
                 bool ignoresOplocks, uint32_t *wanted) {
    if (!ignoresOplocks && (entry.combinedMode & kRefusingOplocks)) return SHARED_ERR_OPLOCK;
    const bool hasPlace = entry.openLimit == 0 || entry.openLimit > entry.openCount;
    if (hasPlace && canShare(*wanted, entry.combinedMode)) {
        *wanted &= ~kLostByJoining;
        return 0;
    }
    return ownerAllows(view, entry, holder, *wanted) ? 0 : SHARED_ERR_DENIED;
}

// A name as an entry keeps it: its end, where files in deep directories differ.
struct StoredName {
    char text[kStoredNameBytes];
};

StoredName endOfName(const char *name) {
    StoredName stored{};
    const size_t length = name != nullptr ? std::strlen(name) : 0;
    const size_t kept = std::min(length, kStoredNameBytes);
    if (kept != 0) std::memcpy(stored.text, name + (length - kept), kept);
    return stored;
}

void storeName(SharedFileEntry *entry, const StoredName &name) {
    std::memcpy(entry->name, name.text, kStoredNameBytes);
}

// An entry for a file that nobody has open, or null after a line in the system log.
SharedFileEntry *makeEntry(TableView view, const SharedFileKey &key, uint32_t maxOpens,
                           const StoredName &name) {
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
        storeName(entry, {});
        releaseEntry(view, entry);
    }
    return result;
}

}  // namespace

int OpenSharedFile(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                   const SharedFileKey *key, uint32_t mode, uint32_t maxOpens, const char *name,
                   uint32_t *combinedMode) {
    const LockHolder holder{ownPid(), owner, handle};
    const SharedFileKey file = *key;
    const StoredName storedName = endOfName(name);
    uint32_t combined = 0;
    const int result = underTableMutex(table, [&](TableView view) {
        uint32_t wanted = mode & ~SHARED_FILE_IGNORE_OPLOCKS;
        SharedFileEntry *entry = findEntry(view, file);
        if (entry != nullptr) {
            const bool ignoresOplocks = (mode & SHARED_FILE_IGNORE_OPLOCKS) != 0;
            combined = entry->combinedMode;
            const int refused = joinOpenFile(view, *entry, holder, ignoresOplocks, &wanted);
            if (refused != 0) return refused;
        } else {
            entry = makeEntry(view, file, maxOpens, storedName);
            if (entry == nullptr) return SHARED_ERR_NOLOCKS;
        }
        if (const int failed = recordOpen(view, entry, holder, wanted)) return failed;
        combined = entry->combinedMode;
        return 0;
    });
    if (result == 0 || result == SHARED_ERR_DENIED || result == SHARED_ERR_OPLOCK)
        *combinedMode = combined;
    return result;
}

int CloseSharedFile(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                    const SharedFileKey *key) {
    const LockHolder holder{ownPid(), owner, handle};
    return underTableMutex(table, [=, file = *key](TableView view) {
        SharedFileEntry *entry = findEntry(view, file);
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
    (void)underTableMutex(table, [file = *key, &isOpen](TableView view) {
        isOpen = findEntry(view, file) != nullptr ? 1 : 0;
        return 0;
    });
    return isOpen;
}

int SharedFileInfo(SharedFileLockTable *table, const SharedFileKey *key, uint32_t *combinedMode,
                   uint32_t *opens, char *name, uint64_t nameSize) {
    uint32_t combined = 0, count = 0;
    StoredName stored;
    const int result = underTableMutex(table, [&, file = *key](TableView view) {
        const SharedFileEntry *entry = findEntry(view, file);
        if (entry == nullptr) return SHARED_ERR_NOTOPEN;
        combined = entry->combinedMode & ~kUnreportedBit;
        count = entry->openCount;
        std::memcpy(stored.text, entry->name, kStoredNameBytes);
        return 0;
    });
    if (result != 0 && result != SHARED_ERR_NOTOPEN) return result;
    *combinedMode = combined;
    *opens = count;
    if (result == 0 && name != nullptr && nameSize != 0) {
        // The stored name is padded with NUL, so its bytes past the end fill the rest.
        const auto copied = std::min<uint64_t>(nameSize - 1, kStoredNameBytes);
        std::memcpy(name, stored.text, copied);
        name[copied] = '\0';
    }
    return result;
}
