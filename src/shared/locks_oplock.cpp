// Oplocks: who holds one on a file, and how a holder lowers it or gives it up.
//
// The table tells nobody that somebody waits. An opener that was refused asks for the holders here
// and reaches them by its own means.

#include "shared/locks_internal.h"

#include "shared/pid_internal.h"

#include <algorithm>

namespace {

// Holders that are told through memory of this process. A file with more of them, which takes as
// many opens let in by their owner, has the rest written to the caller's array under the mutex.
constexpr uint32_t kUsualHolders = 256;

}  // namespace

int GetOplockHolders(SharedFileLockTable *table, const SharedFileKey *key, uint32_t *pids,
                     uint32_t capacity, uint32_t *count) {
    *count = 0;
    uint32_t usual[kUsualHolders];
    uint32_t found = 0;
    const int result = underTableMutex(table, [&, file = *key](TableView view) {
        const SharedFileEntry *entry = findEntry(view, file);
        if (entry == nullptr) return 0;
        for (const SharedLockRecord &record : view.records(*entry)) {
            if (found == capacity) break;
            if (!isOpenRecord(record) || !(record.mode & SHARED_FILE_OPLOCK_MASK)) continue;
            (found < kUsualHolders ? usual : pids)[found] = record.pid;
            ++found;
        }
        return 0;
    });
    if (result != 0) return result;
    std::copy_n(usual, std::min(found, kUsualHolders), pids);
    *count = found;
    return 0;
}

int SetSharedFileMode(SharedFileLockTable *table, uint32_t owner, uint32_t handle,
                      const SharedFileKey *key, uint32_t mode) {
    const LockHolder holder{ownPid(), owner, handle};
    return underTableMutex(table, [=, file = *key](TableView view) {
        SharedFileEntry *entry = findEntry(view, file);
        if (entry == nullptr) return SHARED_ERR_NOTOPEN;
        for (SharedLockRecord &record : view.records(*entry)) {
            if (!isHeldBy(record, holder)) continue;
            // An oplock can be kept, changed or given up, but not taken this way.
            const bool wantsOplock = (mode & SHARED_FILE_OPLOCK_MASK) != 0;
            if (wantsOplock && !(record.mode & SHARED_FILE_OPLOCK_MASK)) return SHARED_ERR_OPLOCK;
            record.mode = mode;
            rebuildMode(view, entry);
            return 0;
        }
        return SHARED_ERR_DENIED;
    });
}
