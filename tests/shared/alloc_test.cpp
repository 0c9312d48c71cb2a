#include "iosched/shared.h"

#include "iosched/sched.h"
#include "support/chunk_model.h"
#include "support/in_child.h"
#include "support/test_arena.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <gtest/gtest.h>
#include <random>

namespace {

class Chunks : public TestArena {
protected:
    Chunks() { EXPECT_EQ(open(SHARED_ARENA_CREATE), 0u); }

    void expectOneFreeBlock() {
        const ArenaContents now = contents();
        EXPECT_EQ(now.fault, "");
        ASSERT_EQ(now.freeBlocks.size(), 1u);
        EXPECT_EQ(now.freeBlocks[0].size, arena->mapLength - 72);
    }
};

TEST_F(Chunks, AnExactFitTakesTheLastBlock) {
    ASSERT_NE(allocate(nullptr, 3984), nullptr);
    EXPECT_TRUE(contents().freeBlocks.empty());
    (void)allocate(nullptr, 1);
    EXPECT_EQ(result, static_cast<uint32_t>(SHARED_ERR_NOSPACE));
}

TEST_F(Chunks, ARestNoLargerThanAHeaderStaysWithTheBlock) {
    void *chunk = allocate(nullptr, 3944);
    ASSERT_NE(chunk, nullptr);
    EXPECT_EQ(contents().allocatedBlocks[0].size, 4024u);
    EXPECT_EQ(FreeSharedChunk(arena, chunk), 0u);
    ASSERT_NE(allocate(nullptr, 3936), nullptr);
    EXPECT_EQ(contents().fault, "");
    EXPECT_EQ(contents().freeBlocks.at(0).size, 48u);
}

TEST_F(Chunks, TheSmallestBlockThatFitsIsTakenTheFirstOfItsSize) {
    void *holes[4], *walls[4];
    const uint64_t sizes[] = {400, 200, 200, 120};
    for (int i = 0; i < 4; ++i) {
        holes[i] = allocate(nullptr, sizes[i]);
        walls[i] = allocate(nullptr, 8);
    }
    for (void *hole : holes)
        EXPECT_EQ(FreeSharedChunk(arena, hole), 0u);
    EXPECT_EQ(allocate(nullptr, 192), holes[1]) << "8 bytes too large beats 208 too large";
    EXPECT_EQ(allocate(nullptr, 400), holes[0]) << "exact";
    EXPECT_EQ(allocate(nullptr, 200), holes[2]) << "exact behind larger ones";
    EXPECT_EQ(contents().fault, "");
    EXPECT_NE(walls[3], nullptr);
}

TEST_F(Chunks, ANameTakesRoomBehindTheData) {
    void *chunk = allocate("12345", 10);
    ASSERT_NE(chunk, nullptr);
    EXPECT_EQ(contents().allocatedBlocks[0].size, 56u);
    EXPECT_STREQ(static_cast<char *>(chunk) + 10, "12345");
}

TEST_F(Chunks, TheSecondCallerOfANameGetsTheSameChunkUntouched) {
    void *chunk = allocate("table", 100);
    EXPECT_EQ(created, 1u);
    std::memset(chunk, 'x', 100);
    EXPECT_EQ(allocate("table", 5000), chunk);
    EXPECT_EQ(created, 0u);
    EXPECT_EQ(size, 100u);
    EXPECT_EQ(static_cast<char *>(chunk)[99], 'x');
    EXPECT_EQ(contents().allocatedBlocks[0].references, 2u);
    EXPECT_EQ(allocate("Table", 0), nullptr) << "names differ by case";

    EXPECT_EQ(FreeSharedChunk(arena, chunk), 0u);
    EXPECT_EQ(allocate("table", 0), chunk) << "one reference keeps it";
    EXPECT_EQ(FreeSharedChunk(arena, chunk), 0u);
    EXPECT_EQ(FreeSharedChunk(arena, chunk), 0u);
    EXPECT_EQ(allocate("table", 0), nullptr);
    EXPECT_EQ(result, static_cast<uint32_t>(SHARED_ERR_NOTFOUND));
    expectOneFreeBlock();
}

TEST_F(Chunks, ANewChunkIsZeroAndComesWithTheMutexHeld) {
    void *chunk = allocate(nullptr, 500);
    std::memset(chunk, 'x', 500);
    EXPECT_EQ(FreeSharedChunk(arena, chunk), 0u);
    size = 500;
    created = 7;
    ASSERT_EQ(AllocateSharedChunk(arena, "held", &size, &chunk, &created), 0u);
    EXPECT_EQ(std::string(static_cast<char *>(chunk), 500), std::string(500, '\0'));
    auto *mutex = static_cast<SharedMutex *>(arena->base);
    EXPECT_EQ(pthread_mutex_trylock(&mutex->mutex), EBUSY);
    EXPECT_EQ(ReleaseSharedMutex(mutex), 0u);
    for (const char *name : {"held", "absent"}) {
        (void)allocate(name, 0);
        EXPECT_EQ(pthread_mutex_trylock(&mutex->mutex), 0) << "released where nothing was created";
        pthread_mutex_unlock(&mutex->mutex);
    }
}

TEST_F(Chunks, SizesNearTheEndOfTheNumbersFindNoSpace) {
    for (const uint64_t huge : {UINT64_MAX, UINT64_MAX - 7, UINT64_MAX - 46, UINT64_MAX - 47,
                                UINT64_MAX - 48, uint64_t{1} << 63, uint64_t{4025}}) {
        EXPECT_EQ(allocate("name", huge), nullptr);
        EXPECT_EQ(result, static_cast<uint32_t>(SHARED_ERR_NOSPACE));
        EXPECT_EQ(size, huge);
    }
    const std::string longName(5000, 'n');
    EXPECT_EQ(allocate(longName.c_str(), 8), nullptr);
    EXPECT_EQ(result, static_cast<uint32_t>(SHARED_ERR_NOSPACE));
    expectOneFreeBlock();
}

TEST_F(Chunks, FreedNeighboursMergeInAnyOrder) {
    int order[] = {0, 1, 2};
    do {
        void *chunks[3];
        for (void *&chunk : chunks)
            chunk = allocate(nullptr, 64);
        for (const int which : order) {
            EXPECT_EQ(FreeSharedChunk(arena, chunks[which]), 0u);
            EXPECT_EQ(contents().fault, "");
        }
        expectOneFreeBlock();
    } while (std::next_permutation(std::begin(order), std::end(order)));
}

TEST_F(Chunks, AChunkOnNoListEndsWithoutNameAndReferences) {
    void *lost = allocate("lost", 64);
    const uint64_t block = offsetOf(lost) - 40;
    field(0x40) = 0;  // the allocated list forgets it
    const uint64_t freeHead = field(0x38);
    EXPECT_EQ(FreeSharedChunk(arena, lost), static_cast<uint32_t>(SHARED_ERR_CORRUPT));
    EXPECT_EQ(field(block + 0x08), 0u);
    EXPECT_EQ(field<uint32_t>(block + 0x20), 0u);
    EXPECT_EQ(field(0x38), freeHead);
    EXPECT_EQ(field(0x40), 0u);
    EXPECT_NE(allocate("lost", 64), nullptr) << "the mutex is free";
}

TEST_F(Chunks, AddressesThatAreNoChunkAreRefused) {
    auto *chunk = static_cast<char *>(allocate("chunk", 64));
    void *freed = allocate(nullptr, 64);
    EXPECT_EQ(FreeSharedChunk(arena, freed), 0u);
    const std::string before(static_cast<char *>(arena->base), arena->mapLength);
    int elsewhere = 0;
    char *base = static_cast<char *>(arena->base);
    for (void *wrong : {static_cast<void *>(base), static_cast<void *>(base + 0x48),
                        static_cast<void *>(chunk + 1), static_cast<void *>(chunk + 4), freed,
                        static_cast<void *>(base + 4096), static_cast<void *>(base + (1 << 20)),
                        static_cast<void *>(base - 4096), static_cast<void *>(&elsewhere),
                        static_cast<void *>(nullptr)}) {
        EXPECT_EQ(FreeSharedChunk(arena, wrong), static_cast<uint32_t>(SHARED_ERR_CORRUPT));
        int64_t delta = 7;
        void *copy = &elsewhere;
        if (wrong == freed) continue;
        EXPECT_EQ(CopySharedChunk(arena, wrong, nullptr, &copy, &delta),
                  static_cast<uint32_t>(SHARED_ERR_CORRUPT));
        EXPECT_EQ(copy, nullptr);
        EXPECT_EQ(delta, 0);
    }
    EXPECT_EQ(std::memcmp(before.data(), arena->base, before.size()), 0);
}

// A chunk "a", a hole, a chunk "b", and the rest free; then one field is overwritten.
struct Damage {
    const char *what;
    uint64_t fieldOfHeader;  // or, at 0x48 and up, of the block `block`
    int block;               // 0 = a, 1 = the hole, 2 = b, 3 = the rest
    uint64_t value;
    bool lookUpSuffers, createSuffers, freeSuffers;  // freeing a
};

TEST_F(Chunks, DamagedListsAreReportedAndNotFollowed) {
    constexpr uint64_t a = 0x48, hole = a + 112, b = hole + 104, rest = b + 112;
    const uint64_t offsets[] = {a, hole, b, rest};
    const Damage damages[] = {
        {"free head misaligned", 0x38, -1, hole + 4, false, true, true},
        {"free head in the header", 0x38, -1, 0x40, false, true, true},
        {"free head at the end", 0x38, -1, 4096, false, true, true},
        {"free head far outside", 0x38, -1, UINT64_MAX - 7, false, true, true},
        {"allocated head outside", 0x40, -1, 1 << 20, true, true, true},
        {"allocated head misaligned", 0x40, -1, a + 1, true, true, true},
        {"the free list goes round", 0x00, 3, hole, false, true, false},
        {"a free block follows itself", 0x00, 1, hole, false, true, false},
        {"the allocated list goes round", 0x00, 0, b, true, true, false},
        {"an allocated block follows itself", 0x00, 2, b, true, true, true},
        {"free block size 0", 0x10, 3, 0, false, true, false},
        {"free block size beyond the end", 0x10, 3, 8192, false, true, false},
        {"free block size wraps", 0x10, 3, UINT64_MAX - 7, false, true, false},
        {"free block size odd", 0x10, 3, 49, false, true, false},
        {"allocated block size beyond the end", 0x10, 2, 1 << 20, true, true, true},
        {"a name outside the block", 0x08, 2, 0x30, true, true, false},
        {"a name far outside", 0x08, 2, UINT64_MAX - 3, true, true, false},
    };
    for (const Damage &damage : damages) {
        EXPECT_CHILD_OK([&] {
            SCOPED_TRACE(damage.what);
            auto *first = allocate("a", 64);
            auto *middle = allocate(nullptr, 64);
            (void)allocate("b", 64);
            EXPECT_EQ(FreeSharedChunk(arena, middle), 0u);
            ASSERT_EQ(offsetOf(first) - 40, a);
            ASSERT_EQ(contents().freeBlocks.size(), 2u);
            field(damage.block < 0 ? damage.fieldOfHeader
                                   : offsets[damage.block] + damage.fieldOfHeader) = damage.value;

            constexpr uint32_t kCorrupt = SHARED_ERR_CORRUPT;
            (void)allocate("absent", 0);
            EXPECT_EQ(result, damage.lookUpSuffers ? kCorrupt : SHARED_ERR_NOTFOUND);
            (void)allocate("new", 2000);
            EXPECT_EQ(result == kCorrupt, damage.createSuffers);
            EXPECT_EQ(FreeSharedChunk(arena, first), damage.freeSuffers ? kCorrupt : 0);
            EXPECT_EQ(CloseSharedArena(std::exchange(arena, nullptr)), 0u);
        });
        EXPECT_EQ(CloseSharedArena(std::exchange(arena, nullptr)), 0u);
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
    ASSERT_EQ(CopySharedChunk(arena, chunk, &mutex, &copy, &delta), 0u);
    EXPECT_EQ(pthread_mutex_trylock(&mutex.mutex), 0) << "released after the copy";
    EXPECT_NE(copy, chunk);
    const auto address = reinterpret_cast<uintptr_t>(copy);
    EXPECT_EQ(static_cast<uint64_t>(delta) + offsetOf(chunk) + 50, address + 50);
    EXPECT_STREQ(static_cast<char *>(copy) + 50, "inside");
    std::free(copy);

    ASSERT_EQ(CopySharedChunk(arena, chunk, nullptr, &copy, nullptr), 0u);
    EXPECT_EQ(std::memcmp(copy, chunk, 100), 0);
    std::free(copy);
}

TEST_F(Chunks, ACopyWhoseMutexFailsKeepsNothing) {
    pthread_mutexattr_t attribute;
    pthread_mutexattr_init(&attribute);
    pthread_mutexattr_settype(&attribute, PTHREAD_MUTEX_ERRORCHECK);
    SharedMutex mutex;
    ASSERT_EQ(pthread_mutex_init(&mutex.mutex, &attribute), 0);
    ASSERT_EQ(AquireSharedMutex(&mutex), 0u);
    void *copy = &mutex;
    int64_t delta = 7;
    EXPECT_EQ(CopySharedChunk(arena, allocate(nullptr, 64), &mutex, &copy, &delta), kSystemError);
    EXPECT_EQ(errno, EDEADLK);
    EXPECT_EQ(copy, nullptr);
    EXPECT_EQ(delta, 0);
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

class ChunksBesideTheModel : public TestArena {
protected:
    static constexpr uint64_t kBytes = 64 * 1024;

    ChunksBesideTheModel() { EXPECT_EQ(open(SHARED_ARENA_CREATE, kBytes), 0u); }

    uint64_t pick(uint64_t below) { return random() % below; }

    void allocateBoth() {
        const std::string name = pick(3) == 0 ? "" : "chunk" + std::to_string(pick(200));
        const uint64_t wanted = pick(10) == 0 ? 0 : pick(20) == 0 ? pick(20000) : pick(600);
        uint64_t modelSize = wanted, modelOffset = 0;
        bool modelCreated = false;
        const uint32_t expected = model.allocate(name, modelSize, modelOffset, modelCreated);
        void *chunk = allocate(name.empty() ? nullptr : name.c_str(), wanted);
        ASSERT_EQ(result, expected);
        ASSERT_EQ(created == 1, modelCreated);
        ASSERT_EQ(size, modelSize);
        if (expected != 0) return;
        ASSERT_EQ(offsetOf(chunk), modelOffset + 40);
        held.push_back(chunk);
    }

    void freeBoth() {
        const auto which = held.begin() + static_cast<std::ptrdiff_t>(pick(held.size()));
        const uint64_t block = offsetOf(*which) - 40;
        ASSERT_EQ(FreeSharedChunk(arena, *which), 0u);
        model.release(block);
        held.erase(which);
    }

    void compare() {
        const ArenaContents now = contents();
        ASSERT_EQ(now.fault, "");
        ASSERT_EQ(now.freeBlocks, model.freeBlocks());
        ASSERT_EQ(now.allocatedBlocks, model.allocatedBlocks());
    }

    ChunkModel model{kBytes};
    std::vector<void *> held;
    std::mt19937_64 random{20260101};
};

TEST_F(ChunksBesideTheModel, TwoHundredThousandOperationsComeOutTheSame) {
    for (int step = 0; step < 200000; ++step) {
        // Rising and falling: from nearly empty to more than full and back.
        const uint64_t chance = (step / 2000) % 2 == 0 ? 60 : 40;
        if (held.empty() || pick(100) < chance)
            allocateBoth();
        else
            freeBoth();
        if (step % 16 == 0) compare();
        if (HasFatalFailure()) FAIL() << "at step " << step;
    }
    while (!held.empty())
        freeBoth();
    compare();
    EXPECT_EQ(model.freeBlocks().size(), 1u);
}

}  // namespace
