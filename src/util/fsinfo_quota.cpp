// From a user's quota block to the figures that the user sees.
//
// Pure arithmetic, apart from any kernel, since the two interfaces count in units of their own: the
// current one gives the used space in bytes, the old one in quota blocks. Sums are unsigned and may
// wrap; whether anything is free is a signed comparison, so that a limit that a negative block size
// made negative leaves nothing free.

#include "util/util_internal.h"

namespace {

constexpr int kDefaultQuotaBlockBytes = 1024;
constexpr int kDefaultOldQuotaBlockBytes = 512;

uint64_t freeBelow(uint64_t limit, uint64_t used) {
    return static_cast<int64_t>(limit) > static_cast<int64_t>(used) ? limit - used : 0;
}

// A unit as a factor; a negative one is sign-extended.
uint64_t bytesPerBlock(int quotaBlockSize, int defaultSize) {
    return static_cast<uint64_t>(int64_t{quotaBlockSize != 0 ? quotaBlockSize : defaultSize});
}

void limitBlocks(uint64_t limitBytes, uint64_t usedBytes, FSInfo *info) {
    info->flags |= FSINFO_QUOTA;
    info->freeBlocks = freeBelow(limitBytes, usedBytes) / info->blockSize;
    info->totalBlocks = limitBytes / info->blockSize;
}

void limitFiles(uint64_t limit, uint64_t used, FSInfo *info) {
    info->flags |= FSINFO_QUOTA;
    info->freeFiles = freeBelow(limit, used);
    info->totalFiles = limit;
}

}  // namespace

void iosched_lib::applyQuota(const QuotaBlock &quota, int quotaBlockSize, FSInfo *info) {
    const uint64_t unit = bytesPerBlock(quotaBlockSize, kDefaultQuotaBlockBytes);
    // A block size of 0, which a user-space file system may report, gives no unit to count in.
    if (quota.blockHardLimit != 0 && info->blockSize != 0) {
        limitBlocks(quota.blockHardLimit * unit, quota.usedBytes, info);
    }
    if (quota.fileHardLimit != 0) limitFiles(quota.fileHardLimit, quota.usedFiles, info);
}

void iosched_lib::applyQuota(const OldQuotaBlock &quota, int quotaBlockSize, FSInfo *info) {
    const uint64_t unit = bytesPerBlock(quotaBlockSize, kDefaultOldQuotaBlockBytes);
    if (quota.blockHardLimit != 0 && info->blockSize != 0) {
        limitBlocks(quota.blockHardLimit * unit, quota.usedBlocks * unit, info);
    }
    if (quota.fileHardLimit != 0) limitFiles(quota.fileHardLimit, quota.usedFiles, info);
}
