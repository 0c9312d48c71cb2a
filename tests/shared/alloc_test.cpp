#include "iosched/shared.h"

#include "iosched/sched.h"
#include "support/chunk_model.h"
#include "support/in_child.h"
#include "support/test_arena.h"

#include <cstdarg>
#include <cstring>
#include <random>

namespace {

class Chunks : public TestArena {
protected:
    Chunks() { EXPECT_EQ(open(SHARED_ARENA_CREATE), 0u); }

    // On the arena and on the model.
    void allocateBoth(const std::string &name, uint64_t wanted) {
        uint64_t modelSize = wanted, modelOffset = 0;
        bool modelCreated = false;
        const uint32_t expected = model.allocate(name, modelSize, modelOffset, modelCreated);
        void *chunk = allocate(name.empty() ? nullptr : name.c_str(), wanted);
        ASSERT_EQ(result, expected) << wanted;
        ASSERT_EQ(created == 1, modelCreated);
        ASSERT_EQ(size, modelSize);
        if (expected != 0) return;
        ASSERT_EQ(offsetOf(chunk), modelOffset + 40);
        auto *data = static_cast<char *>(chunk);
        ASSERT_TRUE(
            std::all_of(data, data + size, [&](char c) { return c == (created ? 0 : 'x'); }));
        if (created == 1) {
            ASSERT_EQ(field(0x40), modelOffset) << "the newest is first";
        }
        std::memset(data, 'x', size);
        held.push_back(chunk);
    }
    void freeBoth(size_t which) {
        void *chunk = held[which];
        model.release(offsetOf(chunk) - 40);
        ASSERT_EQ(FreeSharedChunk(arena, chunk), 0u);
        held.erase(held.begin() + static_cast<std::ptrdiff_t>(which));
    }
    void compare() {
        ASSERT_EQ(fault(), "");
        ASSERT_TRUE(holds(model.blocks()));
    }

    ChunkModel model{4096};
    std::vector<void *> held;
};

TEST_F(Chunks, SizesAtTheEdgesOfTheHeapAndOfTheNumbers) {
    for (const std::string name : {"", "four"})
        for (const uint64_t bytes :
             {3936ul, 3937ul, 3944ul, 3979ul, 3980ul, 3984ul, 3985ul, 4096ul, 4097ul, 1ul << 63,
              UINT64_MAX - 48, UINT64_MAX - 47, UINT64_MAX - 46, UINT64_MAX - 7, UINT64_MAX}) {
            allocateBoth(name, bytes);
            compare();
            if (!held.empty()) freeBoth(0);
            ASSERT_FALSE(HasFatalFailure()) << name << " " << bytes;
        }
    allocateBoth(std::string(5000, 'n'), 8);
    EXPECT_TRUE(held.empty());
}

TEST_F(Chunks, AChunkOnNoListEndsWithoutNameAndReferences) {
    void *lost = allocate("lost", 64);
    const uint64_t block = offsetOf(lost) - 40;
    field(0x40) = 0;  // the allocated list forgets it
    const uint64_t freeHead = field(0x38);
    EXPECT_EQ(FreeSharedChunk(arena, lost), uint32_t{SHARED_ERR_CORRUPT});
    EXPECT_EQ(field(block + 0x08), 0u);
    EXPECT_EQ(field<uint32_t>(block + 0x20), 0u);
    EXPECT_EQ(field(0x38), freeHead);
    EXPECT_EQ(field(0x40), 0u);
    EXPECT_NE(allocate("lost", 64), nullptr) << "the mutex is free";
}

TEST_F(Chunks, AddressesThatAreNoChunkAreRefused) {
    auto *chunk = static_cast<char *>(allocate("chunk", 64));
    auto *freed = static_cast<char *>(allocate(nullptr, 64));
    EXPECT_EQ(FreeSharedChunk(arena, freed), 0u);
    const std::string before(static_cast<char *>(arena->base), arena->mapLength);
    char elsewhere = 0;
    char *base = static_cast<char *>(arena->base);
    for (char *wrong : {base, base + 0x48, chunk + 1, chunk + 4, freed, base + 4096,
                        base + (1 << 20), base - 4096, &elsewhere, static_cast<char *>(nullptr)}) {
        EXPECT_EQ(FreeSharedChunk(arena, wrong), uint32_t{SHARED_ERR_CORRUPT});
        int64_t delta = 7;
        void *copy = &elsewhere;
        if (wrong == freed) continue;
        EXPECT_EQ(CopySharedChunk(arena, wrong, nullptr, &copy, &delta),
                  uint32_t{SHARED_ERR_CORRUPT});
        EXPECT_EQ(copy, nullptr);
        EXPECT_EQ(delta, 0);
    }
    EXPECT_EQ(std::memcmp(before.data(), arena->base, before.size()), 0);
}

// A chunk "a", a hole, a chunk "b", and the rest free; then one field is overwritten. What becomes
// of looking up "absent", of finding "b", of making a chunk, of freeing a, and then b: c is
// corrupt, n not found, 0 done.
TEST_F(Chunks, DamagedListsAreReportedAndNotFollowed) {
    constexpr uint64_t a = 0x48, hole = a + 112, b = hole + 104, rest = b + 112;
    constexpr uint64_t kNext = 0, kName = 8, kSize = 16, kChunkSize = 24;
    const struct {
        const char *what;
        uint64_t place, value;
        const char *outcome;
    } rows[] = {
        {"nothing", 0x30, 0x151317093, "n0000"},
        {"free head misaligned", 0x38, hole + 4, "n0ccc"},
        {"free head in the header", 0x38, 0x40, "n0ccc"},
        {"free head at the end", 0x38, 4096, "n0ccc"},
        {"free head far outside", 0x38, UINT64_MAX - 7, "n0ccc"},
        {"allocated head outside", 0x40, 1 << 20, "ccccc"},
        {"allocated head misaligned", 0x40, a + 1, "ccccc"},
        {"the free list goes round", rest + kNext, hole, "n0c00"},
        {"a free block follows itself", hole + kNext, hole, "n0c00"},
        {"the free list is out of order", hole + kNext, a, "n0c00"},
        {"the allocated list goes round", a + kNext, b, "c0c00"},
        {"an allocated block follows itself", b + kNext, b, "c0cc0"},
        {"free block size 0", rest + kSize, 0, "n0c0c"},
        {"free block size below a block's", rest + kSize, 40, "n0c0c"},
        {"free block size beyond the end", rest + kSize, 8192, "n0c0c"},
        {"free block size just beyond the end", rest + kSize, 4096 - rest + 8, "n0c0c"},
        {"free block size wraps", rest + kSize, UINT64_MAX - 7, "n0c0c"},
        {"free block size odd", rest + kSize, 49, "n0c0c"},
        {"a free block reaches into the next", hole + kSize, 104 + 112 + 8, "n0c0c"},
        {"a free block reaches into a chunk", hole + kSize, 112, "n000c"},
        {"allocated block size beyond the end", b + kSize, 1 << 20, "ccccc"},
        {"a chunk as large as its block lets it", b + kChunkSize, 72, "n0000"},
        {"a chunk larger than its block", b + kChunkSize, 73, "nc00c"},
        {"a name in the header", b + kName, 0x30, "ccc00"},
        {"a name in the next block", b + kName, rest, "ccc00"},
        {"a name far outside", b + kName, UINT64_MAX - 3, "ccc00"},
        {"a name without end", b + 104, UINT64_MAX, "nn000"},
    };
    for (const auto &row : rows) {
        EXPECT_CHILD_OK([&] {
            auto *first = allocate("a", 64);
            auto *middle = allocate(nullptr, 64);
            auto *second = allocate("b", 64);
            EXPECT_EQ(FreeSharedChunk(arena, middle), 0u);
            ASSERT_EQ(offsetOf(second) - 40, b);
            field(row.place) = row.value;

            std::string outcome;
            const auto note = [&outcome](uint32_t code) {
                outcome += code == SHARED_ERR_CORRUPT    ? 'c'
                           : code == SHARED_ERR_NOTFOUND ? 'n'
                           : code == 0                   ? '0'
                                                         : '?';
            };
            (void)allocate("absent", 0);
            note(result);
            void *found = allocate("b", 0);
            note(result);
            if (found != nullptr) {
                EXPECT_EQ(FreeSharedChunk(arena, found), 0u);
            }
            (void)allocate("new", 2000);
            note(result);
            note(FreeSharedChunk(arena, first));
            note(FreeSharedChunk(arena, second));
            EXPECT_EQ(outcome, row.outcome) << row.what;
        });
        close();
        ASSERT_EQ(open(SHARED_ARENA_CREATE), 0u);
    }
}

TEST_F(Chunks, ACopyIsPrivateAndItsDeltaLeadsFromOffsetsToAddresses) {
    auto *chunk = static_cast<char *>(allocate("source", 100));
    std::strcpy(chunk + 50, "inside");
    SharedMutex mutex;
    ASSERT_EQ(InitializeSharedMutex(&mutex), 0u);
    void *copy = nullptr;
    int64_t delta = 0;
    for (SharedMutex *guard : {&mutex, static_cast<SharedMutex *>(nullptr)}) {
        ASSERT_EQ(CopySharedChunk(arena, chunk, guard, &copy, guard ? &delta : nullptr), 0u);
        EXPECT_EQ(mutex.mutex.__data.__lock, 0) << "released after the copy";
        EXPECT_NE(copy, chunk);
        EXPECT_EQ(std::memcmp(copy, chunk, 100), 0);
        if (guard != nullptr) {
            EXPECT_EQ(static_cast<uint64_t>(delta) + offsetOf(chunk),
                      reinterpret_cast<uintptr_t>(copy));
        }
        std::free(copy);
    }
}

std::string traced;

void trace(const char *file, int line, const char *function, int category, const char *format,
           ...) {
    EXPECT_NE(std::strstr(file, "alloc.cpp"), nullptr);
    EXPECT_GT(line, 0);
    EXPECT_EQ(category, SCHED_TRACE_CHUNKS);
    char text[100];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    traced += std::string(function) + " " + text;
}

TEST_F(Chunks, TheTraceTellsNamesAndReferences) {
    SetSchedTraceCallback(trace, SCHED_TRACE_CHUNKS);
    void *named = allocate("table", 8);
    (void)allocate("table", 0);
    void *anonymous = allocate(nullptr, 8);
    (void)allocate("absent", 0);
    (void)FreeSharedChunk(arena, named);
    (void)FreeSharedChunk(arena, named);
    (void)FreeSharedChunk(arena, anonymous);
    SetSchedTraceCallback(trace, SCHED_TRACE_LOOP);
    (void)allocate("silent", 8);
    EXPECT_EQ(traced, "AllocateSharedChunk AllocateSharedChunk(table): refs=1\n"
                      "AllocateSharedChunk AllocateSharedChunk(table): refs=2\n"
                      "AllocateSharedChunk AllocateSharedChunk(?): refs=1\n"
                      "FreeSharedChunk FreeSharedChunk(table): refs=1\n"
                      "FreeSharedChunk FreeSharedChunk(table): refs=0\n"
                      "FreeSharedChunk FreeSharedChunk(?): refs=0\n");
}

TEST_F(Chunks, AHundredThousandOperationsComeOutAsInTheModel) {
    constexpr uint64_t kBytes = 64 * 1024;
    close();
    ASSERT_EQ(open(SHARED_ARENA_CREATE, kBytes), 0u);
    model = ChunkModel(kBytes);
    std::mt19937_64 random{20260101};
    const auto pick = [&random](uint64_t below) { return random() % below; };
    for (int step = 0; step < 100000; ++step) {
        // Rising and falling: from nearly empty to more than full and back.
        const uint64_t chance = (step / 2000) % 2 == 0 ? 60 : 40;
        if (held.empty() || pick(100) < chance) {
            const std::string name = (pick(9) == 0 ? "Chunk" : "chunk") + std::to_string(pick(200));
            const uint64_t bytes = pick(10) == 0 ? 0 : pick(20) == 0 ? pick(20000) : pick(600);
            allocateBoth(pick(3) == 0 ? "" : name, bytes);
        } else {
            freeBoth(pick(held.size()));
        }
        if (step % 16 == 0) compare();
        if (HasFatalFailure()) FAIL() << "at step " << step;
    }
    while (!held.empty())
        freeBoth(0);
    compare();
    EXPECT_EQ(model.blocks().size(), 1u);
}

}  // namespace
