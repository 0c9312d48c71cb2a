// What the chunk allocator should do, said a second time in the simplest way: one vector of blocks
// in the order of addresses. Slow, and that is the point: nothing here resembles the lists in the
// arena.
#pragma once

#include "check.h"
#include "iosched/shared.h"

#include <algorithm>
#include <string>
#include <vector>

struct ModelBlock {
    uint64_t offset, size;
    uint32_t references;  // 0 = free
    uint64_t chunkSize;
    std::string name;  // "" when it has none
};

// Whether the checker found the block as the model has it.
inline bool isBlock(const HeapBlock &found, const ModelBlock &block) {
    const bool place = found.offset == block.offset && found.size == block.size;
    if (block.references == 0) return place && !found.allocated;
    return place && found.allocated && found.references == block.references &&
           found.chunkSize == block.chunkSize && found.name == block.name;
}

class ChunkModel {
public:
    explicit ChunkModel(uint64_t arenaBytes) : blocks_{{0x48, arenaBytes - 0x48, 0, 0, ""}} {}

    // The result code; the chunk's block in `offset`. An empty name stands for none.
    uint32_t allocate(const std::string &name, uint64_t &size, uint64_t &offset, bool &created) {
        created = false;
        for (ModelBlock &block : blocks_) {
            if (block.references == 0 || name.empty() || block.name != name) continue;
            ++block.references;
            size = block.chunkSize;
            offset = block.offset;
            return 0;
        }
        if (size == 0) return SHARED_ERR_NOTFOUND;
        if (size > blocks_.back().offset + blocks_.back().size) return SHARED_ERR_NOSPACE;
        const uint64_t bytes = 40 + size + (name.empty() ? 0 : name.size() + 1);
        const uint64_t needed = (bytes + 7) & ~uint64_t{7};
        auto place = blocks_.end();
        for (auto it = blocks_.begin(); it != blocks_.end(); ++it)
            if (it->references == 0 && it->size >= needed &&
                (place == blocks_.end() || it->size < place->size))
                place = it;
        if (place == blocks_.end()) return SHARED_ERR_NOSPACE;
        if (place->size - needed > 40) {
            const ModelBlock rest{place->offset + needed, place->size - needed, 0, 0, ""};
            place->size = needed;
            place = blocks_.insert(place + 1, rest) - 1;
        }
        *place = {place->offset, place->size, 1, size, name};
        offset = place->offset;
        created = true;
        return 0;
    }

    void release(uint64_t offset) {
        const auto it = std::find_if(blocks_.begin(), blocks_.end(),
                                     [&](const auto &block) { return block.offset == offset; });
        if (--it->references != 0) return;
        for (size_t i = 1; i < blocks_.size();) {
            if (blocks_[i - 1].references + blocks_[i].references == 0) {
                blocks_[i - 1].size += blocks_[i].size;
                blocks_.erase(blocks_.begin() + static_cast<std::ptrdiff_t>(i));
            } else {
                ++i;
            }
        }
    }

    const std::vector<ModelBlock> &blocks() const { return blocks_; }

private:
    std::vector<ModelBlock> blocks_;
};
