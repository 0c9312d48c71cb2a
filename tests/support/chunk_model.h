// What the chunk allocator should do, said a second time in the simplest way.
//
// One vector of blocks in address order, another with the allocated ones, newest first. Slow, and
// that is the point: nothing here resembles the lists in the arena.
#pragma once

#include "support/arena_check.h"

#include "iosched/shared.h"

class ChunkModel {
public:
    explicit ChunkModel(uint64_t arenaBytes) {
        free_.push_back({0x48, arenaBytes - 0x48, 0, 0, ""});
    }

    // The result code; the chunk's block in `offset`. An empty name stands for none.
    uint32_t allocate(const std::string &name, uint64_t &size, uint64_t &offset, bool &created) {
        created = false;
        for (ArenaBlock &block : allocated_) {
            if (name.empty() || block.name != name) continue;
            ++block.references;
            size = block.chunkSize;
            offset = block.offset;
            return 0;
        }
        if (size == 0) return SHARED_ERR_NOTFOUND;
        const uint64_t bytes = 40 + size + (name.empty() ? 0 : name.size() + 1);
        const uint64_t needed = (bytes + 7) & ~uint64_t{7};
        const auto place = choose(needed);
        if (place == free_.end()) return SHARED_ERR_NOSPACE;
        ArenaBlock block{place->offset, place->size, size, 1, name};
        if (place->size - needed > 40) {
            block.size = needed;
            place->offset += needed;
            place->size -= needed;
        } else {
            free_.erase(place);
        }
        allocated_.insert(allocated_.begin(), block);
        offset = block.offset;
        created = true;
        return 0;
    }

    void release(uint64_t offset) {
        const auto it = std::find_if(allocated_.begin(), allocated_.end(),
                                     [&](const auto &block) { return block.offset == offset; });
        if (--it->references != 0) return;
        free_.push_back({it->offset, it->size, 0, 0, ""});
        allocated_.erase(it);
        std::sort(free_.begin(), free_.end(),
                  [](const auto &a, const auto &b) { return a.offset < b.offset; });
        for (size_t i = 1; i < free_.size();) {
            if (free_[i - 1].offset + free_[i - 1].size == free_[i].offset) {
                free_[i - 1].size += free_[i].size;
                free_.erase(free_.begin() + static_cast<std::ptrdiff_t>(i));
            } else {
                ++i;
            }
        }
    }

    const std::vector<ArenaBlock> &freeBlocks() const { return free_; }
    const std::vector<ArenaBlock> &allocatedBlocks() const { return allocated_; }

private:
    std::vector<ArenaBlock>::iterator choose(uint64_t needed) {
        auto best = free_.end();
        for (auto it = free_.begin(); it != free_.end(); ++it)
            if (it->size >= needed && (best == free_.end() || it->size < best->size)) best = it;
        return best;
    }

    std::vector<ArenaBlock> free_;
    std::vector<ArenaBlock> allocated_;
};
