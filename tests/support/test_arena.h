// A fresh arena for one test, and short forms of the calls on it.
#pragma once

#include "iosched/shared.h"
#include "support/arena_check.h"
#include "support/scratch_dir.h"

class TestArena : public ::testing::Test {
protected:
    static constexpr uint32_t kSystemError = SCHED_ERR_SYSTEM;

    ~TestArena() override {
        if (arena != nullptr) CloseSharedArena(arena);
    }

    uint32_t open(int flags, uint64_t bytes = 4096) {
        return OpenSharedArena(path.c_str(), flags, 0600, bytes, &arena);
    }

    // A new or existing chunk, with the header mutex free again.
    void *allocate(const char *name, uint64_t bytes) {
        void *chunk = nullptr;
        size = bytes;
        result = AllocateSharedChunk(arena, name, &size, &chunk, &created);
        if (result == 0 && created == 1) {
            EXPECT_EQ(ReleaseSharedMutex(static_cast<SharedMutex *>(arena->base)), 0u);
        }
        return chunk;
    }

    uint64_t offsetOf(const void *chunk) const {
        return static_cast<uint64_t>(static_cast<const char *>(chunk) -
                                     static_cast<const char *>(arena->base));
    }

    // A field of the arena, to be looked at or damaged.
    template <class T = uint64_t>
    T &field(uint64_t offset) {
        return *reinterpret_cast<T *>(static_cast<char *>(arena->base) + offset);
    }

    ArenaContents contents() const { return readArena(arena->base, arena->mapLength); }

    ScratchDir dir;
    std::string path = dir / "arena";
    SharedArena *arena = nullptr;
    uint64_t size = 0;
    uint32_t created = 0;
    uint32_t result = 0;  // of the last allocate()
};
