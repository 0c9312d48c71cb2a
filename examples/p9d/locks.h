// A client's POSIX record locks, kept in the table that all workers share.
//
// The table's locks neither merge nor split: each is released as it was taken. A record lock does
// both, and changes from one kind to the other in place. So this layer keeps the pieces that each
// client process holds of a file, no two of which overlap, and takes and releases whole pieces.
// What replaces a piece is taken before the piece is released: the bytes are never free in between.
#pragma once

#include "ledger.h"

#include <compare>
#include <cstdint>
#include <iosched/shared.h>
#include <map>
#include <string>
#include <vector>

// One holder of locks on one file.
struct LockHolderKey {
    uint64_t device, inode;
    uint32_t process;  // of the client
    auto operator<=>(const LockHolderKey &) const = default;
};

// The last byte is inclusive; INT64_MAX stands for all there will ever be.
struct LockRange {
    int64_t start, end;
    bool exclusive;
};

class LockSet {
public:
    // owner tells this connection's locks from those of others in this worker.
    explicit LockSet(uint32_t owner) : owner_(owner) {}
    ~LockSet();
    LockSet(const LockSet &) = delete;
    LockSet &operator=(const LockSet &) = delete;

    enum class Result { kGranted, kBlocked, kFull };

    // Both leave everything as it was unless they grant. client is named to others that ask.
    Result lock(const LockHolderKey &key, const LockRange &range, const std::string &client);
    Result unlock(const LockHolderKey &key, const LockRange &range);

    // Whether a lock would be granted now; if not, what is in its way.
    bool isFree(const LockHolderKey &key, const LockRange &range, LedgerEntry *obstacle) const;

private:
    struct Piece {
        LockRange range;
        size_t entry;  // in the ledger
    };
    struct Holder {
        std::string client;
        std::vector<Piece> pieces;
    };

    int take(const LockHolderKey &key, const LockRange &range) const;
    void release(const LockHolderKey &key, const LockRange &range) const;
    Result replace(const LockHolderKey &key, const LockRange &range, Holder *holder) const;

    std::map<LockHolderKey, Holder> held_;
    const uint32_t owner_;
};
