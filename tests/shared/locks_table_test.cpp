// The table as a whole: its size, its bytes when it is new, attaching, cleaning, a mutex that fails.

#include "iosched/shared.h"
#include "shared/call_wrap.h"
#include "shared/locks_internal.h"
#include "support/arena_check.h"
#include "support/in_child.h"
#include "support/lock_table.h"
#include "support/lock_table_bytes.h"

#include <climits>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

namespace {

constexpr SharedFileKey kFile{11, 12};
constexpr SharedFileKey kOther{21, 22};

uint64_t bucketBytes(int32_t files) {
    return CalcSharedFileLockTableSize(1, files, 1) - 96 - 96 * static_cast<uint64_t>(files) - 56;
}

TEST(LocksTableSize, FollowsTheCounts) {
    EXPECT_EQ(CalcSharedFileLockTableSize(1, 1, 0), 1624u);
    EXPECT_EQ(CalcSharedFileLockTableSize(10, 10, 0), 27520u);
    EXPECT_EQ(CalcSharedFileLockTableSize(10, 10, 7), 96 + 16 * 64 + 96 * 100 + 56 * 7u);
    const struct {
        int32_t files;
        uint64_t buckets;
    } cases[] = {{0, 16}, {32, 16}, {33, 32}, {64, 32}, {65, 64}, {128, 64}, {129, 128}};
    for (const auto &c : cases)
        EXPECT_EQ(bucketBytes(c.files), 16 * c.buckets) << c.files;
}

TEST(LocksTableSize, ProductsWrapAt32Bits) {
    EXPECT_EQ(CalcSharedFileLockTableSize(65536, 65536, 1), 352u + 56) << "2^32 files wrap to none";
    EXPECT_EQ(CalcSharedFileLockTableSize(1, INT32_MAX, 1),
              96 + 16 * (1ull << 30) + 96ull * INT32_MAX + 56);
    EXPECT_EQ(CalcSharedFileLockTableSize(-1, 2, 1), 352u + 56 - 2 * 96);
    EXPECT_EQ(CalcSharedFileLockTableSize(1, 1, -2), 352u + 96 - 2 * 56);
    EXPECT_EQ(CalcSharedFileLockTableSize(INT32_MIN, 2, 0), 352u);
}

// Counts that the table could not be made of, and whether they are refused.
TEST(LocksTableSize, AllocateRefusesCountsThatWouldWrapBeforeItLooksAtTheArena) {
    const struct {
        int32_t processes, files, locks;
    } cases[] = {{-1, 1, 0},      {1, -1, 0},           {1, 1, -1},        {65536, 65536, 1},
                 {2, 1 << 30, 1}, {1, INT32_MAX, 1},    {INT32_MAX, 1, 1}, {107374183, 0, 1},
                 {-4, -4, 0},     {1, (1 << 30) + 1, 1}};
    SharedArena untouchable{};  // any look at it ends in a fault
    for (const auto &c : cases) {
        SharedFileLockTable *table = nullptr;
        errno = 0;
        EXPECT_EQ(
            AllocateSharedFileLockTable(&untouchable, "t", c.processes, c.files, c.locks, &table),
            SCHED_ERR_SYSTEM)
            << c.processes << " " << c.files << " " << c.locks;
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(table, nullptr);
    }
}

TEST(LocksTable, ANewTableHasItsElementsOnTheFreeListsAndHandsOutTheHighestFirst) {
    ScratchTable scratch(3, 11, 7);  // 33 entries, so 32 buckets
    TableBytes bytes = readTableBytes(scratch.table, 33, 7);
    EXPECT_EQ(bytes.fault, "");
    EXPECT_EQ(bytes.freeEntries, 33u);
    EXPECT_EQ(bytes.freeRecords, 7u);

    const Opener a{scratch.table, 1, 1};
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ, 9, "first"), 0);
    ASSERT_EQ(a.open(kOther, SHARED_FILE_READ), 0);
    const auto *header = static_cast<SharedFileLockHeader *>(scratch.table->header);
    const auto *entries = reinterpret_cast<const SharedFileEntry *>(
        reinterpret_cast<const SharedLink *>(header + 1) + 32);
    const auto *records = reinterpret_cast<const SharedLockRecord *>(entries + 33);
    EXPECT_EQ(header->bucketCount, 32);
    EXPECT_EQ(entries[32].word0, kFile.word0);
    EXPECT_EQ(entries[32].openLimit, 9u);
    EXPECT_STREQ(entries[32].name, "first");
    EXPECT_EQ(entries[31].word0, kOther.word0);
    EXPECT_EQ(records[6].pid, static_cast<uint32_t>(::getpid()));
    EXPECT_EQ(records[5].owner, 1u);
    // What is given back is handed out next.
    ASSERT_EQ(a.close(kFile), 0);
    ASSERT_EQ(a.open({5, 5}, SHARED_FILE_READ), 0);
    EXPECT_EQ(entries[32].word0, 5u);
    EXPECT_EQ(readTableBytes(scratch.table, 33, 7).fault, "");
}

TEST(LocksTable, ASecondAllocateAttachesToTheTableAsItIs) {
    ScratchTable scratch(1, 2, 3);
    ASSERT_EQ((Opener{scratch.table, 1, 1}).open(kFile, SHARED_FILE_READ), 0);
    for (int32_t processes : {0, 100}) {
        SharedFileLockTable *again = nullptr;
        ASSERT_EQ(AllocateSharedFileLockTable(scratch.arena, "table", processes, 9, 9, &again), 0);
        EXPECT_EQ(again->header, scratch.table->header);
        EXPECT_EQ(SharedFileIsOpen(again, &kFile), 1);
        EXPECT_EQ(FreeSharedFileLockTable(again), 0);
    }
    EXPECT_EQ(readTableBytes(scratch.table, 2, 3).fault, "");
}

TEST(LocksTable, TheContentsLastAsLongAsSomebodyIsAttached) {
    ScratchTable scratch(1, 2, 3);
    ASSERT_EQ((Opener{scratch.table, 1, 1}).open(kFile, SHARED_FILE_READ), 0);
    SharedFileLockTable *second = nullptr;
    ASSERT_EQ(AllocateSharedFileLockTable(scratch.arena, "table", 0, 0, 0, &second), 0);
    EXPECT_EQ(FreeSharedFileLockTable(std::exchange(scratch.table, nullptr)), 0);
    EXPECT_EQ(SharedFileIsOpen(second, &kFile), 1);
    EXPECT_EQ(FreeSharedFileLockTable(second), 0);
    EXPECT_EQ(AllocateSharedFileLockTable(scratch.arena, "table", 0, 0, 0, &second),
              SHARED_ERR_NOTFOUND);
}

TEST(LocksTable, NoChunkAndNoRoomAreReportedAndKeepNothing) {
    ScratchArena scratch(8192);
    SharedFileLockTable *table = nullptr;
    EXPECT_EQ(AllocateSharedFileLockTable(scratch.arena, "t", 0, 1, 1, &table),
              SHARED_ERR_NOTFOUND);
    EXPECT_EQ(AllocateSharedFileLockTable(scratch.arena, "t", 100, 100, 0, &table),
              SHARED_ERR_NOSPACE);
    EXPECT_EQ(table, nullptr);
    ASSERT_EQ(AllocateSharedFileLockTable(scratch.arena, "t", 1, 1, 0, &table), 0);
    EXPECT_EQ(FreeSharedFileLockTable(table), 0);
}

TEST(LocksTable, ANewTableWhoseMutexFailsIsTakenBack) {
    const struct {
        const char *call;
        int letThrough;  // the first lock is the arena's
    } cases[] = {
        {"pthread_mutexattr_init", 0}, {"pthread_mutex_init", 0}, {"pthread_mutex_lock", 1}};
    for (const auto &c : cases) {
        // In a child, since an arena's mutex that is not given back stops whoever comes next.
        EXPECT_CHILD_OK(
            [&] {
                SCOPED_TRACE(c.call);
                ScratchArena scratch;
                const auto fresh = readArena(scratch.arena->base, scratch.arena->mapLength);
                SharedFileLockTable *table = nullptr;
                callHook = failing(c.call, ENOTSUP, c.letThrough);
                EXPECT_EQ(AllocateSharedFileLockTable(scratch.arena, "table", 1, 1, 0, &table),
                          SCHED_ERR_SYSTEM);
                EXPECT_EQ(errno, ENOTSUP);
                callHook = nullptr;
                EXPECT_EQ(table, nullptr);

                const auto left = readArena(scratch.arena->base, scratch.arena->mapLength);
                EXPECT_EQ(left.fault, "");
                EXPECT_EQ(left.freeBlocks, fresh.freeBlocks);
                EXPECT_TRUE(left.allocatedBlocks.empty());
                ASSERT_EQ(AllocateSharedFileLockTable(scratch.arena, "table", 1, 1, 0, &table), 0)
                    << "the arena is free for the next";
                EXPECT_EQ(FreeSharedFileLockTable(table), 0);
            },
            10000);
    }
}

// A chunk that somebody else made under the table's name: so large, with these two words in it.
struct Stranger {
    uint64_t bytes;
    uint32_t state;
    int32_t buckets;
};

TEST(LocksTable, AChunkThatIsNoReadyTableIsRefusedAndItsReferenceGivenBack) {
    const Stranger strangers[] = {
        {4, 0, 0},         {51, 3, 16},         {95, 3, 16},  {352, 0, 16},
        {352, 2, 16},      {352, 3, 0},         {352, 3, -1}, {351, 3, 16},
        {352, 3, INT_MAX}, {352, 3, INT32_MIN}, {352, 3, 17},
    };
    for (const Stranger &stranger : strangers) {
        ScratchArena scratch;
        uint64_t bytes = stranger.bytes;
        void *chunk = nullptr;
        uint32_t created = 0;
        ASSERT_EQ(AllocateSharedChunk(scratch.arena, "table", &bytes, &chunk, &created), 0u);
        auto *data = static_cast<char *>(chunk);
        if (bytes > 51) std::memcpy(data + 48, &stranger.state, 4);
        if (bytes > 91) std::memcpy(data + 88, &stranger.buckets, 4);
        ASSERT_EQ(ReleaseSharedMutex(static_cast<SharedMutex *>(scratch.arena->base)), 0u);

        SharedFileLockTable *table = nullptr;
        EXPECT_EQ(AllocateSharedFileLockTable(scratch.arena, "table", 1, 1, 0, &table),
                  SHARED_ERR_BADTABLE)
            << bytes << " bytes, state " << stranger.state << ", buckets " << stranger.buckets;
        EXPECT_EQ(table, nullptr);
        ASSERT_EQ(FreeSharedChunk(scratch.arena, chunk), 0u);
        bytes = 0;
        EXPECT_EQ(AllocateSharedChunk(scratch.arena, "table", &bytes, &chunk, &created),
                  uint32_t{SHARED_ERR_NOTFOUND})
            << "the stranger's reference was the last";
    }
}

TEST(LocksTable, ProcessesThatMapTheArenaElsewhereSeeTheSameTable) {
    ScratchTable scratch(1, 4, 0);
    const Opener a{scratch.table, 1, 1};
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ | SHARED_FILE_DENY_WRITE, 0, "seen"), 0);
    EXPECT_CHILD_OK([&] {
        SharedArena *arena = nullptr;
        SharedFileLockTable *table = nullptr;
        ASSERT_EQ(OpenSharedArena(scratch.path().c_str(), 0, 0, 0, &arena), 0u);
        ASSERT_EQ(AllocateSharedFileLockTable(arena, "table", 0, 0, 0, &table), 0);
        ASSERT_NE(table->header, scratch.table->header) << "two mappings, two addresses";
        EXPECT_EQ((Opener{table, 1, 1}).open(kFile, SHARED_FILE_WRITE), SHARED_ERR_DENIED);
        EXPECT_EQ((Opener{table, 1, 1}).open(kFile, SHARED_FILE_READ), 0);
        EXPECT_EQ(opensOf(scratch.table, kFile), 2u);
        EXPECT_EQ(FreeSharedFileLockTable(table), 0);
        EXPECT_EQ(CloseSharedArena(arena), 0u);
    });
    EXPECT_EQ(opensOf(scratch.table, kFile), 2u)
        << "the dead child's open stays until it is cleaned";
    EXPECT_EQ(readTableBytes(scratch.table, 4, 24).fault, "");
}

TEST(LocksTable, CleaningTakesAllThatOneProcessHoldsAndNothingElse) {
    ScratchTable scratch(1, 8, 40);
    const Opener a{scratch.table, 1, 1}, b{scratch.table, 2, 2};
    const SharedFileKey sameBucket{kFile.word0, kFile.word1 + 16};
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ), 0);
    ASSERT_EQ(a.lock(kFile, 0, 10, SHARED_FILE_LOCK_SHARED), 0);
    int childPid = 0;
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    EXPECT_CHILD_OK([&] {
        const int self = ::getpid();
        ASSERT_EQ(a.open(kFile, SHARED_FILE_WRITE | 0x8000), 0);
        ASSERT_EQ(b.open(kFile, SHARED_FILE_DELETE), 0);
        ASSERT_EQ(b.lock(kFile, 50, 10, SHARED_FILE_LOCK_EXCLUSIVE), 0);
        ASSERT_EQ(b.lock(kFile, 0, 0, SHARED_FILE_LOCK_EXCLUSIVE), 0);
        for (const SharedFileKey &key : {sameBucket, SharedFileKey{kFile.word0, kFile.word1 + 32}})
            ASSERT_EQ(b.open(key, SHARED_FILE_WRITE), 0);
        ASSERT_EQ(::write(pipeFds[1], &self, sizeof self), ssize_t{sizeof self});
    });
    ASSERT_EQ(::read(pipeFds[0], &childPid, sizeof childPid), ssize_t{sizeof childPid});
    (void)::close(pipeFds[0]);
    (void)::close(pipeFds[1]);

    EXPECT_EQ(CleanSharedFileLockTable(scratch.table, 0x7FFFFFFF), 0) << "holds nothing";
    EXPECT_EQ(opensOf(scratch.table, kFile), 3u);
    EXPECT_EQ(CleanSharedFileLockTable(scratch.table, childPid), 0);
    const TableBytes bytes = readTableBytes(scratch.table, 8, 40);
    EXPECT_EQ(bytes.fault, "");
    ASSERT_EQ(bytes.entries.size(), 1u);
    EXPECT_EQ(bytes.entries[0].combinedMode, SHARED_FILE_READ);
    EXPECT_EQ(bytes.entries[0].opens, 1u);
    EXPECT_EQ(bytes.entries[0].records.size(), 2u);
    EXPECT_EQ(SharedFileIsOpen(scratch.table, &sameBucket), 0);
    EXPECT_EQ(CleanSharedFileLockTable(scratch.table, ::getpid()), 0);
    EXPECT_EQ(readTableBytes(scratch.table, 8, 40).freeEntries, 8u);
}

TEST(LocksTable, WithAMutexThatCannotBeTakenNothingChangesAndOutputsAreSafe) {
    ScratchTable scratch;
    const Opener a{scratch.table, 1, 1};
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ | SHARED_FILE_OPLOCK_SHARED), 0);
    // An error-checking mutex that this thread holds: locking it again fails instead of waiting.
    auto *mutex = &static_cast<SharedFileLockHeader *>(scratch.table->header)->mutex.mutex;
    pthread_mutexattr_t attributes;
    ASSERT_EQ(::pthread_mutexattr_init(&attributes), 0);
    ASSERT_EQ(::pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK), 0);
    ASSERT_EQ(::pthread_mutex_init(mutex, &attributes), 0);
    ASSERT_EQ(::pthread_mutex_lock(mutex), 0);

    uint32_t combined = 7, opens = 7, pids[2] = {7, 7}, count = 7;
    char name[4] = "abc";
    int64_t length = 7;
    const SharedFileKey absent{1, 1};
    EXPECT_EQ(OpenSharedFile(scratch.table, 1, 1, &kFile, 1, 0, nullptr, &combined),
              SCHED_ERR_SYSTEM);
    EXPECT_EQ(errno, EDEADLK);
    EXPECT_EQ(a.close(kFile), SCHED_ERR_SYSTEM);
    EXPECT_EQ(a.lock(kFile, 0, 1, 1), SCHED_ERR_SYSTEM);
    EXPECT_EQ(a.unlock(kFile, 0, 1), SCHED_ERR_SYSTEM);
    EXPECT_EQ(a.setMode(kFile, 0), SCHED_ERR_SYSTEM);
    EXPECT_EQ(CleanSharedFileLockTable(scratch.table, ::getpid()), SCHED_ERR_SYSTEM);
    EXPECT_EQ(SharedFileInfo(scratch.table, &kFile, &combined, &opens, name, sizeof name),
              SCHED_ERR_SYSTEM);
    EXPECT_EQ(TestSharedFileRange(scratch.table, 1, 1, &kFile, 0, &length, 1), SCHED_ERR_SYSTEM);
    EXPECT_EQ(GetOplockHolders(scratch.table, &kFile, pids, 2, &count), SCHED_ERR_SYSTEM);
    EXPECT_EQ(SharedFileIsOpen(scratch.table, &absent), 1);
    EXPECT_EQ(combined, 7u);
    EXPECT_EQ(opens, 7u);
    EXPECT_STREQ(name, "abc");
    EXPECT_EQ(length, 0);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(pids[0], 7u);

    ASSERT_EQ(::pthread_mutex_unlock(mutex), 0);
    EXPECT_EQ(opensOf(scratch.table, kFile), 1u);
    EXPECT_EQ(errno, 0) << "which a success leaves behind";
}

// A kernel that kills at any system call but read, write and exit is the witness.
TEST(LocksTable, OperationsThatNobodyDisturbsMakeNoSystemCall) {
    ScratchTable scratch;
    const Opener a{scratch.table, 1, 1};
    EXPECT_CHILD_OK([&] {
        uint32_t pids[2], count = 0;
        ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT), 0);
        bool good = true;
        for (uint32_t i = 0; i < 20; ++i) {
            const SharedFileKey key{i, 0};
            good = good && a.open(key, SHARED_FILE_READ | SHARED_FILE_OPLOCK_SHARED) == 0;
            good = good && a.lock(key, i, 10, SHARED_FILE_LOCK_EXCLUSIVE) == 0;
            good = good && a.reach(key, 0, 10, SHARED_FILE_TEST_READ) == 10;
            good = good && opensOf(scratch.table, key) == 1;
            good = good && GetOplockHolders(scratch.table, &key, pids, 2, &count) == 0;
            good = good && a.setMode(key, SHARED_FILE_READ) == 0;
            good = good && a.unlock(key, i, 10) == 0;
            good = good && a.close(key) == 0 && SharedFileIsOpen(scratch.table, &key) == 0;
        }
        good = good && CleanSharedFileLockTable(scratch.table, 1) == 0;
        (void)::syscall(SYS_exit, good ? 0 : 1);
    });
}

}  // namespace
