// Byte-range locks: who conflicts with whom, ranges at the edges of 64 bits, and what a test of a
// range reports.

#include "iosched/shared.h"
#include "support/in_child.h"
#include "support/lock_table.h"

#include <cstdint>
#include <optional>

namespace {

constexpr SharedFileKey kFile{77, 88};
constexpr uint32_t kShared = SHARED_FILE_LOCK_SHARED;
constexpr uint32_t kExclusive = SHARED_FILE_LOCK_EXCLUSIVE;
constexpr uint32_t kRead = SHARED_FILE_TEST_READ;
constexpr uint32_t kWrite = SHARED_FILE_TEST_WRITE;

class LocksRange : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(a.open(kFile, SHARED_FILE_READ | SHARED_FILE_WRITE), 0);
        ASSERT_EQ(b.open(kFile, SHARED_FILE_READ), 0);
    }
    void clear() {
        (void)a.close(kFile);
        (void)a.open(kFile, SHARED_FILE_READ | SHARED_FILE_WRITE);
        (void)b.close(kFile);
        (void)b.open(kFile, SHARED_FILE_READ);
    }

    ScratchTable scratch;
    Opener a{scratch.table, 1, 10};
    Opener b{scratch.table, 2, 20};
};

// What becomes of a second lock on the same bytes, by the flags of both; 'g' is granted, 'x' refused.
TEST_F(LocksRange, EveryPairOfFlagsIsJudgedForTheSameAndForAnotherHolder) {
    //                       second:  0    sh   ex   both
    const char *ofAnother[4] = {"ggxx", "ggxx", "xxxx", "xxxx"};  // a row for each first
    const char *ofTheSame[4] = {"ggxg", "ggxg", "xgxg", "xgxg"};
    for (uint32_t first = 0; first < 4; ++first) {
        for (uint32_t second = 0; second < 4; ++second) {
            clear();
            ASSERT_EQ(a.lock(kFile, 0, 10, first), 0);
            EXPECT_EQ(b.lock(kFile, 5, 10, second),
                      ofAnother[first][second] == 'g' ? 0 : SHARED_ERR_LOCKED)
                << first << " then " << second;
            clear();
            ASSERT_EQ(a.lock(kFile, 0, 10, first), 0);
            EXPECT_EQ(a.lock(kFile, 5, 10, second),
                      ofTheSame[first][second] == 'g' ? 0 : SHARED_ERR_SELFLOCKED)
                << first << " then " << second;
        }
    }
}

TEST_F(LocksRange, TheOldestConflictingLockDecidesBetweenLockedAndSelfLocked) {
    ASSERT_EQ(a.lock(kFile, 0, 10, kShared), 0);
    ASSERT_EQ(b.lock(kFile, 0, 10, kShared), 0);
    EXPECT_EQ(a.lock(kFile, 0, 10, kExclusive), SHARED_ERR_SELFLOCKED);
    EXPECT_EQ(b.lock(kFile, 0, 10, kExclusive), SHARED_ERR_LOCKED);
    EXPECT_EQ(b.lock(kFile, 0, 10, kExclusive | kShared), SHARED_ERR_LOCKED);
}

TEST_F(LocksRange, AHolderIsAProcessAnOwnerAndAHandle) {
    ASSERT_EQ(a.lock(kFile, 0, 10, kExclusive), 0);
    for (const Opener other : {Opener{scratch.table, 2, 10}, Opener{scratch.table, 1, 20}}) {
        EXPECT_EQ(other.lock(kFile, 0, 10, kShared), SHARED_ERR_LOCKED);
        EXPECT_EQ(other.unlock(kFile, 0, 10), SHARED_ERR_NOTLOCKED);
        EXPECT_EQ(other.reach(kFile, 0, 10, kRead), 0);
    }
    EXPECT_CHILD_OK([&] {
        EXPECT_EQ(a.lock(kFile, 0, 10, kShared), SHARED_ERR_LOCKED);
        EXPECT_EQ(a.unlock(kFile, 0, 10), SHARED_ERR_NOTLOCKED);
        EXPECT_EQ(a.reach(kFile, 0, 10, kRead), 0);
    });
}

TEST_F(LocksRange, StackedLocksGoOneByOneAndTheOldestFirst) {
    ASSERT_EQ(a.lock(kFile, 0, 10, kExclusive), 0);
    ASSERT_EQ(a.lock(kFile, 0, 10, kShared), 0);
    EXPECT_EQ(a.unlock(kFile, 0, 5), SHARED_ERR_NOTLOCKED);
    EXPECT_EQ(a.unlock(kFile, 0, 10), 0);
    EXPECT_EQ(b.lock(kFile, 0, 10, kShared), 0) << "the exclusive one is gone";
    EXPECT_EQ(a.unlock(kFile, 0, 10), 0);
    EXPECT_EQ(a.unlock(kFile, 0, 10), SHARED_ERR_NOTLOCKED);
}

TEST_F(LocksRange, AFileThatNobodyHasOpenHasNoLocks) {
    const SharedFileKey other{1, 1};
    EXPECT_EQ(a.lock(other, 0, 1, kShared), SHARED_ERR_NOTOPEN);
    EXPECT_EQ(a.unlock(other, 0, 1), SHARED_ERR_NOTLOCKED);
    EXPECT_EQ(a.reach(other, 0, -1, kRead | kWrite), -1);
    EXPECT_EQ((Opener{scratch.table, 9, 9}).lock(kFile, 0, 1, kShared), 0)
        << "an open of somebody else's will do";
}

// A range as the bytes from start up to but without stop, in numbers that do not wrap.
struct Extent {
    uint64_t start, stop;
};
std::optional<Extent> extentOf(int64_t offset, int64_t length) {
    constexpr uint64_t kEnd = uint64_t{1} << 63;
    const auto start = static_cast<uint64_t>(offset);
    if (length == -1) return Extent{start, kEnd};
    const uint64_t stop = start + static_cast<uint64_t>(length);
    // A last byte past 2^63 - 1 wraps to where no lock begins; such a lock meets nothing.
    if (stop > kEnd || stop == 0) return std::nullopt;
    return Extent{start, stop};
}

TEST_F(LocksRange, RangesAtTheEdgesOverlapWhenTheyShareBytes) {
    const int64_t offsets[] = {0, 1, 2, INT64_MAX - 1, INT64_MAX};
    const int64_t lengths[] = {0, 1, 2, -1, INT64_MAX};
    for (int64_t o1 : offsets) {
        for (int64_t n1 : lengths) {
            for (int64_t o2 : offsets) {
                for (int64_t n2 : lengths) {
                    const auto first = extentOf(o1, n1), second = extentOf(o2, n2);
                    const bool clash = first && second && second->stop > first->start &&
                                       second->start < first->stop;
                    ASSERT_EQ(a.lock(kFile, o1, n1, kExclusive), 0);
                    EXPECT_EQ(b.lock(kFile, o2, n2, kExclusive), clash ? SHARED_ERR_LOCKED : 0)
                        << o1 << "+" << n1 << " and " << o2 << "+" << n2;
                    EXPECT_EQ(opensOf(scratch.table, kFile), 2u);
                    EXPECT_EQ(b.unlock(kFile, o2, n2), clash ? SHARED_ERR_NOTLOCKED : 0);
                    ASSERT_EQ(a.unlock(kFile, o1, n1), 0);
                }
            }
        }
    }
}

TEST_F(LocksRange, ARangeOfNoBytesAtOffsetZeroIsNeverTakenForAnOpen) {
    const Opener c{scratch.table, 3, 30};
    EXPECT_EQ(a.unlock(kFile, 0, 0), SHARED_ERR_NOTLOCKED) << "the open is not a lock to be found";
    ASSERT_EQ(c.lock(kFile, 0, 0, kExclusive | SHARED_FILE_OPLOCK_BATCH | 0x10), 0);
    EXPECT_EQ(c.lock(kFile, 0, 0, kExclusive), 0) << "it conflicts not even with itself";
    EXPECT_EQ(a.lock(kFile, 0, -1, kExclusive), 0);
    EXPECT_EQ(b.reach(kFile, 0, 0, kRead | kWrite), 0);

    uint32_t pids[4], count = 9;
    ASSERT_EQ(GetOplockHolders(scratch.table, &kFile, pids, 4, &count), 0);
    EXPECT_EQ(count, 0u);
    ASSERT_EQ(b.close(kFile), 0);  // rebuilds the combined mode
    EXPECT_EQ(combinedModeOf(scratch.table, kFile), SHARED_FILE_READ | SHARED_FILE_WRITE);
    EXPECT_EQ(c.unlock(kFile, 0, 0), 0);
    ASSERT_EQ(c.close(kFile), 0);
    EXPECT_EQ(opensOf(scratch.table, kFile), 1u);
    EXPECT_EQ(a.lock(kFile, 0, 0, kShared), 0);
    EXPECT_EQ(a.unlock(kFile, 0, 0), 0);
    EXPECT_EQ(opensOf(scratch.table, kFile), 1u);
}

TEST_F(LocksRange, ATestFindsTheNearestLockInTheWayWhateverTheOrderOfTheRecords) {
    ASSERT_EQ(b.lock(kFile, 500, 10, kExclusive), 0);
    ASSERT_EQ(b.lock(kFile, 100, 50, kExclusive), 0);
    ASSERT_EQ(b.lock(kFile, 300, 10, kExclusive), 0);
    EXPECT_EQ(a.reach(kFile, 0, 1000, kRead), 100);
    EXPECT_EQ(a.reach(kFile, 0, -1, kRead), 100);
    EXPECT_EQ(a.reach(kFile, 0, 100, kRead), 100) << "unchanged: nothing inside";
    EXPECT_EQ(a.reach(kFile, 120, 1000, kRead), 0);
    EXPECT_EQ(a.reach(kFile, 150, 1000, kRead), 150);
    EXPECT_EQ(a.reach(kFile, 310, 190, kRead), 190);
    EXPECT_EQ(a.reach(kFile, 510, -1, kRead | kWrite), -1);
    EXPECT_EQ(b.reach(kFile, 0, -1, kRead | kWrite), -1) << "its own exclusive locks";
}

TEST_F(LocksRange, ATestLooksAtSharedLocksForWritersOnly) {
    ASSERT_EQ(a.lock(kFile, 0, 10, kShared), 0);
    EXPECT_EQ(a.reach(kFile, 0, 10, kWrite), 0) << "its own shared lock hinders a writer";
    EXPECT_EQ(a.reach(kFile, 0, 10, kRead), 10);
    EXPECT_EQ(a.reach(kFile, 0, 10, kRead | kWrite), 10);
    EXPECT_EQ(b.reach(kFile, 0, 10, kRead), 10);
    EXPECT_EQ(b.reach(kFile, 0, 10, kWrite), 0);
    EXPECT_EQ(b.reach(kFile, 0, 10, kRead | kWrite), 0);
    EXPECT_EQ(b.reach(kFile, 0, 10, 0), 10) << "who asks for nothing is hindered by exclusive only";
    ASSERT_EQ(a.lock(kFile, 20, 10, 0), 0);
    EXPECT_EQ(a.reach(kFile, 15, 10, kRead | kWrite), 5) << "a lock with no flag is no shared one";
}

}  // namespace
