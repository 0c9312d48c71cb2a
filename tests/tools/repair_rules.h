// All repairs that arenactl makes in an arena, one after the other.
#pragma once

#include "check.h"
#include "repair.h"

#include <string>

// Makes every repair that can be made without a look at processes, and calls visit with the outcome
// of each until one is refused.
template <class Visit>
void eachRepair(std::span<std::byte> bytes, const HasEnded &hasEnded, Visit visit) {
    Repair repair = repairHeap(bytes);
    visit(repair);
    if (!repair.refusal.empty()) return;
    Findings findings;
    const ArenaView arena(bytes);
    for (const HeapBlock &block : readAllocated(arena, findings)) {
        if (!block.sound || !looksLikeTable(arena, block)) continue;
        if (arena.load<SharedFileLockHeader>(block.data()).state != SHARED_FILE_TABLE_READY)
            continue;
        repair = repairTable(bytes, block, hasEnded);
        visit(repair);
        if (!repair.refusal.empty()) return;
    }
}

// Returns the refusal.
inline std::string repairAll(std::span<std::byte> bytes, const HasEnded &hasEnded) {
    std::string refusal;
    eachRepair(bytes, hasEnded, [&](const Repair &repair) { refusal = repair.refusal; });
    return refusal;
}
