#include "iosched/util.h"
#include "util/own_mounts.h"

#include <fcntl.h>
#include <sys/statfs.h>

namespace {

bool operator==(const FSInfo &a, const FSInfo &b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

FSInfo infoOf(int fd, const char *path, int options = 0) {
    FSInfo info;
    std::memset(&info, 0, sizeof info);
    EXPECT_EQ(GetFSInfo(fd, path, options, &info), 0);
    return info;
}

// The figures must be statfs's in both views, without a quota.
void expectFileSystems(const FSInfo &info, const std::string &path, uint32_t flags) {
    struct statfs fs {};
    ASSERT_EQ(::statfs(path.c_str(), &fs), 0);
    EXPECT_EQ(info.blockSize, static_cast<uint64_t>(fs.f_bsize));
    EXPECT_EQ(info.freeBlocks, fs.f_bavail);
    EXPECT_EQ(info.totalBlocks, fs.f_blocks);
    EXPECT_EQ(info.freeFiles, fs.f_ffree);
    EXPECT_EQ(info.totalFiles, fs.f_files);
    EXPECT_EQ(info.fsFreeBlocks, info.freeBlocks);
    EXPECT_EQ(info.fsTotalBlocks, info.totalBlocks);
    EXPECT_EQ(info.fsFreeFiles, info.freeFiles);
    EXPECT_EQ(info.fsTotalFiles, info.totalFiles);
    EXPECT_EQ(info.flags, flags);
}

TEST(GetFSInfo, TmpfsIsNoDiskFileSystem) {
    runWithOwnMounts([] {
        ScratchMount scratch;
        const std::string place = scratch.tmpfs("place", "size=3m,nr_inodes=77");
        expectFileSystems(infoOf(-1, place.c_str()), place, 0);
        EXPECT_EQ(infoOf(-1, place.c_str()).totalFiles, 77u);
    });
}

TEST(GetFSInfo, Ext4IsADiskFileSystemWithAReserve) {
    runWithOwnMounts([] {
        ScratchMount scratch;
        const std::string place = scratch.ext4("place", {"-m", "20"});
        expectFileSystems(infoOf(-1, place.c_str()), place, FSINFO_DISK_FS);
        struct statfs fs {};
        ASSERT_EQ(::statfs(place.c_str(), &fs), 0);
        const FSInfo all = infoOf(-1, place.c_str(), FSINFO_ALL_FREE);
        EXPECT_EQ(all.freeBlocks, fs.f_bfree);
        EXPECT_EQ(all.fsFreeBlocks, fs.f_bfree);
        EXPECT_GT(fs.f_bfree, fs.f_bavail);
    });
}

TEST(GetFSInfo, DescriptorIsQueriedBeforeThePathAndNeedsNone) {
    runWithOwnMounts([] {
        ScratchMount scratch;
        const std::string place = scratch.tmpfs("place"), other = scratch.tmpfs("other", "size=5m");
        const int fd = ::open(place.c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        const FSInfo expected = infoOf(-1, place.c_str());
        for (const char *path : {static_cast<const char *>(nullptr), "", "/no/such/place",
                                 other.c_str(), place.c_str()}) {
            EXPECT_TRUE(infoOf(fd, path) == expected) << (path != nullptr ? path : "null");
        }
        ::close(fd);
    });
}

TEST(GetFSInfo, FailureReportsTheQuerysErrorAndLeavesTheRecord) {
    FSInfo info, untouched;
    std::memset(&info, 0x5a, sizeof info);
    untouched = info;
    const struct {
        int fd;
        const char *path;
        int error;
    } cases[] = {
        {-1, "/no/such/place", ENOENT}, {-1, "", ENOENT}, {-1, nullptr, EFAULT}, {-2, "/", EBADF}};
    for (const auto &failing : cases) {
        errno = 0;
        EXPECT_EQ(GetFSInfo(failing.fd, failing.path, 0, &info), -1);
        EXPECT_EQ(errno, failing.error);
        EXPECT_TRUE(info == untouched);
    }
}

TEST(GetFSInfo, SettingTheQuotaBlockSizeSucceedsWithAnyValue) {
    for (const int size : {4096, -1, 0})
        EXPECT_EQ(SetQuotaBlockSize(size), 0);
}

}  // namespace
