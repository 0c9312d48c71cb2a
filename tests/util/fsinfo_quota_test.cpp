#include "util/util_internal.h"

#include <gtest/gtest.h>
#include <sys/quota.h>

namespace {

// A file system of 4096-byte blocks with room for everything that the tests allow.
FSInfo fileSystem() {
    return {4096, 9000, 10000, 700, 800, 9000, 10000, 700, 800, FSINFO_DISK_FS};
}

template <class Block>
FSInfo applied(const Block &quota, int quotaBlockSize = 0) {
    FSInfo info = fileSystem();
    applyQuota(quota, quotaBlockSize, &info);
    EXPECT_EQ(info.fsFreeBlocks, 9000u);
    EXPECT_EQ(info.fsTotalBlocks, 10000u);
    EXPECT_EQ(info.fsFreeFiles, 700u);
    EXPECT_EQ(info.fsTotalFiles, 800u);
    return info;
}

void expectBlocks(const FSInfo &info, uint64_t free, uint64_t total) {
    EXPECT_EQ(info.freeBlocks, free);
    EXPECT_EQ(info.totalBlocks, total);
}

void expectFiles(const FSInfo &info, uint64_t free, uint64_t total) {
    EXPECT_EQ(info.freeFiles, free);
    EXPECT_EQ(info.totalFiles, total);
}

QuotaBlock quotaBlock(uint64_t blockLimit, uint64_t usedBytes, uint64_t fileLimit = 0,
                      uint64_t usedFiles = 0) {
    QuotaBlock quota{};
    quota.blockHardLimit = blockLimit;
    quota.blockSoftLimit = 1;  // takes no part
    quota.usedBytes = usedBytes;
    quota.fileHardLimit = fileLimit;
    quota.fileSoftLimit = 1;
    quota.usedFiles = usedFiles;
    return quota;
}

OldQuotaBlock oldQuotaBlock(uint32_t blockLimit, uint32_t usedBlocks, uint32_t fileLimit = 0,
                            uint32_t usedFiles = 0) {
    return {blockLimit, 1, usedBlocks, fileLimit, 1, usedFiles, 0, 0};
}

TEST(QuotaArithmetic, CurrentInterfaceCountsLimitsInBlocksAndUseInBytes) {
    const FSInfo info = applied(quotaBlock(1000, 500000, 50, 4));
    expectBlocks(info, 127, 250);
    expectFiles(info, 46, 50);
    EXPECT_EQ(info.flags, FSINFO_DISK_FS | FSINFO_QUOTA);
    expectBlocks(applied(quotaBlock(1000, 500000), 4096), 877, 1000);
}

TEST(QuotaArithmetic, OldInterfaceCountsBothInBlocksWithin64Bits) {
    const FSInfo info = applied(oldQuotaBlock(1000, 400, 50, 4));
    expectBlocks(info, 75, 125);
    expectFiles(info, 46, 50);
    expectBlocks(applied(oldQuotaBlock(1000, 400), 4096), 600, 1000);
    expectBlocks(applied(oldQuotaBlock(0xffffffff, 0xfffffffe), 4096), 1, 0xffffffff);
    expectBlocks(applied(oldQuotaBlock(0xffffffff, 0)), 536870911, 2199023255040 / 4096);
}

TEST(QuotaArithmetic, UseAtOrAboveALimitLeavesNothingFree) {
    for (const uint64_t extra : {0u, 1u, 1000000u}) {
        const FSInfo info = applied(quotaBlock(1000, 1024000 + extra, 50, 50 + extra));
        expectBlocks(info, 0, 250);
        expectFiles(info, 0, 50);
    }
    const FSInfo old = applied(oldQuotaBlock(1000, 1001, 50, 51));
    expectBlocks(old, 0, 125);
    expectFiles(old, 0, 50);
}

TEST(QuotaArithmetic, LimitOfZeroKeepsTheFileSystemsFigures) {
    const FSInfo onlyFiles = applied(quotaBlock(0, 500000, 50, 4));
    expectBlocks(onlyFiles, 9000, 10000);
    expectFiles(onlyFiles, 46, 50);
    EXPECT_TRUE(onlyFiles.flags & FSINFO_QUOTA);
    const FSInfo onlyBlocks = applied(oldQuotaBlock(1000, 400, 0, 4));
    expectBlocks(onlyBlocks, 75, 125);
    expectFiles(onlyBlocks, 700, 800);
    EXPECT_TRUE(onlyBlocks.flags & FSINFO_QUOTA);
    const FSInfo neither = applied(quotaBlock(0, 500000, 0, 4));
    expectBlocks(neither, 9000, 10000);
    expectFiles(neither, 700, 800);
    EXPECT_FALSE(neither.flags & FSINFO_QUOTA);
}

// Comparisons are signed and divisions unsigned, also where a limit looks negative.
TEST(QuotaArithmetic, NegativeLimitsLeaveNothingFreeButKeepTheirUnsignedTotal) {
    expectBlocks(applied(quotaBlock(1, 0), -4096), 0, (UINT64_MAX - 4095) / 4096);
    expectBlocks(applied(oldQuotaBlock(2, 1), -4096), 0, (UINT64_MAX - 8191) / 4096);
    expectFiles(applied(quotaBlock(0, 0, UINT64_MAX, 7)), 0, UINT64_MAX);
    expectFiles(applied(quotaBlock(0, 0, 5, UINT64_MAX)), 6, 5);
}

TEST(QuotaArithmetic, BlockSizeOfZeroLeavesTheBlockCounts) {
    FSInfo info = fileSystem();
    info.blockSize = 0;
    applyQuota(quotaBlock(1000, 0, 50, 4), 0, &info);
    expectBlocks(info, 9000, 10000);
    expectFiles(info, 46, 50);
}

// The system's own header, where it has the current block, tells the same places.
TEST(QuotaArithmetic, CurrentBlockIsTheSystems) {
    EXPECT_EQ(sizeof(QuotaBlock), sizeof(dqblk));
    EXPECT_EQ(offsetof(QuotaBlock, usedBytes), offsetof(dqblk, dqb_curspace));
    EXPECT_EQ(offsetof(QuotaBlock, fileHardLimit), offsetof(dqblk, dqb_ihardlimit));
    EXPECT_EQ(offsetof(QuotaBlock, usedFiles), offsetof(dqblk, dqb_curinodes));
}

}  // namespace
