// A file system's figures, as they are and as a disk quota leaves them to the calling user.
//
// Only the query of the file system itself can fail. Whatever keeps the quota from being looked up
// leaves the file system's figures in place: a server has to answer its client with something, and
// most file systems have no quotas anyway.

#include "util/util_internal.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <optional>
#include <sys/quota.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

namespace {

// File systems that live on a disk of this machine, by their type number.
constexpr uint64_t kDiskFileSystems[] = {
    0xef53,      // ext2, ext3, ext4
    0xef51,      // old ext2
    0x4a465321,  // "JFS!"; the JFS of Linux has another number
    0x52654973,  // ReiserFS
    0x11954,     // UFS
    0x58465342,  // XFS
    0x9123683e,  // Btrfs
};

// quotactl commands: "get quota" of user quotas, per interface.
constexpr uint32_t kGetUserQuota = 0x80000700;
constexpr uint32_t kGetUserQuotaOld = 0x30000;

// The system's header describes the current interface alone.
static_assert(kGetUserQuota == static_cast<uint32_t>(QCMD(Q_GETQUOTA, USRQUOTA)));
static_assert(sizeof(QuotaBlock) == sizeof(dqblk));
static_assert(offsetof(QuotaBlock, blockHardLimit) == offsetof(dqblk, dqb_bhardlimit));
static_assert(offsetof(QuotaBlock, usedBytes) == offsetof(dqblk, dqb_curspace));
static_assert(offsetof(QuotaBlock, fileHardLimit) == offsetof(dqblk, dqb_ihardlimit));
static_assert(offsetof(QuotaBlock, usedFiles) == offsetof(dqblk, dqb_curinodes));

std::optional<bool> isNewQuota;  // the kernel's interface: current or old; empty until first needed
int defaultQBockSize = 0;        // bytes in a quota block; 0 means the interface's own

bool quotaInterfaceIsNew() {
    struct stat ignored;
    if (!isNewQuota) isNewQuota = ::stat("/proc/sys/fs/quota", &ignored) == 0;
    return *isNewQuota;
}

template <class Block>
void applyUserQuota(uint32_t command, const char *device, FSInfo *info) {
    Block quota{};
    const int user = static_cast<int>(::geteuid());
    if (::quotactl(static_cast<int>(command), device, user, reinterpret_cast<char *>(&quota)) !=
        0) {
        return;
    }
    applyQuota(quota, defaultQBockSize, info);
}

void lookUpQuota(const char *path, FSInfo *info) {
    struct stat file;
    if (::stat(path, &file) != 0) return;
    const char *device = findMountedDevice(file.st_dev);
    if (device == nullptr) return;
    if (quotaInterfaceIsNew()) {
        applyUserQuota<QuotaBlock>(kGetUserQuota, device, info);
    } else {
        applyUserQuota<OldQuotaBlock>(kGetUserQuotaOld, device, info);
    }
}

// The free count drops below 0 on some file systems while the superuser's reserve is in use.
uint64_t atLeastZero(uint64_t blocks) {
    return static_cast<int64_t>(blocks) < 0 ? 0 : blocks;
}

FSInfo figuresOf(const struct statfs &fs, int options) {
    FSInfo info{};
    info.blockSize = static_cast<uint64_t>(fs.f_bsize);
    info.freeBlocks = atLeastZero((options & FSINFO_ALL_FREE) != 0 ? fs.f_bfree : fs.f_bavail);
    info.totalBlocks = fs.f_blocks;
    info.freeFiles = fs.f_ffree;
    info.totalFiles = fs.f_files;
    info.fsFreeBlocks = info.freeBlocks;
    info.fsTotalBlocks = info.totalBlocks;
    info.fsFreeFiles = info.freeFiles;
    info.fsTotalFiles = info.totalFiles;
    const auto type = static_cast<uint64_t>(fs.f_type);
    if (std::ranges::find(kDiskFileSystems, type) != std::end(kDiskFileSystems)) {
        info.flags = FSINFO_DISK_FS;
    }
    return info;
}

int queryFileSystem(int fd, const char *path, struct statfs *fs) {
    if (fd != -1) return ::fstatfs(fd, fs);
    if (path != nullptr) return ::statfs(path, fs);
    errno = EFAULT;  // what the kernel says; the C library forbids to ask it with a null pointer
    return -1;
}

}  // namespace

int GetFSInfo(int fd, const char *path, int options, FSInfo *info) {
    struct statfs fs;
    if (queryFileSystem(fd, path, &fs) != 0) return -1;
    *info = figuresOf(fs, options);
    if ((options & (FSINFO_ALL_FREE | FSINFO_NO_QUOTA)) != 0) return 0;
    if (path == nullptr || path[0] == '\0') return 0;
    lookUpQuota(path, info);
    return 0;
}

int SetQuotaBlockSize(int size) {
    defaultQBockSize = size;
    return 0;
}
