// An arena with something of everything in it.
#pragma once

#include "check.h"
#include "support/in_child.h"
#include "support/lock_table.h"

#include <cstdlib>
#include <span>

// A lock table of 2 files with opens and locks, anonymous and named chunks, and free blocks
// between.
class SampleArena : public ScratchArena {
public:
    static constexpr SharedFileKey kReport{0x801, 4711};
    static constexpr SharedFileKey kLedger{0x801, 4712};

    explicit SampleArena(uint64_t bytes = 16384) : ScratchArena(bytes) {
        void *const hole = allocate(nullptr, 200);
        tally = allocate("tally", 64);
        EXPECT_EQ(AllocateSharedFileLockTable(arena, "locks", 1, 4, 10, &table), 0);
        loner = allocate(nullptr, 400);
        spare = allocate("spare\n", 100);
        EXPECT_EQ(FreeSharedChunk(arena, hole), 0u);
        uint32_t modes = 0;
        (void)OpenSharedFile(table, 7, 1, &kReport, SHARED_FILE_READ | SHARED_FILE_DENY_DELETE, 5,
                             "report \"1\".txt", &modes);
        (void)OpenSharedFile(table, 7, 2, &kReport, SHARED_FILE_READ | SHARED_FILE_WRITE, 0,
                             nullptr, &modes);
        (void)LockSharedFileRange(table, 7, 2, &kReport, 0, 100, SHARED_FILE_LOCK_EXCLUSIVE);
        (void)LockSharedFileRange(table, 7, 1, &kReport, 500, -1, SHARED_FILE_LOCK_SHARED);
        (void)OpenSharedFile(table, 9, 1, &kLedger, SHARED_FILE_READ | SHARED_FILE_OPLOCK_BATCH, 0,
                             "\x80ledger", &modes);
    }
    // The table is left to the arena, whose mutex nobody may release any more.
    ~SampleArena() { std::free(table); }

    void *allocate(const char *name, uint64_t size) const {
        void *chunk = nullptr;
        uint32_t created = 0;
        if (AllocateSharedChunk(arena, name, &size, &chunk, &created) != 0) return nullptr;
        if (created != 0) (void)ReleaseSharedMutex(headerMutex());
        return chunk;
    }

    std::span<std::byte> mapped() const {
        return {static_cast<std::byte *>(arena->base), arena->mapLength};
    }
    SharedMutex *headerMutex() const { return static_cast<SharedMutex *>(arena->base); }
    SharedMutex *tableMutex() const { return static_cast<SharedMutex *>(table->header); }

    SharedFileLockTable *table = nullptr;
    void *tally, *loner, *spare;
};
