// An arena whose bytes another process has scribbled on: attaching and every chunk operation end,
// with whatever result, and touch nothing outside the mapping.

#include "fuzz_input.h"

#include <vector>

namespace {

constexpr uint64_t kFirstUnlocked = 0x30;  // a damaged mutex may block for ever; all else must not

void damage(FuzzInput &input, FuzzArena &arena) {
    const uint64_t room = arena.length() - kFirstUnlocked - 8;
    const uint64_t place = kFirstUnlocked + input.take<uint16_t>() % room / 8 * 8;
    uint64_t value = input.take<uint16_t>();
    if (input.below(4) == 0) value = input.take<uint64_t>();
    std::memcpy(arena.bytes() + place, &value, sizeof value);
}

void operate(FuzzInput &input, SharedArena *arena, std::vector<void *> &chunks) {
    auto *mutex = static_cast<SharedMutex *>(arena->base);
    const uint32_t which = input.below(4);
    void *chunk = nullptr;
    if (which == 0 && !chunks.empty()) {
        const size_t victim = input.below(static_cast<uint32_t>(chunks.size()));
        (void)FreeSharedChunk(arena, chunks[victim]);
    } else if (which == 1 && !chunks.empty()) {
        int64_t delta = 0;
        const size_t source = input.below(static_cast<uint32_t>(chunks.size()));
        if (CopySharedChunk(arena, chunks[source], nullptr, &chunk, &delta) == 0) std::free(chunk);
    } else {
        uint64_t size = input.take<uint16_t>();
        uint32_t created = 0;
        const char *name = input.below(2) == 0 ? nullptr : "locks";
        if (AllocateSharedChunk(arena, name, &size, &chunk, &created) != 0) return;
        if (created != 0) (void)ReleaseSharedMutex(mutex);
        chunks.push_back(chunk);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzInput input(data, size);
    FuzzArena arena(8192);
    std::vector<void *> chunks;
    SharedArena *second = nullptr;
    for (int step = 0; step < 200 && !input.empty(); ++step) {
        switch (input.below(4)) {
        case 0:
            damage(input, arena);
            break;
        case 1:
            if (second == nullptr &&
                OpenSharedArena(FuzzArena::path().c_str(), 0, 0600, 8192, &second) != 0)
                second = nullptr;
            break;
        default:
            operate(input, arena.get(), chunks);
        }
    }
    if (second != nullptr) (void)CloseSharedArena(second);
    return 0;
}
