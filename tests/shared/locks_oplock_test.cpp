// The holders of oplocks, and changes of an open's mode.

#include "iosched/shared.h"
#include "support/in_child.h"
#include "support/lock_table.h"

#include <vector>

namespace {

constexpr SharedFileKey kFile{3, 4};
constexpr uint32_t kOverride = SHARED_FILE_OWNER_OVERRIDE;

class LocksOplock : public testing::Test {
protected:
    std::vector<uint32_t> holders(uint32_t capacity) {
        std::vector<uint32_t> pids(5, 0xAAAA);
        uint32_t count = 99;
        EXPECT_EQ(GetOplockHolders(scratch.table, &kFile, pids.data(), capacity, &count), 0);
        for (size_t i = count; i < pids.size(); ++i)
            EXPECT_EQ(pids[i], 0xAAAAu) << "written past the count";
        pids.resize(count);
        return pids;
    }

    ScratchTable scratch;
    Opener a{scratch.table, 1, 10};
    Opener b{scratch.table, 2, 20};
    const uint32_t self = static_cast<uint32_t>(::getpid());
};

TEST_F(LocksOplock, ARefusedOpenerFindsTheHolderWhoThenMakesRoom) {
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ | SHARED_FILE_OPLOCK_BATCH), 0);
    EXPECT_CHILD_OK([&] {
        EXPECT_EQ(b.open(kFile, SHARED_FILE_READ), SHARED_ERR_OPLOCK);
        EXPECT_EQ(holders(5), std::vector{self});
    });
    ASSERT_EQ(a.setMode(kFile, SHARED_FILE_READ | SHARED_FILE_OPLOCK_SHARED), 0);
    EXPECT_EQ(combinedModeOf(scratch.table, kFile), SHARED_FILE_READ | SHARED_FILE_OPLOCK_SHARED);
    EXPECT_EQ(b.open(kFile, SHARED_FILE_READ), 0);
    EXPECT_EQ(holders(5), std::vector{self}) << "a shared oplock counts, b's open has none";
}

TEST_F(LocksOplock, HoldersAreListedInTheOrderOfOpensUpToTheCapacity) {
    EXPECT_EQ(holders(5), std::vector<uint32_t>{}) << "nobody has the file open";
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ | kOverride | SHARED_FILE_OPLOCK_SHARED, 1), 0);
    pid_t child = -1;
    EXPECT_CHILD_OK([&] {
        // The limit of 1 sends the open to the owner rule, which refuses another process.
        EXPECT_EQ(a.open(kFile, SHARED_FILE_READ | kOverride), SHARED_ERR_DENIED);
        child = ::getpid();
    });
    ASSERT_EQ(b.lock(kFile, 5, 5, SHARED_FILE_OPLOCK_MASK), 0);  // no open: never listed
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ | kOverride | SHARED_FILE_OPLOCK_BATCH), 0);
    EXPECT_EQ(holders(0), std::vector<uint32_t>{});
    EXPECT_EQ(holders(1), std::vector{self});
    EXPECT_EQ(holders(5), (std::vector{self, self})) << "once for each open";
    uint32_t count = 9;
    EXPECT_EQ(GetOplockHolders(scratch.table, &kFile, nullptr, 0, &count), 0);
    EXPECT_EQ(count, 0u);
}

TEST_F(LocksOplock, AnOplockCanBeKeptChangedOrGivenUpButNotTaken) {
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ | SHARED_FILE_OPLOCK_SHARED), 0);
    ASSERT_EQ(b.open(kFile, SHARED_FILE_READ | SHARED_FILE_OPLOCK_BATCH), 0);
    EXPECT_EQ(b.setMode(kFile, SHARED_FILE_READ | SHARED_FILE_OPLOCK_SHARED), SHARED_ERR_OPLOCK)
        << "it lost its bits when it joined";
    EXPECT_EQ(a.setMode(kFile, SHARED_FILE_READ | SHARED_FILE_OPLOCK_EXCLUSIVE), 0);
    EXPECT_EQ(a.setMode(kFile, SHARED_FILE_WRITE), 0);
    EXPECT_EQ(a.setMode(kFile, SHARED_FILE_READ | SHARED_FILE_OPLOCK_SHARED), SHARED_ERR_OPLOCK);
    EXPECT_EQ(combinedModeOf(scratch.table, kFile), SHARED_FILE_READ | SHARED_FILE_WRITE)
        << "a refused change changes nothing";
}

TEST_F(LocksOplock, ANewModeIsStoredWholeAndCountsForLaterOpens) {
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ), 0);
    ASSERT_EQ(b.open(kFile, SHARED_FILE_WRITE), 0);
    const uint32_t mode =
        SHARED_FILE_DENY_WRITE | SHARED_FILE_IGNORE_OPLOCKS | 0x80000000u | 0x800u;
    EXPECT_EQ(a.setMode(kFile, mode), 0) << "no share test against b";
    EXPECT_EQ(combinedModeOf(scratch.table, kFile), mode | SHARED_FILE_WRITE);
    EXPECT_EQ((Opener{scratch.table, 3, 3}).open(kFile, SHARED_FILE_WRITE), SHARED_ERR_DENIED);
}

TEST_F(LocksOplock, OnlyTheOldestRecordOfTheHolderChanges) {
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ), 0);
    ASSERT_EQ(a.open(kFile, SHARED_FILE_WRITE), 0);
    ASSERT_EQ(a.setMode(kFile, SHARED_FILE_DELETE), 0);
    EXPECT_EQ(combinedModeOf(scratch.table, kFile), SHARED_FILE_WRITE | SHARED_FILE_DELETE);
}

TEST_F(LocksOplock, WhoHasNothingOnTheFileChangesNothing) {
    EXPECT_EQ(a.setMode(kFile, SHARED_FILE_READ), SHARED_ERR_NOTOPEN);
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ | SHARED_FILE_OPLOCK_SHARED), 0);
    EXPECT_EQ(b.setMode(kFile, SHARED_FILE_READ), SHARED_ERR_DENIED);
    EXPECT_EQ((Opener{scratch.table, 1, 11}).setMode(kFile, SHARED_FILE_READ), SHARED_ERR_DENIED);
    EXPECT_CHILD_OK([&] { EXPECT_EQ(a.setMode(kFile, SHARED_FILE_READ), SHARED_ERR_DENIED); });
}

}  // namespace
