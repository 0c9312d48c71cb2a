// GetFSInfo beside a kernel that really keeps a user's quota: an ext4 image with the quota feature
// on a loop device. Few kernels at hand have the quota format compiled in, and elsewhere this is
// skipped; `./run quota-test` boots one that has.
#include "iosched/util.h"
#include "util/own_mounts.h"

#include <fstream>
#include <mntent.h>
#include <sys/quota.h>

namespace {

constexpr uid_t kUser = 54321;

// The device of a mount, by the mount's own place, and not by device numbers.
std::string deviceAt(const std::string &place) {
    std::string device;
    FILE *table = ::setmntent("/proc/mounts", "r");
    while (const mntent *line = ::getmntent(table)) {
        if (line->mnt_dir == place) device = line->mnt_fsname;
    }
    ::endmntent(table);
    return device;
}

void setLimits(const std::string &device, uint64_t blocks, uint64_t files) {
    dqblk limits{};
    limits.dqb_bhardlimit = blocks;
    limits.dqb_ihardlimit = files;
    limits.dqb_valid = QIF_LIMITS;
    ASSERT_EQ(::quotactl(QCMD(Q_SETQUOTA, USRQUOTA), device.c_str(), static_cast<int>(kUser),
                         reinterpret_cast<char *>(&limits)),
              0)
        << std::strerror(errno);
}

void expectFigures(const std::string &path, uint32_t flags, uint64_t freeBlocks,
                   uint64_t totalBlocks, uint64_t freeFiles, uint64_t totalFiles) {
    FSInfo info{};
    EXPECT_EQ(GetFSInfo(-1, path.c_str(), 0, &info), 0);
    EXPECT_EQ(info.flags, flags);
    EXPECT_EQ(info.freeBlocks, freeBlocks);
    EXPECT_EQ(info.totalBlocks, totalBlocks);
    EXPECT_EQ(info.freeFiles, freeFiles);
    EXPECT_EQ(info.totalFiles, totalFiles);
}

TEST(RealQuota, FiguresAreTheKernelsForTheEffectiveUser) {
    runWithOwnMounts([] {
        const std::string place = newExt4("place", "-O quota -E quotatype=usrquota"),
                          home = place + "/home";
        const std::string device = deviceAt(place);
        ASSERT_EQ(::mkdir(home.c_str(), 0755), 0);
        ASSERT_EQ(::chown(home.c_str(), kUser, 0), 0);
        ASSERT_EQ(::seteuid(kUser), 0);
        // Used: the directory's block and 123 blocks of the file, of 4096 bytes each; two nodes.
        std::ofstream(home + "/file") << std::string(500000, 'x');
        ::sync();
        const auto expectUnder = [&](uint64_t blockLimit, uint64_t fileLimit, auto... limited) {
            ASSERT_EQ(::seteuid(0), 0);
            setLimits(device, blockLimit, fileLimit);
            ASSERT_EQ(::seteuid(kUser), 0);
            expectFigures(home, FSINFO_DISK_FS | FSINFO_QUOTA, static_cast<uint64_t>(limited)...);
        };
        expectUnder(100, 2, 0, 25, 0, 2);
        expectUnder(1000, 50, (1000 * 1024 - 124 * 4096) / 4096, 250, 48, 50);
        SetQuotaBlockSize(4096);
        expectFigures(home, FSINFO_DISK_FS | FSINFO_QUOTA, 1000 - 124, 1000, 48, 50);
        ASSERT_EQ(::seteuid(0), 0);  // the superuser has no limit
        FSInfo all{};
        EXPECT_EQ(GetFSInfo(-1, home.c_str(), FSINFO_NO_QUOTA, &all), 0);
        expectFigures(home, FSINFO_DISK_FS, all.fsFreeBlocks, all.fsTotalBlocks, all.fsFreeFiles,
                      all.fsTotalFiles);
    });
}

}  // namespace
