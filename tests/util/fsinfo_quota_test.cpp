#include "util/util_internal.h"

#include <cstring>
#include <gtest/gtest.h>
#include <sys/quota.h>

namespace {

// On a file system of 4096-byte blocks with room for everything that the tests allow.
template <class Block>
void expectUnder(const Block &quota, int quotaBlockSize, uint64_t freeBlocks, uint64_t totalBlocks,
                 uint64_t freeFiles = 700, uint64_t totalFiles = 800, uint64_t blockSize = 4096) {
    FSInfo info{blockSize, 9000, 10000, 700, 800, 9000, 10000, 700, 800, FSINFO_DISK_FS};
    FSInfo expected = info;
    expected.freeBlocks = freeBlocks;
    expected.totalBlocks = totalBlocks;
    expected.freeFiles = freeFiles;
    expected.totalFiles = totalFiles;
    if (totalBlocks != 10000 || totalFiles != 800) expected.flags |= FSINFO_QUOTA;
    applyQuota(quota, quotaBlockSize, &info);
    EXPECT_EQ(std::memcmp(&info, &expected, offsetof(FSInfo, flags) + sizeof info.flags), 0)
        << freeBlocks << " " << freeFiles;
}

// Soft limits of 1 take no part.
QuotaBlock current(uint64_t blockLimit, uint64_t usedBytes, uint64_t fileLimit = 0,
                   uint64_t usedFiles = 0) {
    QuotaBlock quota{};
    quota.blockHardLimit = blockLimit;
    quota.usedBytes = usedBytes;
    quota.fileHardLimit = fileLimit;
    quota.usedFiles = usedFiles;
    quota.blockSoftLimit = quota.fileSoftLimit = 1;
    return quota;
}

OldQuotaBlock old(uint32_t blockLimit, uint32_t usedBlocks, uint32_t fileLimit = 0,
                  uint32_t usedFiles = 0) {
    return {blockLimit, 1, usedBlocks, fileLimit, 1, usedFiles, 0, 0};
}

TEST(QuotaArithmetic, CurrentInterfaceCountsUseInBytesAndTheOldOneInBlocksWithin64Bits) {
    expectUnder(current(1000, 500000, 50, 4), 0, 127, 250, 46, 50);
    expectUnder(current(1000, 500000), 4096, 877, 1000);
    expectUnder(old(1000, 400, 50, 4), 0, 75, 125, 46, 50);
    expectUnder(old(1000, 400), 4096, 600, 1000);
    expectUnder(old(0xffffffff, 0xfffffffe), 4096, 1, 0xffffffff);
    expectUnder(old(0xffffffff, 0), 0, 536870911, 2199023255040 / 4096);
}

TEST(QuotaArithmetic, UseAtOrAboveALimitLeavesNothingFree) {
    for (const uint64_t extra : {0u, 1u, 1000000u})
        expectUnder(current(1000, 1024000 + extra, 50, 50 + extra), 0, 0, 250, 0, 50);
    expectUnder(old(1000, 1001, 50, 51), 0, 0, 125, 0, 50);
}

TEST(QuotaArithmetic, LimitOfZeroKeepsTheFileSystemsFigures) {
    expectUnder(current(0, 500000, 50, 4), 0, 9000, 10000, 46, 50);
    expectUnder(old(1000, 400, 0, 4), 0, 75, 125);
    expectUnder(current(0, 500000, 0, 4), 0, 9000, 10000);
}

// Comparisons are signed and divisions unsigned, also where a limit looks negative.
TEST(QuotaArithmetic, NegativeLimitsLeaveNothingFreeButKeepTheirUnsignedTotal) {
    expectUnder(current(1, 0), -4096, 0, (UINT64_MAX - 4095) / 4096);
    expectUnder(old(2, 1), -4096, 0, (UINT64_MAX - 8191) / 4096);
    expectUnder(current(0, 0, UINT64_MAX, 7), 0, 9000, 10000, 0, UINT64_MAX);
    expectUnder(current(0, 0, 5, UINT64_MAX), 0, 9000, 10000, 6, 5);
}

TEST(QuotaArithmetic, BlockSizeOfZeroLeavesTheBlockCounts) {
    expectUnder(current(1000, 0, 50, 4), 0, 9000, 10000, 46, 50, 0);
    expectUnder(old(1000, 0, 50, 4), 0, 9000, 10000, 46, 50, 0);
}

// The system's own header, where it has the current block, tells the same places.
TEST(QuotaArithmetic, CurrentBlockIsTheSystems) {
    EXPECT_EQ(sizeof(QuotaBlock), sizeof(dqblk));
    EXPECT_EQ(offsetof(QuotaBlock, usedBytes), offsetof(dqblk, dqb_curspace));
    EXPECT_EQ(offsetof(QuotaBlock, fileHardLimit), offsetof(dqblk, dqb_ihardlimit));
    EXPECT_EQ(offsetof(QuotaBlock, usedFiles), offsetof(dqblk, dqb_curinodes));
}

}  // namespace
