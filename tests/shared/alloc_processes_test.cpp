// Four processes allocate and free in one arena; between rounds nobody does, and it must be sound.
#include "iosched/shared.h"

#include "support/in_child.h"
#include "support/test_arena.h"

#include <cstring>
#include <random>

namespace {

constexpr int kProcesses = 4;
constexpr int kRounds = 12;
constexpr int kOperations = 3000;
constexpr uint32_t kNames = 40;

class SharedChunks : public TestArena {
protected:
    SharedChunks() { EXPECT_EQ(open(SHARED_ARENA_CREATE, 32768), 0u); }

    // One process's part of a round. What it still holds of the named chunks at the end stays.
    void work(uint32_t seed) {
        ASSERT_EQ(open(0), 0u);
        random_.seed(seed);
        for (int i = 0; i < kOperations; ++i) {
            if (held_.empty() || random_() % 5 < 3)
                take();
            else
                give(random_() % held_.size());
        }
        for (size_t i = held_.size(); i-- > 0;)
            if (held_[i].name == 0 || random_() % 2 == 0) give(i);
    }

    // Number 0 stands for no name. A chunk is filled with its number before the mutex is released.
    void take() {
        const auto number = static_cast<unsigned char>(random_() % (kNames + 1));
        const std::string name = "chunk " + std::to_string(number);
        void *chunk = nullptr;
        size = 1 + random_() % 900;
        result = AllocateSharedChunk(arena, number == 0 ? nullptr : name.c_str(), &size, &chunk,
                                     &created);
        if (result != 0) {
            EXPECT_EQ(result, static_cast<uint32_t>(SHARED_ERR_NOSPACE));
            return;
        }
        if (created == 1) {
            EXPECT_EQ(static_cast<char *>(chunk)[size - 1], 0);
            std::memset(chunk, number, size);
            EXPECT_EQ(ReleaseSharedMutex(static_cast<SharedMutex *>(arena->base)), 0u);
        }
        EXPECT_EQ(static_cast<unsigned char *>(chunk)[0], number);
        EXPECT_EQ(static_cast<unsigned char *>(chunk)[size - 1], number) << "seen half-made";
        held_.push_back({chunk, number});
    }

    void give(size_t which) {
        EXPECT_EQ(*static_cast<unsigned char *>(held_[which].chunk), held_[which].name);
        EXPECT_EQ(FreeSharedChunk(arena, held_[which].chunk), 0u);
        held_[which] = held_.back();
        held_.pop_back();
    }

    struct Held {
        void *chunk;
        unsigned char name;
    };
    std::vector<Held> held_;
    std::minstd_rand random_;
};

TEST_F(SharedChunks, StaySoundWhileFourProcessesAllocateAndFree) {
    for (uint32_t round = 0; round < kRounds; ++round) {
        pid_t workers[kProcesses];
        for (uint32_t i = 0; i < kProcesses; ++i) {
            std::fflush(nullptr);
            workers[i] = ::fork();
            if (workers[i] != 0) continue;
            work(round * kProcesses + i + 1);
            ::_exit(HasFailure() ? 1 : 0);
        }
        for (const pid_t worker : workers)
            EXPECT_EQ(waitForChild(worker), 0);
        ASSERT_EQ(fault(), "") << "after round " << round;
        EXPECT_EQ(field<uint32_t>(0x28), 0u) << "nobody holds the mutex";
    }
    for (const HeapBlock &block : blocks())
        for (uint32_t i = 0; block.allocated && i < block.references; ++i)
            EXPECT_EQ(FreeSharedChunk(arena, &field<char>(block.data())), 0u);
    EXPECT_EQ(blocks().at(0).size, 32768u - 72);
}

}  // namespace
