#include "locks.h"

#include "p9d.h"

#include <algorithm>
#include <iosched/util.h>

namespace {

SharedFileKey fileKey(const LockHolderKey &key) {
    return {key.inode, key.device};
}

int64_t lengthOf(const LockRange &range) {
    return range.end == INT64_MAX ? -1 : range.end - range.start + 1;
}

bool overlap(const LockRange &a, const LockRange &b) {
    return a.start <= b.end && b.start <= a.end;
}

// What is left of a piece beside the range that replaces a part of it.
std::vector<LockRange> restsOf(const LockRange &old, const LockRange &range) {
    std::vector<LockRange> rests;
    if (old.start < range.start) rests.push_back({old.start, range.start - 1, old.exclusive});
    if (old.end > range.end) rests.push_back({range.end + 1, old.end, old.exclusive});
    return rests;
}

LedgerEntry entryFor(const LockHolderKey &key, const LockRange &range, const std::string &client) {
    LedgerEntry entry{key.device,  key.inode,       range.start, range.end,
                      key.process, range.exclusive, {}};
    (void)strlcpy(entry.client, client.c_str(), sizeof entry.client);
    return entry;
}

}  // namespace

LockSet::~LockSet() {
    for (const auto &[key, holder] : held_) {
        for (const Piece &piece : holder.pieces)
            unlistLock(piece.entry);
        const SharedFileKey file = fileKey(key);
        (void)CloseSharedFile(share.table, owner_, key.process, &file);  // all locks of the holder
    }
}

// Either kind stacks on its own holder's locks, which are about to be replaced.
int LockSet::take(const LockHolderKey &key, const LockRange &range) const {
    const SharedFileKey file = fileKey(key);
    const uint32_t flags =
        SHARED_FILE_LOCK_SHARED | (range.exclusive ? SHARED_FILE_LOCK_EXCLUSIVE : 0);
    return LockSharedFileRange(share.table, owner_, key.process, &file, range.start,
                               lengthOf(range), flags);
}

// The table releases the oldest lock of exactly this range, so of two the one that is being
// replaced.
void LockSet::release(const LockHolderKey &key, const LockRange &range) const {
    const SharedFileKey file = fileKey(key);
    (void)UnlockSharedFileRange(share.table, owner_, key.process, &file, range.start,
                                lengthOf(range));
}

// Takes the range out of the holder's pieces: what is left of them first, then they go.
LockSet::Result LockSet::replace(const LockHolderKey &key, const LockRange &range,
                                 Holder *holder) const {
    std::vector<LockRange> rests;
    for (const Piece &piece : holder->pieces) {
        if (!overlap(piece.range, range)) continue;
        for (const LockRange &rest : restsOf(piece.range, range)) {
            if (take(key, rest) == 0) {
                rests.push_back(rest);
                continue;
            }
            for (const LockRange &taken : rests)
                release(key, taken);
            return Result::kFull;
        }
    }
    std::erase_if(holder->pieces, [&](const Piece &piece) {
        if (!overlap(piece.range, range)) return false;
        release(key, piece.range);
        unlistLock(piece.entry);
        return true;
    });
    for (const LockRange &rest : rests)
        holder->pieces.push_back({rest, listLock(entryFor(key, rest, holder->client))});
    return Result::kGranted;
}

LockSet::Result LockSet::lock(const LockHolderKey &key, const LockRange &range,
                              const std::string &client) {
    const int code = take(key, range);
    if (code == SHARED_ERR_LOCKED || code == SHARED_ERR_SELFLOCKED) return Result::kBlocked;
    if (code != 0) return Result::kFull;
    Holder &holder = held_[key];
    holder.client = client;
    const Result result = replace(key, range, &holder);
    if (result == Result::kGranted)
        holder.pieces.push_back({range, listLock(entryFor(key, range, client))});
    else
        release(key, range);
    return result;
}

LockSet::Result LockSet::unlock(const LockHolderKey &key, const LockRange &range) {
    const auto found = held_.find(key);
    if (found == held_.end()) return Result::kGranted;
    const Result result = replace(key, range, &found->second);
    if (found->second.pieces.empty()) held_.erase(found);
    return result;
}

bool LockSet::isFree(const LockHolderKey &key, const LockRange &range,
                     LedgerEntry *obstacle) const {
    const SharedFileKey file = fileKey(key);
    const int64_t asked = lengthOf(range);
    int64_t length = asked;
    const uint32_t flags = SHARED_FILE_TEST_READ | (range.exclusive ? SHARED_FILE_TEST_WRITE : 0);
    (void)TestSharedFileRange(share.table, owner_, key.process, &file, range.start, &length, flags);
    if (length == asked) return true;
    const int64_t at = range.start + length;
    if (!findLock(key.device, key.inode, at, obstacle))
        *obstacle = {key.device, key.inode, at, at, 0, 1, {}};
    return false;
}
