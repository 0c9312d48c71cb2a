// Who holds which lock, for F_GETLK: the lock table tells where an obstacle begins, not whose it
// is.
//
// A chunk of the arena with a stretch of entries for each worker's seat. A worker writes its own
// stretch only, so there is no mutex that could die with it; readers look at an entry's sequence
// before and after, and take what they see for what it is: true a moment ago. What does not fit is
// locked all the same, by somebody without a name.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

struct LedgerEntry {
    uint64_t device, inode;
    int64_t start, end;
    uint32_t process;
    uint32_t exclusive;
    char client[32];
};

constexpr size_t kLedgerSeats = 64;     // as many as the board of a service has slots
constexpr size_t kLedgerEntries = 512;  // of each seat
constexpr size_t kNotListed = SIZE_MAX;

struct Ledger {
    struct Slot {
        std::atomic<uint32_t> sequence;  // odd while it is being written
        std::atomic<uint32_t> used;
        LedgerEntry entry;
    };
    Slot slots[kLedgerSeats][kLedgerEntries];
};

// Says where the ledger lies, and which stretch is this process's. What a dead worker left there
// goes.
void useLedger(Ledger *ledger, size_t seat);

// Lists a lock; kNotListed if there is no room. Takes it off again.
size_t listLock(const LedgerEntry &entry);
void unlistLock(size_t at);

// A listed lock on the file that covers the byte; false if there is none.
bool findLock(uint64_t device, uint64_t inode, int64_t byte, LedgerEntry *found);
