#include "ledger.h"

#include <cstring>

namespace {

Ledger *everybodys;
size_t ownSeat;
size_t nextFree;  // where the search for a free entry begins

// A copy of a slot as it was at one moment; false if it is unused or being written.
bool readSlot(const Ledger::Slot &slot, LedgerEntry *entry) {
    const uint32_t before = slot.sequence.load(std::memory_order_acquire);
    if (before % 2 != 0 || slot.used.load(std::memory_order_relaxed) == 0) return false;
    std::memcpy(entry, &slot.entry, sizeof *entry);
    std::atomic_thread_fence(std::memory_order_acquire);
    return slot.sequence.load(std::memory_order_relaxed) == before;
}

void writeSlot(Ledger::Slot &slot, const LedgerEntry &entry, uint32_t used) {
    slot.sequence.fetch_add(1, std::memory_order_acq_rel);
    std::memcpy(&slot.entry, &entry, sizeof entry);
    slot.used.store(used, std::memory_order_relaxed);
    slot.sequence.fetch_add(1, std::memory_order_release);
}

}  // namespace

void useLedger(Ledger *ledger, size_t seat) {
    everybodys = ledger;
    ownSeat = seat;
    for (Ledger::Slot &slot : ledger->slots[seat]) {
        if (slot.sequence % 2 != 0) slot.sequence++;  // it died while writing
        if (slot.used != 0) writeSlot(slot, LedgerEntry{}, 0);
    }
}

size_t listLock(const LedgerEntry &entry) {
    for (size_t i = 0; everybodys && i < kLedgerEntries; i++) {
        const size_t at = (nextFree + i) % kLedgerEntries;
        if (everybodys->slots[ownSeat][at].used != 0) continue;
        writeSlot(everybodys->slots[ownSeat][at], entry, 1);
        nextFree = at + 1;
        return at;
    }
    return kNotListed;
}

void unlistLock(size_t at) {
    if (at != kNotListed) writeSlot(everybodys->slots[ownSeat][at], LedgerEntry{}, 0);
}

bool findLock(uint64_t device, uint64_t inode, int64_t byte, LedgerEntry *found) {
    if (!everybodys) return false;
    for (const auto &seat : everybodys->slots) {
        for (const Ledger::Slot &slot : seat) {
            if (readSlot(slot, found) && found->device == device && found->inode == inode &&
                found->start <= byte && byte <= found->end)
                return true;
        }
    }
    return false;
}
