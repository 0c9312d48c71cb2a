// Chunks made, found, copied and freed in any order: the arena stays sound, by the judgement of the
// checker, which knows the format and not the library.

#include "check.h"
#include "fuzz_input.h"

#include <vector>

namespace {

struct Chunk {
    void *data;
    uint64_t size;
    uint8_t mark;  // what every byte of it was set to
};

void allocate(FuzzInput &input, FuzzArena &arena, std::vector<Chunk> &chunks) {
    static const char *const kNames[] = {nullptr, "", "a", "locks",
                                         "a-rather-long-name-of-a-chunk"};
    const char *name = kNames[input.below(5)];
    uint64_t size = input.take<uint16_t>();
    void *data = nullptr;
    uint32_t created = 0;
    if (AllocateSharedChunk(arena.get(), name, &size, &data, &created) != 0) return;
    if (created != 0) (void)ReleaseSharedMutex(arena.mutex());
    for (const Chunk &other : chunks) {
        if (other.data != data) continue;
        chunks.push_back(other);  // found by its name: one more reference
        return;
    }
    const auto mark = static_cast<uint8_t>(chunks.size() + 1);
    std::memset(data, mark, size);
    chunks.push_back({data, size, mark});
}

void checkAll(FuzzArena &arena, const std::vector<Chunk> &chunks) {
    for (const Chunk &chunk : chunks) {
        const auto *bytes = static_cast<const uint8_t *>(chunk.data);
        for (uint64_t i = 0; i < chunk.size; ++i)
            require(bytes[i] == chunk.mark, "a chunk's bytes are its owner's");
    }
    const std::string findings = checkArena({arena.bytes(), arena.length()});
    require(findings.empty(), findings.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzInput input(data, size);
    FuzzArena arena(16384);
    std::vector<Chunk> chunks;
    for (int step = 0; step < 200 && !input.empty(); ++step) {
        const uint32_t which = input.below(8);
        if (which < 5 || chunks.empty()) {
            allocate(input, arena, chunks);
        } else {
            const size_t victim = input.below(static_cast<uint32_t>(chunks.size()));
            require(FreeSharedChunk(arena.get(), chunks[victim].data) == 0, "a chunk can be freed");
            chunks.erase(chunks.begin() + static_cast<std::ptrdiff_t>(victim));
        }
        checkAll(arena, chunks);
    }
    return 0;
}
