// What the file-system figures' units share, and what their tests reach.
#pragma once

#include "iosched/util.h"

#include <cstddef>
#include <type_traits>

namespace iosched_lib {

// The kernel's generic quota block, as quotactl fills it.
//
//   0x00  8  blockHardLimit  in quota blocks, 0 = no limit
//   0x08  8  blockSoftLimit
//   0x10  8  usedBytes
//   0x18  8  fileHardLimit   0 = no limit
//   0x20  8  fileSoftLimit
//   0x28  8  usedFiles
//   0x30  8  blockGrace      seconds
//   0x38  8  fileGrace
//   0x40  4  validFields     mask; then 4 bytes of padding
struct QuotaBlock {
    uint64_t blockHardLimit;
    uint64_t blockSoftLimit;
    uint64_t usedBytes;
    uint64_t fileHardLimit;
    uint64_t fileSoftLimit;
    uint64_t usedFiles;
    uint64_t blockGrace;
    uint64_t fileGrace;
    uint32_t validFields;
    uint32_t padding;
};
static_assert(std::is_trivially_copyable_v<QuotaBlock> && sizeof(QuotaBlock) == 0x48);
static_assert(offsetof(QuotaBlock, usedBytes) == 0x10 && offsetof(QuotaBlock, usedFiles) == 0x28);
static_assert(offsetof(QuotaBlock, validFields) == 0x40);

// The quota block of kernels that have no /proc/sys/fs/quota.
//
//   0x00  4  blockHardLimit  in quota blocks, 0 = no limit
//   0x04  4  blockSoftLimit
//   0x08  4  usedBlocks      in quota blocks
//   0x0c  4  fileHardLimit   0 = no limit
//   0x10  4  fileSoftLimit
//   0x14  4  usedFiles
//   0x18  8  blockGrace      seconds
//   0x20  8  fileGrace
struct OldQuotaBlock {
    uint32_t blockHardLimit;
    uint32_t blockSoftLimit;
    uint32_t usedBlocks;
    uint32_t fileHardLimit;
    uint32_t fileSoftLimit;
    uint32_t usedFiles;
    int64_t blockGrace;
    int64_t fileGrace;
};
static_assert(std::is_trivially_copyable_v<OldQuotaBlock> && sizeof(OldQuotaBlock) == 0x28);
static_assert(offsetof(OldQuotaBlock, usedBlocks) == 0x08);
static_assert(offsetof(OldQuotaBlock, usedFiles) == 0x14);
static_assert(offsetof(OldQuotaBlock, blockGrace) == 0x18);

// Puts a user's quota into fields 2 to 5 and the flags of figures that hold the file system's.
// quotaBlockSize is the unit of the block limits in bytes, 0 for the interface's own.
void applyQuota(const QuotaBlock &quota, int quotaBlockSize, FSInfo *info);
void applyQuota(const OldQuotaBlock &quota, int quotaBlockSize, FSInfo *info);

// The device mounted where files have this st_dev, as quotactl takes it; null when the mount table
// does not tell. The string stays the cache's and lives as long as the process.
const char *findMountedDevice(uint64_t dev);

}  // namespace iosched_lib

using namespace iosched_lib;
