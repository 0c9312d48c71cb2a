// The heap's repair. The list of allocated blocks is the truth: a block is filled in before its
// link is written there, and a block that is freed loses its last reference before it leaves.
#include "repair.h"

#include "edit.h"
#include "heap.h"
#include "table.h"

#include <algorithm>
#include <cinttypes>

namespace {

struct Gap {
    uint64_t offset;
    uint64_t size;
};

// What no block with references covers, by address.
std::vector<Gap> gapsBetween(const std::vector<HeapBlock> &blocks, uint64_t end) {
    std::vector<Gap> gaps;
    uint64_t covered = kHeapOffset;
    for (const HeapBlock &block : blocks) {
        if (block.references == 0) continue;
        if (block.offset > covered) gaps.push_back({covered, block.offset - covered});
        covered = block.offset + block.size;
    }
    if (end > covered) gaps.push_back({covered, end - covered});
    return gaps;
}

uint64_t unlinkUnreferenced(ArenaEditor &arena) {
    uint64_t count = 0;
    uint64_t link = offsetof(ArenaHeader, allocatedList);
    while (const uint64_t at = arena.load<uint64_t>(link)) {
        const auto block = arena.load<BlockHeader>(at);
        if (block.references != 0) {
            link = at;
            continue;
        }
        arena.store<uint64_t>(link, block.next);
        count++;
    }
    return count;
}

void writeFreeBlock(ArenaEditor &arena, const Gap &gap, uint64_t next) {
    arena.store<uint64_t>(gap.offset + offsetof(BlockHeader, next), next);
    arena.store<uint64_t>(gap.offset + offsetof(BlockHeader, name), 0);
    arena.store<uint64_t>(gap.offset + offsetof(BlockHeader, blockSize), gap.size);
    arena.store<uint64_t>(gap.offset + offsetof(BlockHeader, chunkSize), 0);
    arena.store<uint32_t>(gap.offset + offsetof(BlockHeader, references), 0);
    arena.store<uint32_t>(gap.offset + offsetof(BlockHeader, padding), 0);
}

// The list needs no order of its own while it is written: nobody repairs by it.
void writeFreeList(ArenaEditor &arena, const std::vector<Gap> &gaps) {
    uint64_t next = 0;
    for (size_t i = gaps.size(); i-- > 0; next = gaps[i].offset)
        writeFreeBlock(arena, gaps[i], next);
    arena.store<uint64_t>(offsetof(ArenaHeader, freeList), next);
}

bool isWhole(const ArenaView &arena) {
    Findings findings;
    (void)readHeap(arena, findings);
    return findings.empty();
}

Repair refused(std::string why) {
    return {{}, std::move(why)};
}

// Why this chunk is no lock table in the making; null if it can be one.
const char *whyNoHalfTable(const ArenaView &arena, const HeapBlock &chunk) {
    if (chunk.chunkSize < sizeof(SharedFileLockHeader)) return "is too small for a lock table";
    const auto header = arena.load<SharedFileLockHeader>(chunk.data());
    if (header.state == SHARED_FILE_TABLE_READY) return "is a lock table that is ready";
    if (header.state != 0 || header.zero0 != 0 || header.zero1 != 0 || header.bucketCount < 0)
        return "is no lock table";
    if (chunk.references > 1) return "is in use";
    return nullptr;
}

}  // namespace

Repair repairHeap(std::span<std::byte> bytes) {
    ArenaEditor arena(bytes);
    if (isWhole(arena)) return {};
    Findings findings;
    const std::vector<HeapBlock> blocks = readAllocated(arena, findings);
    if (!findings.empty()) {
        const Finding &first = findings.list().front();
        return refused(first.place + ": " + first.problem);
    }
    const std::vector<Gap> gaps = gapsBetween(blocks, arena.size());
    for (const Gap &gap : gaps) {
        if (gap.size < kMinBlockSize || gap.size % kBlockAlignment != 0)
            return refused(printed("the %" PRIu64 " bytes at 0x%" PRIx64
                                   " belong to no block and are not enough for a free one",
                                   gap.size, gap.offset));
    }
    Repair repair;
    if (const uint64_t count = unlinkUnreferenced(arena)) {
        repair.done.push_back(counted(count, "block", "blocks") +
                              " without references taken off the allocated list");
    }
    writeFreeList(arena, gaps);
    repair.done.push_back("free list made anew from what no chunk covers: " +
                          counted(gaps.size(), "block", "blocks"));
    return repair;
}

Repair abandonTable(std::span<std::byte> bytes, const std::string &name) {
    ArenaEditor arena(bytes);
    Findings findings;
    for (const HeapBlock &block : readAllocated(arena, findings)) {
        if (!block.named || block.name != name || block.references == 0) continue;
        if (const char *why = whyNoHalfTable(arena, block))
            return refused("the chunk " + quoted(name) + " " + why);
        arena.store<uint32_t>(block.offset + offsetof(BlockHeader, references), 0);
        return {{"chunk " + quoted(name) + ", a lock table that was never ready, given up"}, {}};
    }
    return {};
}
