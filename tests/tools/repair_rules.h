// What a repair promises for any bytes: it puts all right, or it changes nothing and says why.
#pragma once

#include "check.h"
#include "repair.h"

#include <cstring>
#include <set>
#include <string>
#include <string_view>
#include <vector>

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

// The broken promise, in words; empty if it was kept. The checker's complaints about mutexes,
// padding and tables that were never ready are not what a repair takes in hand.
inline std::string brokenPromise(std::span<const std::byte> damaged) {
    std::vector<std::byte> bytes(damaged.begin(), damaged.end()), last = bytes;
    if (!readArena(bytes).isArena) return {};
    std::string refusal;
    bool isKept = true;
    eachRepair(
        bytes, [](uint32_t) { return false; },
        [&](const Repair &repair) {
            refusal = repair.refusal;
            isKept = refusal.empty() || bytes == last;
            last = bytes;
        });
    if (!isKept) return "changed and refused: " + refusal;
    if (!refusal.empty()) return {};
    const ArenaModel after = readArena(bytes);
    std::set<uint64_t> halfMade;
    for (const LockTable &table : after.tables) {
        if (table.state != SHARED_FILE_TABLE_READY) halfMade.insert(table.offset);
    }
    for (const Finding &finding : after.findings.list()) {
        const std::string_view code = finding.code;
        const bool isOther = code.starts_with("mutex-") || code == "padding" ||
                             code == "file-size" || halfMade.contains(finding.guard);
        if (!isOther) return "repaired, but still " + describe(finding);
    }
    return {};
}
