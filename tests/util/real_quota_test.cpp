// GetFSInfo beside a kernel that really keeps a user's quota: an ext4 image with the quota feature
// on a loop device. Few kernels at hand have the quota format compiled in, and elsewhere this is
// skipped; `./run quota-test` boots one that has.
#include "iosched/util.h"
#include "util/own_mounts.h"

#include <fcntl.h>
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

void writeFile(const std::string &path, size_t bytes) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    const std::string data(bytes, 'x');
    EXPECT_EQ(::write(fd, data.data(), bytes), static_cast<ssize_t>(bytes));
    EXPECT_EQ(::fsync(fd), 0);
    ::close(fd);
}

// Runs `act` in a child that is the unprivileged user, for good.
template <class Act>
void asUser(Act act) {
    EXPECT_CHILD_OK([&] {
        ASSERT_EQ(::setresuid(kUser, kUser, kUser), 0);
        act();
    });
}

FSInfo infoOf(const std::string &path, int options = 0) {
    FSInfo info{};
    EXPECT_EQ(GetFSInfo(-1, path.c_str(), options, &info), 0);
    return info;
}

void expectFigures(const FSInfo &info, uint64_t freeBlocks, uint64_t totalBlocks,
                   uint64_t freeFiles, uint64_t totalFiles) {
    EXPECT_EQ(info.freeBlocks, freeBlocks);
    EXPECT_EQ(info.totalBlocks, totalBlocks);
    EXPECT_EQ(info.freeFiles, freeFiles);
    EXPECT_EQ(info.totalFiles, totalFiles);
}

void expectNoQuota(const FSInfo &info) {
    EXPECT_EQ(info.flags, FSINFO_DISK_FS);
    expectFigures(info, info.fsFreeBlocks, info.fsTotalBlocks, info.fsFreeFiles, info.fsTotalFiles);
}

void checkFiguresUnderLimits(const std::string &device, const std::string &home) {
    // Used: the directory's block and 123 blocks of the file, of 4096 bytes each; two file nodes.
    setLimits(device, 1000, 50);
    asUser([&] {
        writeFile(home + "/file", 500000);
        const FSInfo info = infoOf(home);
        EXPECT_EQ(info.flags, FSINFO_DISK_FS | FSINFO_QUOTA);
        expectFigures(info, (1000 * 1024 - 124 * 4096) / 4096, 250, 48, 50);
        expectNoQuota(infoOf(home, FSINFO_NO_QUOTA));
        expectNoQuota(infoOf(home, FSINFO_ALL_FREE));
        SetQuotaBlockSize(4096);
        expectFigures(infoOf(home), 1000 - 124, 1000, 48, 50);
    });
    // The effective user id decides: the superuser has no limit.
    expectNoQuota(infoOf(home));

    setLimits(device, 100, 2);
    asUser([&] { expectFigures(infoOf(home), 0, 25, 0, 2); });
    setLimits(device, 0, 50);
    asUser([&] {
        const FSInfo info = infoOf(home);
        EXPECT_TRUE(info.flags & FSINFO_QUOTA);
        expectFigures(info, info.fsFreeBlocks, info.fsTotalBlocks, 48, 50);
    });
    setLimits(device, 0, 0);
    asUser([&] { expectNoQuota(infoOf(home)); });
}

TEST(RealQuota, FiguresAreTheKernelsForTheEffectiveUser) {
    runWithOwnMounts([] {
        ScratchMount scratch;
        const std::string place =
            scratch.ext4("place", {"-O", "quota", "-E", "quotatype=usrquota"});
        const std::string home = place + "/home";
        ASSERT_EQ(::mkdir(home.c_str(), 0755), 0);
        ASSERT_EQ(::chown(home.c_str(), kUser, 0), 0);
        checkFiguresUnderLimits(deviceAt(place), home);
    });
}

}  // namespace
