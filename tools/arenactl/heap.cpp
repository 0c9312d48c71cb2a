#include "heap.h"

#include <algorithm>
#include <cinttypes>
#include <string_view>
#include <unordered_map>

namespace {

constexpr uint64_t kHeaderBytes = sizeof(BlockHeader);

std::string blockAt(uint64_t offset, const char *field) {
    return printed("block at 0x%" PRIx64 ", %s", offset, field);
}

// Walks one list after the other and collects its blocks. One mark for every eight bytes of the
// arena ends a cycle and finds a block that is on both lists: it counts where it was met first, and
// the second list ends before it.
class HeapReader {
public:
    HeapReader(const ArenaView &arena, Findings &findings)
        : arena_(arena), findings_(findings), seen_(arena.size() / 8, false) {}

    void walk(uint64_t headField, bool allocated) {
        allocated_ = allocated;
        uint64_t linkField = headField;
        uint64_t previous = 0;
        while (const uint64_t offset = arena_.load<uint64_t>(linkField)) {
            if (!canFollow(offset, linkField)) return;
            seen_[offset / 8] = true;
            const auto block = arena_.load<BlockHeader>(offset);
            if (!allocated && offset < previous) {
                findings_.add("free-order", linkField, 8, placeOf(linkField),
                              printed("leads back to 0x%" PRIx64
                                      "; the free list ascends by address",
                                      offset));
            }
            addBlock(offset, block);
            previous = offset;
            linkField = offset;
        }
    }

    std::vector<HeapBlock> takeBlocks() {
        std::sort(blocks_.begin(), blocks_.end(),
                  [](const HeapBlock &a, const HeapBlock &b) { return a.offset < b.offset; });
        return std::move(blocks_);
    }

private:
    const char *listName() const { return allocated_ ? "allocated" : "free"; }

    std::string placeOf(uint64_t linkField) const {
        if (linkField < kHeapOffset) return printed("header, head of the %s list", listName());
        return blockAt(linkField, "next");
    }

    bool canFollow(uint64_t offset, uint64_t linkField) {
        const char *problem = nullptr;
        if (offset % 8 != 0)
            problem = "is not on an 8-byte boundary";
        else if (offset < kHeapOffset)
            problem = "lies in the arena header";
        else if (!arena_.holds(offset, kHeaderBytes))
            problem = "lies past the end of the arena";
        if (problem) {
            findings_.add("block-link", linkField, 8, placeOf(linkField),
                          printed("leads to 0x%" PRIx64 ", which %s", offset, problem));
            return false;
        }
        if (seen_[offset / 8]) {
            findings_.add("block-twice", linkField, 8, placeOf(linkField),
                          printed("leads to 0x%" PRIx64 ", a block met before: %s", offset,
                                  isOnOtherList(offset) ? "it is on the free and the allocated list"
                                                        : "the list runs in a circle"));
            return false;
        }
        return true;
    }

    bool isOnOtherList(uint64_t offset) const {
        return std::any_of(blocks_.begin(), blocks_.end(), [&](const HeapBlock &b) {
            return b.offset == offset && b.allocated != allocated_;
        });
    }

    void addBlock(uint64_t offset, const BlockHeader &header) {
        HeapBlock block{
            offset, header.blockSize, header.chunkSize, header.references, allocated_, false, true,
            {}};
        const uint64_t room = arena_.size() - offset;
        if (block.size % 8 != 0 || block.size < kMinBlockSize || block.size > room) {
            const char *problem = block.size > room     ? "more than the arena has left there"
                                  : block.size % 8 != 0 ? "not a multiple of 8"
                                                        : "too small to hold anything";
            findings_.add("block-size", offset + 0x10, 8, blockAt(offset, "block size"),
                          printed("%" PRIu64 " bytes: %s", block.size, problem));
            block.size = std::min(std::max(block.size, kHeaderBytes), room);
            block.sound = false;
        }
        blocks_.push_back(std::move(block));
    }

    const ArenaView &arena_;
    Findings &findings_;
    std::vector<bool> seen_;
    std::vector<HeapBlock> blocks_;
    bool allocated_ = false;
};

// A name stands right behind the chunk's data and ends inside the block.
bool readName(const ArenaView &arena, const BlockHeader &header, HeapBlock *block,
              Findings &findings) {
    const uint64_t begin = block->data() + header.chunkSize;
    const uint64_t end = block->offset + block->size;
    if (header.name != begin) {
        findings.add("name-place", block->offset + 8, 8, blockAt(block->offset, "name"),
                     printed("0x%" PRIx64 ", but a name stands behind the data, at 0x%" PRIx64,
                             header.name, begin));
        return false;
    }
    const std::string_view rest(arena.text(begin), end - begin);
    const size_t length = rest.find('\0');
    if (length == rest.npos) {
        findings.add("name-end", begin, end - begin, blockAt(block->offset, "name"),
                     "does not end inside its block");
        return false;
    }
    block->named = true;
    block->name = rest.substr(0, length);
    return true;
}

void readChunk(const ArenaView &arena, HeapBlock *block, Findings &findings) {
    const auto header = arena.load<BlockHeader>(block->offset);
    const uint64_t offset = block->offset;
    const uint64_t room = block->size - kHeaderBytes;
    if (header.references == 0) {
        findings.add("references", offset + 0x20, 4, blockAt(offset, "reference count"),
                     "0 on an allocated block; the last free returns a block to the heap");
    }
    if (header.chunkSize == 0 || header.chunkSize > room) {
        findings.add("chunk-size", offset + 0x18, 8, blockAt(offset, "chunk size"),
                     printed("%" PRIu64 " bytes, where the block has room for 1 to %" PRIu64,
                             header.chunkSize, room));
        block->sound = false;
        return;
    }
    uint64_t used = header.chunkSize;
    if (header.name != 0) {
        if (!readName(arena, header, block, findings)) return;
        used += block->name.size() + 1;
    }
    const uint64_t needed = kHeaderBytes + ((used + 7) & ~uint64_t{7});
    if (block->sound && block->size > needed + kHeaderBytes) {
        findings.add("block-surplus", offset + 0x10, 8, blockAt(offset, "block size"),
                     printed("%" PRIu64 " bytes for contents of %" PRIu64
                             "; so much surplus would have been split off",
                             block->size, needed));
    }
}

// Blocks by address do not overlap. Only the first of two that do is read as a chunk.
void checkOverlaps(std::vector<HeapBlock> &blocks, Findings &findings) {
    uint64_t covered = kHeapOffset;
    uint64_t before = 0;
    for (HeapBlock &block : blocks) {
        if (block.offset < covered) {
            block.sound = false;
            findings.add("heap-overlap", block.offset, covered - block.offset, "heap",
                         printed("the block at 0x%" PRIx64
                                 " overlaps the one before it, at 0x%" PRIx64,
                                 block.offset, before));
        }
        covered = std::max(covered, block.offset + block.size);
        before = block.offset;
    }
}

// The blocks of both lists follow one another without a gap from the header to the end of the file.
void checkTiling(const ArenaView &arena, const std::vector<HeapBlock> &blocks, Findings &findings) {
    uint64_t expected = kHeapOffset;
    const HeapBlock *before = nullptr;
    for (const HeapBlock &block : blocks) {
        if (block.offset > expected) {
            findings.add("heap-gap", expected, block.offset - expected, "heap",
                         printed("%" PRIu64 " bytes belong to no block of either list",
                                 block.offset - expected));
        } else if (block.offset == expected && before && !before->allocated && !block.allocated) {
            findings.add("free-neighbours", block.offset, kHeaderBytes,
                         blockAt(block.offset, "a free block"),
                         printed("touches the free block at 0x%" PRIx64
                                 "; free neighbours are merged",
                                 before->offset));
        }
        expected = std::max(expected, block.offset + block.size);
        before = &block;
    }
    if (expected < arena.size()) {
        findings.add("heap-gap", expected, arena.size() - expected, "heap",
                     printed("the last %" PRIu64 " bytes belong to no block of either list",
                             arena.size() - expected));
    }
}

void checkNames(const std::vector<HeapBlock> &blocks, Findings &findings) {
    std::unordered_map<std::string_view, uint64_t> places;
    for (const HeapBlock &block : blocks) {
        if (!block.named) continue;
        const auto [place, isNew] = places.emplace(block.name, block.offset);
        if (isNew) continue;
        findings.add("name-twice", block.data() + block.chunkSize, block.name.size() + 1,
                     blockAt(block.offset, "name"),
                     printed("%s is also the name of the chunk at 0x%" PRIx64,
                             quoted(block.name).c_str(), place->second));
    }
}

}  // namespace

std::vector<HeapBlock> readHeap(const ArenaView &arena, Findings &findings) {
    findings.guardedBy(0);
    HeapReader reader(arena, findings);
    reader.walk(offsetof(ArenaHeader, freeList), false);
    reader.walk(offsetof(ArenaHeader, allocatedList), true);
    std::vector<HeapBlock> blocks = reader.takeBlocks();
    checkOverlaps(blocks, findings);
    checkTiling(arena, blocks, findings);
    // Chunks are read where blocks do not overlap, so that no input makes this read the same bytes
    // once for every block.
    for (HeapBlock &block : blocks) {
        if (block.allocated && block.sound) readChunk(arena, &block, findings);
    }
    checkNames(blocks, findings);
    return blocks;
}

std::vector<HeapBlock> readAllocated(const ArenaView &arena, Findings &findings) {
    findings.guardedBy(0);
    HeapReader reader(arena, findings);
    reader.walk(offsetof(ArenaHeader, allocatedList), true);
    std::vector<HeapBlock> blocks = reader.takeBlocks();
    checkOverlaps(blocks, findings);
    for (HeapBlock &block : blocks) {
        if (block.sound && block.references != 0) readChunk(arena, &block, findings);
    }
    checkNames(blocks, findings);
    return blocks;
}
