// A fresh arena for one test, and short forms of the calls on it.
#pragma once

#include "check.h"
#include "iosched/shared.h"
#include "support/chunk_model.h"
#include "support/scratch_dir.h"

class TestArena : public ::testing::Test {
protected:
    static constexpr uint32_t kSystemError = SCHED_ERR_SYSTEM;
    static constexpr uint32_t kBusy = SHARED_ERR_BUSY;

    ~TestArena() override {
        if (arena != nullptr) CloseSharedArena(arena);
    }

    uint32_t open(int flags, uint64_t bytes = 4096) {
        return OpenSharedArena(path.c_str(), flags, 0600, bytes, &arena);
    }
    void close() { EXPECT_EQ(CloseSharedArena(std::exchange(arena, nullptr)), 0u); }
    uint32_t remove() const { return DeleteSharedArena(path.c_str()); }

    // A new or existing chunk, with the header mutex free again.
    void *allocate(const char *name, uint64_t bytes) {
        void *chunk = nullptr;
        size = bytes;
        result = AllocateSharedChunk(arena, name, &size, &chunk, &created);
        EXPECT_EQ(field<uint32_t>(0) != 0, result == 0 && created == 1) << "held when created";
        if (field<uint32_t>(0) != 0) {
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

    std::span<const std::byte> bytes() const {
        return {static_cast<const std::byte *>(arena->base), arena->mapLength};
    }
    // What the checker finds wrong with it, "" when it is sound.
    std::string fault() const { return checkArena(bytes()); }
    std::vector<HeapBlock> blocks() const { return readArena(bytes()).blocks; }
    bool holds(const std::vector<ModelBlock> &expected) const {
        const std::vector<HeapBlock> found = blocks();
        return std::equal(found.begin(), found.end(), expected.begin(), expected.end(), isBlock);
    }

    ScratchDir dir;
    std::string path = dir / "arena";
    SharedArena *arena = nullptr;
    uint64_t size = 0;
    uint32_t created = 0;
    uint32_t result = 0;  // of the last allocate()
};
