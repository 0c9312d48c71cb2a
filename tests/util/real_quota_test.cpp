// GetFSInfo beside a kernel that really keeps a user's quota: an ext4 image with the quota feature
// on a loop device. Few kernels at hand have the quota format compiled in, and elsewhere this is
// skipped; `./run quota-test` boots one that has.
#include "util/own_mounts.h"
#include "util/util_internal.h"

#include <sys/quota.h>

namespace {

constexpr uid_t kUser = 54321;
constexpr uint64_t kBlockLimitKiB = 1000, kFileLimit = 50;

TEST(RealQuota, FiguresAreTheKernelsForTheEffectiveUser) {
    runWithOwnMounts([] {
        const std::string place = newExt4("place", "-O quota -E quotatype=usrquota"),
                          home = place + "/home";
        dqblk limits{};
        limits.dqb_bhardlimit = kBlockLimitKiB;
        limits.dqb_ihardlimit = kFileLimit;
        limits.dqb_valid = QIF_LIMITS;
        ASSERT_EQ(::quotactl(QCMD(Q_SETQUOTA, USRQUOTA), findMountedDevice(deviceNumber(place)),
                             static_cast<int>(kUser), reinterpret_cast<char *>(&limits)),
                  0)
            << std::strerror(errno);
        ASSERT_EQ(::mkdir(home.c_str(), 0755), 0);
        ASSERT_EQ(::chown(home.c_str(), kUser, 0), 0);
        // Used: the directory's block and 123 blocks of the file, of 4096 bytes each; two nodes.
        ASSERT_EQ(::seteuid(kUser), 0);
        std::ofstream(home + "/file") << std::string(500000, 'x');
        ::sync();
        FSInfo info{};
        EXPECT_EQ(GetFSInfo(-1, home.c_str(), 0, &info), 0);
        EXPECT_EQ(info.flags, FSINFO_DISK_FS | FSINFO_QUOTA);
        EXPECT_EQ(info.freeBlocks, (kBlockLimitKiB * 1024 - 124 * 4096) / 4096);
        EXPECT_EQ(info.totalBlocks, kBlockLimitKiB * 1024 / 4096);
        EXPECT_EQ(info.freeFiles, kFileLimit - 2);
        EXPECT_EQ(info.totalFiles, kFileLimit);
        ASSERT_EQ(::seteuid(0), 0);  // the superuser has no limit
        EXPECT_EQ(GetFSInfo(-1, home.c_str(), 0, &info), 0);
        EXPECT_EQ(info.flags, FSINFO_DISK_FS);
    });
}

}  // namespace
