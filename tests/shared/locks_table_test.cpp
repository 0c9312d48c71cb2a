// The table as a whole: its size and bytes, attaching, what it does when it is full, when its mutex
// cannot be taken and when a caller's pointer is bad.

#include "iosched/shared.h"
#include "shared/call_wrap.h"
#include "shared/locks_internal.h"
#include "support/in_child.h"
#include "support/lock_table.h"
#include "support/lock_table_bytes.h"
#include "support/lock_table_calls.h"

#include <climits>
#include <functional>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <syslog.h>

namespace {

TableCall callOf(TableCall::Kind kind, uint64_t key = 1) {
    return {kind, 1, 1, {key, 0}, 1, 4, 0, 10, 40, "name"};
}
int codeOf(const ScratchTable &scratch, TableCall::Kind kind, uint64_t key = 1) {
    return callTable(scratch.table, callOf(kind, key)).code;
}

TEST(LocksTable, TakesTheBytesThatItsCountsSayIn32BitProducts) {
    const struct {
        int32_t processes, files, locks;
        uint64_t bytes;
    } rows[] = {{1, 1, 0, 1624},
                {10, 10, 0, 27520},
                {10, 10, 7, 96 + 16 * 64 + 96 * 100 + 56 * 7},
                {1, 0, 1, 96 + 16 * 16 + 56},
                {1, 32, 1, 96 + 16 * 16 + 96 * 32 + 56},
                {1, 33, 1, 96 + 16 * 32 + 96 * 33 + 56},
                {1, 64, 1, 96 + 16 * 32 + 96 * 64 + 56},
                {1, 65, 1, 96 + 16 * 64 + 96 * 65 + 56},
                {1, 129, 1, 96 + 16 * 128 + 96 * 129 + 56},
                {65536, 65536, 1, 352 + 56},
                {1, INT32_MAX, 1, 96 + 16 * (1ull << 30) + 96ull * INT32_MAX + 56},
                {-1, 2, 1, 352 + 56 - 2 * 96},
                {1, 1, -2, 352 + 96 - 2 * 56},
                {INT32_MIN, 2, 0, 352}};
    for (const auto &row : rows)
        EXPECT_EQ(CalcSharedFileLockTableSize(row.processes, row.files, row.locks), row.bytes)
            << row.processes << " " << row.files << " " << row.locks;
}

TEST(LocksTable, ANewOneHandsOutTheHighestElementsFirstAndWhatIsGivenBackNext) {
    ScratchTable scratch(3, 11, 7);  // 33 entries, so 32 buckets
    const TableBytes bytes = readTableBytes(scratch.table, 33, 7);
    EXPECT_EQ(bytes.fault, "");
    EXPECT_EQ(bytes.freeEntries, 33u);
    EXPECT_EQ(bytes.freeRecords, 7u);
    ASSERT_EQ(codeOf(scratch, TableCall::Open, 11), 0);
    ASSERT_EQ(codeOf(scratch, TableCall::Open, 12), 0);
    const auto *header = static_cast<SharedFileLockHeader *>(scratch.table->header);
    const auto *entries = reinterpret_cast<const SharedFileEntry *>(
        reinterpret_cast<const SharedLink *>(header + 1) + 32);
    const auto *records = reinterpret_cast<const SharedLockRecord *>(entries + 33);
    EXPECT_EQ(header->bucketCount, 32);
    EXPECT_EQ(entries[32].word0, 11u);
    EXPECT_EQ(entries[31].word0, 12u);
    EXPECT_EQ(records[6].pid, static_cast<uint32_t>(::getpid()));
    EXPECT_EQ(records[5].owner, 1u);
    ASSERT_EQ(codeOf(scratch, TableCall::Close, 11), 0);
    ASSERT_EQ(codeOf(scratch, TableCall::Open, 13), 0);
    EXPECT_EQ(entries[32].word0, 13u);
}

TEST(LocksTable, IsAttachedToAsItIsAndLastsAsLongAsSomebodyIsAttached) {
    ScratchTable scratch(1, 2, 3);
    ASSERT_EQ(codeOf(scratch, TableCall::Open), 0);
    for (const int32_t counts : {0, 100, -1, INT32_MAX}) {
        SharedFileLockTable *again = nullptr;
        ASSERT_EQ(
            AllocateSharedFileLockTable(scratch.arena, "table", counts, counts, counts, &again), 0);
        EXPECT_EQ(again->header, scratch.table->header);
        EXPECT_EQ(FreeSharedFileLockTable(std::exchange(scratch.table, again)), 0);
        EXPECT_EQ(codeOf(scratch, TableCall::IsOpen), 1);
    }
    EXPECT_EQ(readTableBytes(scratch.table, 2, 3).fault, "");
    EXPECT_EQ(FreeSharedFileLockTable(std::exchange(scratch.table, nullptr)), 0);
    EXPECT_EQ(AllocateSharedFileLockTable(scratch.arena, "table", 0, 0, 0, &scratch.table),
              SHARED_ERR_NOTFOUND);
}

TEST(LocksTable, ThatCannotBeMadeLeavesNothingBehind) {
    const struct {
        int32_t processes, files, locks;
        int code;
    } rows[] = {{-1, 1, 0, SCHED_ERR_SYSTEM},
                {1, -1, 0, SCHED_ERR_SYSTEM},
                {1, 1, -1, SCHED_ERR_SYSTEM},
                {65536, 65536, 1, SCHED_ERR_SYSTEM},
                {1, (1 << 30) + 1, 1, SCHED_ERR_SYSTEM},
                {INT32_MAX, 1, 1, SCHED_ERR_SYSTEM},
                {107374183, 0, 1, SCHED_ERR_SYSTEM},
                {-4, -4, 0, SCHED_ERR_SYSTEM},
                {1, 1 << 30, 1, SHARED_ERR_NOSPACE},
                {107374182, 0, 1 << 20, SHARED_ERR_NOSPACE},
                {0, 1, 1, SHARED_ERR_NOTFOUND}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.processes);
        ScratchTable scratch(1, 1, 0);
        SharedFileLockTable *table = nullptr;
        EXPECT_EQ(AllocateSharedFileLockTable(scratch.arena, "t", row.processes, row.files,
                                              row.locks, &table),
                  row.code);
        if (row.code == SCHED_ERR_SYSTEM) {
            EXPECT_EQ(errno, EINVAL);
        }
        EXPECT_EQ(table, nullptr);
        EXPECT_EQ(readTableBytes(scratch.table, 1, 21).fault, "") << "nor a gap";
        ASSERT_EQ(AllocateSharedFileLockTable(scratch.arena, "t", 1, 1, 0, &table), 0);
        EXPECT_EQ(FreeSharedFileLockTable(table), 0);
    }
}

// A chunk that somebody else made under the table's name: so large, with these words in it.
TEST(LocksTable, AChunkThatIsNoReadyTableIsRefusedAndItsReferenceGivenBack) {
    const struct {
        uint64_t bytes;
        uint32_t state;
        int32_t buckets;
        int code = SHARED_ERR_BADTABLE;
        int32_t mutexWord = 0, mutexKind = 0x80;
    } rows[] = {{4, 0, 0},
                {51, 3, 16},
                {95, 3, 16},
                {352, 0, 16},
                {352, 2, 16},
                {352, 3, 0},
                {352, 3, -1},
                {351, 3, 16},
                {352, 3, INT_MAX},
                {352, 3, INT32_MIN},
                {352, 3, 17},
                {352, 3, 16, SHARED_ERR_BADTABLE, 3},
                {352, 3, 16, SHARED_ERR_BADTABLE, 0, 0x90},
                {352, 3, 16, 0},
                {111, 3, 1},
                {112, 3, 1, 0}};
    for (const auto &row : rows) {
        SCOPED_TRACE(std::to_string(row.bytes) + " buckets " + std::to_string(row.buckets));
        ScratchArena scratch;
        uint64_t bytes = row.bytes;
        void *chunk = nullptr;
        uint32_t created = 0;
        ASSERT_EQ(AllocateSharedChunk(scratch.arena, "table", &bytes, &chunk, &created), 0u);
        SharedFileLockHeader words{};
        words.mutex.mutex.__data.__lock = row.mutexWord;
        words.mutex.mutex.__data.__kind = row.mutexKind;
        words.state = row.state;
        words.bucketCount = row.buckets;
        std::memcpy(chunk, &words, std::min(bytes, sizeof words));
        ASSERT_EQ(ReleaseSharedMutex(static_cast<SharedMutex *>(scratch.arena->base)), 0u);

        SharedFileLockTable *table = nullptr;
        EXPECT_EQ(AllocateSharedFileLockTable(scratch.arena, "table", 1, 1, 0, &table), row.code);
        EXPECT_EQ(table == nullptr, row.code != 0);
        if (table != nullptr) {
            EXPECT_EQ(FreeSharedFileLockTable(table), 0);
        }
        ASSERT_EQ(FreeSharedChunk(scratch.arena, chunk), 0u);
        bytes = 0;
        EXPECT_EQ(AllocateSharedChunk(scratch.arena, "table", &bytes, &chunk, &created),
                  uint32_t{SHARED_ERR_NOTFOUND})
            << "the stranger's reference was the last";
    }
}

TEST(LocksTable, WithAMutexThatCannotBeTakenNothingChangesAndOutputsAreSafe) {
    ScratchTable scratch;
    ASSERT_EQ(codeOf(scratch, TableCall::Open), 0);
    int &kind = static_cast<SharedMutex *>(scratch.table->header)->mutex.__data.__kind;
    const int sound = std::exchange(kind, 0x90);
    for (uint32_t which = TableCall::Open; which <= TableCall::Clean; ++which) {
        const bool isOpen = which == TableCall::IsOpen;
        const TableCall call = callOf(static_cast<TableCall::Kind>(which), isOpen ? 2 : 1);
        TableAnswer expected = blankAnswer(call);
        expected.code = isOpen ? 1 : SCHED_ERR_SYSTEM;
        if (which == TableCall::Holders) expected.count = 0;
        if (which == TableCall::Test) expected.length = 0;
        errno = 0;
        EXPECT_TRUE(callTable(scratch.table, call) == expected) << which;
        EXPECT_EQ(errno, EINVAL);
    }
    kind = sound;
    EXPECT_EQ(callTable(scratch.table, callOf(TableCall::Info)).count, 1u);
    EXPECT_EQ(errno, 0) << "which a success leaves behind";
}

// More holders than an operation keeps in memory of its own before it writes them out.
TEST(LocksTable, AllHoldersOfOplocksAreListedHoweverManyThereAre) {
    constexpr uint32_t kOpens = 300;
    ScratchTable scratch(1, 1, kOpens);
    const SharedFileKey key{1, 1};
    const uint32_t mode = SHARED_FILE_OPLOCK_SHARED | SHARED_FILE_OWNER_OVERRIDE;
    uint32_t combined = 0;
    for (uint32_t i = 0; i < kOpens; ++i)
        ASSERT_EQ(OpenSharedFile(scratch.table, 1, i, &key, mode, 1, nullptr, &combined), 0);
    for (const uint32_t capacity : {255u, 256u, 257u, kOpens, kOpens + 1}) {
        uint32_t pids[kOpens + 1] = {}, count = 0;
        EXPECT_EQ(GetOplockHolders(scratch.table, &key, pids, capacity, &count), 0);
        EXPECT_EQ(count, std::min(capacity, kOpens));
        const auto end = std::find_if(pids, std::end(pids), [](uint32_t pid) {
            return pid != static_cast<uint32_t>(::getpid());
        });
        EXPECT_EQ(end - pids, count) << "each once, and nothing behind the last";
    }
}

// A kernel that kills at any system call but read, write and exit is the witness.
TEST(LocksTable, OperationsThatNobodyDisturbsMakeNoSystemCall) {
    ScratchTable scratch;
    EXPECT_CHILD_OK([&] {
        ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT), 0);
        bool good = true;
        for (uint64_t key = 0; key < 20; ++key)
            for (const auto kind :
                 {TableCall::Open, TableCall::Lock, TableCall::Test, TableCall::Info,
                  TableCall::Holders, TableCall::SetMode, TableCall::Unlock, TableCall::Close,
                  TableCall::IsOpen, TableCall::Clean})
                good = good && codeOf(scratch, kind, key) == 0;
        (void)::syscall(SYS_exit, good ? 0 : 1);
    });
}

TEST(LocksTable, AFullOneSaysSoInTheSystemLog) {
    std::vector<std::string> lines;
    syslogHook = [&](int priority, const char *line) {
        lines.push_back(std::to_string(priority) + line);
    };
    const std::string error = std::to_string(LOG_ERR);
    ScratchTable scratch(1, 1, 2);
    EXPECT_EQ(codeOf(scratch, TableCall::Open), 0);
    EXPECT_EQ(codeOf(scratch, TableCall::Open, 2), SHARED_ERR_NOLOCKS);
    EXPECT_EQ(codeOf(scratch, TableCall::Open), 0);
    EXPECT_EQ(codeOf(scratch, TableCall::Open), SHARED_ERR_NOLOCKS);
    EXPECT_EQ(codeOf(scratch, TableCall::Lock), SHARED_ERR_NOLOCKS);
    EXPECT_EQ(lines, (std::vector{error + "OpenSharedFile: no more locks",
                                  error + "addRangeLock: no more locks",
                                  error + "addRangeLock: no more locks"}));
    ScratchTable other(1, 2, 1);
    EXPECT_EQ(codeOf(other, TableCall::Open), 0);
    EXPECT_EQ(codeOf(other, TableCall::Open, 2), SHARED_ERR_NOLOCKS);
    syslogHook = nullptr;
    const auto *header = static_cast<const char *>(other.table->header);
    const std::string bytes(header, CalcSharedFileLockTableSize(1, 2, 1));
    EXPECT_EQ(bytes.find("name", bytes.find("name") + 1), std::string::npos)
        << "the entry that was given back has none";
}

// Each operation with one of its pointers leading nowhere: whoever passes it dies, with no mutex
// held.
TEST(LocksTable, ABadPointerEndsItsCallerAndNotTheTable) {
    ScratchTable scratch;
    SharedFileLockTable *const table = scratch.table;
    SharedArena *const arena = scratch.arena;
    const SharedFileKey open{1, 0}, fresh{2, 0};
    ASSERT_EQ(codeOf(scratch, TableCall::Open), 0);
    const auto bad = []<class T>(T *) { return reinterpret_cast<T *>(uintptr_t{8}); };
    const auto *const key = bad(&open);
    char *const text = bad(static_cast<char *>(nullptr));
    uint32_t number = 0, *const word = bad(&number);
    int64_t length = 1, *const longWord = bad(&length);
    uint64_t size = 64, *const sizeWord = bad(&size);
    void *chunk = nullptr, **const place = bad(&chunk);
    const std::function<void()> calls[] = {
        [&] { OpenSharedFile(table, 1, 1, key, 1, 0, "n", &number); },
        [&] { OpenSharedFile(table, 1, 1, &fresh, 1, 0, text, &number); },
        [&] { OpenSharedFile(table, 1, 1, &open, 1, 0, "n", word); },
        [&] { CloseSharedFile(table, 1, 1, key); },
        [&] { SharedFileIsOpen(table, key); },
        [&] { SharedFileInfo(table, key, &number, &number, nullptr, 0); },
        [&] { SharedFileInfo(table, &open, word, &number, nullptr, 0); },
        [&] { SharedFileInfo(table, &fresh, &number, word, nullptr, 0); },
        [&] { SharedFileInfo(table, &open, &number, &number, text, 9); },
        [&] { LockSharedFileRange(table, 1, 1, key, 0, 1, 1); },
        [&] { UnlockSharedFileRange(table, 1, 1, key, 0, 1); },
        [&] { TestSharedFileRange(table, 1, 1, key, 0, &length, 1); },
        [&] { TestSharedFileRange(table, 1, 1, &open, 0, longWord, 1); },
        [&] { GetOplockHolders(table, key, &number, 1, &number); },
        [&] { GetOplockHolders(table, &open, &number, 1, word); },
        [&] {
            OpenSharedFile(table, 1, 1, &fresh, SHARED_FILE_OPLOCK_SHARED, 0, "n", &number);
            GetOplockHolders(table, &fresh, word, 1, &number);
        },
        [&] { SetSharedFileMode(table, 1, 1, key, 1); },
        [&] { AllocateSharedChunk(arena, text, &size, &chunk, &number); },
        [&] { AllocateSharedChunk(arena, "new", sizeWord, &chunk, &number); },
        [&] { AllocateSharedChunk(arena, "new", &size, place, &number); },
        [&] { AllocateSharedChunk(arena, "table", &size, place, &number); },
        [&] { AllocateSharedChunk(arena, "new", &size, &chunk, word); },
    };
    for (const auto &call : calls) {
        EXPECT_NE(inChild(call), 0) << "call " << &call - calls << " lived";
        for (void *mutex : {arena->base, table->header})
            ASSERT_EQ(static_cast<SharedMutex *>(mutex)->mutex.__data.__lock, 0) << &call - calls;
    }
}

}  // namespace
