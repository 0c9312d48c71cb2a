// Reads an arena's bytes and checks that they make sense, by the format alone.
//
// Written apart from the library: own constants, plain byte reads, so that a mistake there does not
// hide here. To be called while no process changes the arena.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

struct ArenaBlock {
    uint64_t offset;
    uint64_t size;
    uint64_t chunkSize = 0;
    uint32_t references = 0;
    std::string name;  // "" when it has none

    bool operator==(const ArenaBlock &) const = default;
};

struct ArenaContents {
    std::vector<ArenaBlock> freeBlocks;       // in the order of the list
    std::vector<ArenaBlock> allocatedBlocks;  // likewise
    std::string fault;                        // "" when the arena is sound
};

class ArenaReader {
public:
    ArenaReader(const void *bytes, uint64_t length)
        : bytes_(static_cast<const char *>(bytes)), length_(length) {}

    ArenaContents read() {
        if (length_ % 4096 != 0 || length_ == 0) return failed("the size is not whole pages");
        if (at<uint32_t>(0x30) != 0x51317093) return failed("no magic");
        if (at<uint32_t>(0x34) != 1) return failed("wrong version");
        if (!walk(at<uint64_t>(0x38), contents_.freeBlocks, false)) return contents_;
        if (!walk(at<uint64_t>(0x40), contents_.allocatedBlocks, true)) return contents_;
        checkFreeList();
        checkNames();
        checkTiling();
        return contents_;
    }

private:
    template <class T>
    T at(uint64_t offset) const {
        T value;
        std::memcpy(&value, bytes_ + offset, sizeof value);
        return value;
    }

    ArenaContents failed(const std::string &why) {
        if (contents_.fault.empty()) contents_.fault = why;
        return contents_;
    }

    bool walk(uint64_t offset, std::vector<ArenaBlock> &list, bool allocated) {
        for (; offset != 0; offset = at<uint64_t>(offset)) {
            if (list.size() > length_ / 48) return failed("a list goes round"), false;
            if (offset % 8 != 0 || offset < 0x48 || offset > length_ - 48)
                return failed("a link leads nowhere"), false;
            ArenaBlock block{offset, at<uint64_t>(offset + 0x10), 0, 0, ""};
            if (block.size < 48 || block.size % 8 != 0 || block.size > length_ - offset)
                return failed("a block size is wrong"), false;
            if (allocated && !readChunk(block)) return false;
            list.push_back(block);
        }
        return true;
    }

    bool readChunk(ArenaBlock &block) {
        const uint64_t name = at<uint64_t>(block.offset + 0x08);
        block.chunkSize = at<uint64_t>(block.offset + 0x18);
        block.references = at<uint32_t>(block.offset + 0x20);
        if (block.references == 0) return failed("an allocated block without references"), false;
        if (block.chunkSize > block.size - 40)
            return failed("a chunk larger than its block"), false;
        if (name == 0) return true;
        const uint64_t end = block.offset + block.size;
        if (name != block.offset + 40 + block.chunkSize || name >= end)
            return failed("a name out of place"), false;
        block.name.assign(bytes_ + name, ::strnlen(bytes_ + name, end - name));
        if (name + block.name.size() == end) return failed("a name without end"), false;
        return true;
    }

    void checkFreeList() {
        const auto &list = contents_.freeBlocks;
        for (size_t i = 1; i < list.size(); ++i) {
            const uint64_t end = list[i - 1].offset + list[i - 1].size;
            if (end == list[i].offset) failed("two free neighbours");
            if (end > list[i].offset) failed("the free list is out of order");
        }
    }

    void checkNames() {
        std::set<std::string> names;
        for (const ArenaBlock &block : contents_.allocatedBlocks)
            if (!block.name.empty() && !names.insert(block.name).second)
                failed("the name " + block.name + " twice");
    }

    void checkTiling() {
        std::vector<ArenaBlock> all = contents_.freeBlocks;
        all.insert(all.end(), contents_.allocatedBlocks.begin(), contents_.allocatedBlocks.end());
        std::sort(all.begin(), all.end(),
                  [](const auto &a, const auto &b) { return a.offset < b.offset; });
        uint64_t end = 0x48;
        for (const ArenaBlock &block : all) {
            if (block.offset != end) failed("a gap or an overlap before " + std::to_string(end));
            end = block.offset + block.size;
        }
        if (end != length_) failed("the blocks do not fill the heap");
    }

    const char *bytes_;
    uint64_t length_;
    ArenaContents contents_;
};

inline ArenaContents readArena(const void *bytes, uint64_t length) {
    return ArenaReader(bytes, length).read();
}
