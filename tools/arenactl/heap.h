// Reads the heap of an arena: its blocks, from the two lists that hold them.
//
// The lists are the only source. A block that no list holds shows as a gap between the blocks that
// are listed, which the checks of the tiling report.
#pragma once

#include "findings.h"
#include "shared/shared_internal.h"

#include <string>
#include <vector>

struct HeapBlock {
    uint64_t offset;     // of the block header
    uint64_t size;       // header included; always inside the arena
    uint64_t chunkSize;  // as stored; may exceed the block in a damaged arena
    uint32_t references;
    bool allocated;
    bool named;
    bool sound;  // overlaps no block before it, and its chunk lies inside it
    std::string name;

    uint64_t data() const { return offset + sizeof(BlockHeader); }
};

// The blocks of both lists in ascending order of address, each once.
std::vector<HeapBlock> readHeap(const ArenaView &arena, Findings &findings);

// The blocks of the allocated list alone, whatever the free list is like; gaps between them are
// nothing wrong. A block without references is one that is just being freed: only its place counts.
std::vector<HeapBlock> readAllocated(const ArenaView &arena, Findings &findings);
