#include "rehearsal.h"

#include "check.h"

namespace {

std::string firstOf(const Findings &findings) {
    return findings.empty() ? std::string() : describe(findings.list().front());
}

}  // namespace

Guarded guardedHeap() {
    return {repairHeap, [](std::span<const std::byte> bytes) {
                Findings findings;
                (void)readHeap(ArenaView(bytes), findings);
                return firstOf(findings);
            }};
}

Guarded guardedTable(const HeapBlock &chunk, HasEnded hasEnded) {
    return {[chunk, hasEnded = std::move(hasEnded)](std::span<std::byte> bytes) {
                return repairTable(bytes, chunk, hasEnded);
            },
            [chunk](std::span<const std::byte> bytes) {
                Findings findings;
                (void)readTable(ArenaView(bytes), chunk, findings);
                return firstOf(findings);
            }};
}

bool isReadyTable(std::span<const std::byte> bytes, const HeapBlock &chunk) {
    const ArenaView arena(bytes);
    return looksLikeTable(arena, chunk) &&
           arena.load<SharedFileLockHeader>(chunk.data()).state == SHARED_FILE_TABLE_READY;
}

bool rehearse(std::span<const std::byte> bytes, const Guarded &guarded, MutexReport *report) {
    std::vector<std::byte> copy(bytes.begin(), bytes.end());
    Repair repair = guarded.mend(copy);
    report->refusal = repair.refusal.empty() ? guarded.fault(copy) : repair.refusal;
    if (!report->refusal.empty()) return false;
    report->done = std::move(repair.done);
    return true;
}
