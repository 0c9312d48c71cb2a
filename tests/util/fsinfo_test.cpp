// GetFSInfo with a kernel played by the test: figures, types and quota interfaces that the kernel at
// hand does not have. The mount-point cache, with a mount table written by the test. And a kernel
// that really keeps quotas, where there is one.
//
// What mounts runs in a child with a mount namespace of its own and an empty tmpfs as its directory
// of temporary files, so that everything it makes goes away with it, loop devices included. A
// scenario that this machine cannot run ends its child through skipScenario(), and the test is
// skipped.
#include "support/in_child.h"
#include "util/util_internal.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <sys/mount.h>
#include <sys/quota.h>
#include <sys/stat.h>
#include <sys/statfs.h>

namespace {

// Allocations fail for the calls whose bit is set, the next call's bit being the lowest.
unsigned failingAllocations = 0;

bool nextAllocationFails() {
    const bool fails = (failingAllocations & 1) != 0;
    failingAllocations >>= 1;
    return fails;
}

// What fstatfs answers; unless it is set, the real one does.
const struct statfs *playedFigures = nullptr;

// Of quotactl, while it is played: device, user and hexadecimal command of each call.
std::string asked;
bool quotasArePlayed = false;
std::string playedBlock;  // empty: the call fails

}  // namespace

// The linker sends this program's calls through here, the library's included.
extern "C" {
void *__real_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size) {
    return nextAllocationFails() ? nullptr : __real_calloc(count, size);
}
char *__real_strdup(const char *text);
char *__wrap_strdup(const char *text) {
    return nextAllocationFails() ? nullptr : __real_strdup(text);
}
int __real_fstatfs(int fd, struct statfs *fs);
int __wrap_fstatfs(int fd, struct statfs *fs) {
    if (playedFigures == nullptr) return __real_fstatfs(fd, fs);
    *fs = *playedFigures;
    return 0;
}
int __real_quotactl(int command, const char *device, int id, caddr_t data);
int __wrap_quotactl(int command, const char *device, int id, caddr_t data) {
    if (!quotasArePlayed) return __real_quotactl(command, device, id, data);
    char line[64];
    (void)std::snprintf(line, sizeof line, "%s %d %x", device, id, static_cast<unsigned>(command));
    asked += line;
    std::memcpy(data, playedBlock.data(), playedBlock.size());
    errno = ESRCH;
    return playedBlock.empty() ? -1 : 0;
}
}

namespace {

constexpr uid_t kUser = 54321;
constexpr uint64_t kExt4 = 0xef53;
constexpr int kSkippedStatus = 77;

[[noreturn]] void skipScenario(const char *what) {
    std::fprintf(stderr, "%s: %s\n", what, std::strerror(errno));
    ::_exit(kSkippedStatus);
}

void mountTmpfs(const std::string &place) {
    if (::mount("tmpfs", place.c_str(), "tmpfs", 0, "size=64m") != 0) skipScenario("no tmpfs");
}

// A user namespace serves where the tests do not run as root: there, mounts of one's own are
// allowed.
bool enterOwnNamespace() {
    const uid_t uid = ::geteuid();
    if (uid == 0) return ::unshare(CLONE_NEWNS) == 0;
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
    return ::geteuid() == 0;
}

// The last statement of a test: runs the scenario among mounts of its own.
template <class Scenario>
void runWithOwnMounts(Scenario scenario) {
    const int status = inChild([&] {
        if (!enterOwnNamespace() ||
            ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            skipScenario("no mount namespace");
        mountTmpfs(::testing::TempDir());
        scenario();
    });
    if (status == kSkippedStatus << 8) GTEST_SKIP() << "for the reason above";
    EXPECT_EQ(status, 0);
}

std::string newTmpfs(const std::string &name) {
    const std::string place = ::testing::TempDir() + name;
    EXPECT_EQ(::mkdir(place.c_str(), 0755), 0);
    mountTmpfs(place);
    return place;
}

const char *deviceAt(const std::string &place) {
    struct stat file {};
    EXPECT_EQ(::stat(place.c_str(), &file), 0);
    return findMountedDevice(file.st_dev);
}

// Makes such lines the mount table; before, /etc is to be a tmpfs.
void writeMountTable(std::initializer_list<std::pair<const char *, std::string>> lines) {
    std::ofstream table("/etc/mtab");
    for (const auto &[device, place] : lines)
        table << device << " " << place << " tmpfs rw 0 0\n";
}

bool operator==(const FSInfo &a, const FSInfo &b) {
    return std::memcmp(&a, &b, offsetof(FSInfo, flags) + sizeof a.flags) == 0;
}

struct statfs figures(uint64_t type) {
    struct statfs fs {};
    fs.f_type = static_cast<decltype(fs.f_type)>(type);
    fs.f_bsize = 4096;
    fs.f_blocks = 10000, fs.f_bfree = 9500, fs.f_bavail = 9000;
    fs.f_files = 800, fs.f_ffree = 700;
    return fs;
}

FSInfo infoOf(const struct statfs &fs, const char *path = nullptr, int options = 0) {
    FSInfo info{};
    playedFigures = &fs;
    EXPECT_EQ(GetFSInfo(0, path, options, &info), 0);
    playedFigures = nullptr;
    return info;
}

// The figures above as an unlimited caller gets them, and under a quota of blocks and files.
FSInfo expectedInfo(uint64_t freeBlocks = 9000, uint64_t blocks = 10000, uint64_t freeFiles = 700,
                    uint64_t files = 800, uint64_t blockSize = 4096) {
    const uint32_t flags = FSINFO_DISK_FS | (blocks != 10000 || files != 800 ? FSINFO_QUOTA : 0);
    return {blockSize, freeBlocks, blocks, freeFiles, files, 9000, 10000, 700, 800, flags};
}

TEST(GetFSInfo, FiguresAreTheFileSystemsAndFreeBlocksBelowZeroCountAsNone) {
    struct statfs fs = figures(kExt4);
    EXPECT_TRUE(infoOf(fs) == expectedInfo());
    EXPECT_EQ(infoOf(fs, nullptr, FSINFO_ALL_FREE).fsFreeBlocks, 9500u);
    fs.f_bavail = UINT64_MAX - 4;
    EXPECT_EQ(infoOf(fs).freeBlocks, 0u);
    EXPECT_EQ(infoOf(fs, nullptr, FSINFO_ALL_FREE).freeBlocks, 9500u);
    fs.f_bfree = UINT64_MAX;
    EXPECT_EQ(infoOf(fs, nullptr, FSINFO_ALL_FREE).fsFreeBlocks, 0u);
    for (const uint64_t type :
         {0xef51u, 0x4a465321u, 0x52654973u, 0x11954u, 0x58465342u, 0x9123683eu})
        EXPECT_EQ(infoOf(figures(type)).flags, FSINFO_DISK_FS) << std::hex << type;
    for (const uint64_t type : {0x6969u, 0x01021994u, 0u})
        EXPECT_EQ(infoOf(figures(type)).flags, 0u) << std::hex << type;
}

TEST(GetFSInfo, DescriptorIsQueriedBeforeThePathAndNeedsNone) {
    const int fd = ::open("/proc", O_RDONLY | O_CLOEXEC);
    FSInfo expected{}, info{};
    EXPECT_EQ(GetFSInfo(-1, "/proc", FSINFO_NO_QUOTA, &expected), 0);
    for (const char *path : {static_cast<const char *>(nullptr), "", "/no/such/place", "/"}) {
        EXPECT_EQ(GetFSInfo(fd, path, FSINFO_NO_QUOTA, &info), 0);
        EXPECT_TRUE(info == expected) << (path != nullptr ? path : "null");
    }
    EXPECT_EQ(GetFSInfo(-1, "/", FSINFO_NO_QUOTA, &info), 0);
    EXPECT_NE(info.totalBlocks, expected.totalBlocks);
}

TEST(GetFSInfo, FailureReportsTheQuerysErrorAndLeavesTheRecord) {
    FSInfo info = expectedInfo();
    const auto expectError = [&info](int error, int fd, const char *path) {
        EXPECT_EQ(GetFSInfo(fd, path, 0, &info), -1);
        EXPECT_EQ(errno, error);
        EXPECT_TRUE(info == expectedInfo());
    };
    expectError(ENOENT, -1, "/no/such/place");
    expectError(EFAULT, -1, nullptr);
    expectError(ENOENT, -1, "");
    expectError(EBADF, -2, "/");
}

// Soft limits of 1 take no part.
QuotaBlock current(uint64_t blockLimit, uint64_t usedBytes, uint64_t fileLimit = 0,
                   uint64_t usedFiles = 0) {
    return {blockLimit, 1, usedBytes, fileLimit, 1, usedFiles, 0, 0, 0, 0};
}

OldQuotaBlock old(uint32_t blockLimit, uint32_t usedBlocks, uint32_t fileLimit = 0,
                  uint32_t usedFiles = 0) {
    return {blockLimit, 1, usedBlocks, fileLimit, 1, usedFiles, 0, 0};
}

// Calls `scenario` with a directory on a file system whose quotas are played, as an unprivileged
// effective user, in a process that has met no quota interface yet.
template <class Scenario>
void withPlayedQuotas(bool currentInterface, Scenario scenario) {
    runWithOwnMounts([&] {
        const std::string place = newTmpfs("place");
        mountTmpfs("/etc");
        writeMountTable({{"/dev/played", place}});
        mountTmpfs("/proc/sys/fs");
        if (currentInterface) (void)::mkdir("/proc/sys/fs/quota", 0755);
        ASSERT_EQ(::seteuid(kUser), 0);
        quotasArePlayed = true;
        scenario(place.c_str());
    });
}

// In quota blocks of the interface's own size, of 4096 bytes, and of the interface's own again.
template <class Block>
void expectQuota(const Block &answer, const std::string &command, const FSInfo &byDefault,
                 const FSInfo &by4096) {
    withPlayedQuotas(std::is_same_v<Block, QuotaBlock>, [&](const char *place) {
        playedBlock.assign(reinterpret_cast<const char *>(&answer), sizeof answer);
        for (const int size : {0, 4096, 0}) {
            EXPECT_EQ(SetQuotaBlockSize(size), 0);
            EXPECT_TRUE(infoOf(figures(kExt4), place) == (size == 0 ? byDefault : by4096));
            EXPECT_EQ(std::exchange(asked, ""), "/dev/played 54321 " + command);
        }
    });
}

TEST(GetFSInfo, CurrentQuotaInterfaceIsAskedWhereItIsPresentAndElsewhereTheOldOne) {
    expectQuota(current(1000, 500000), "80000700", expectedInfo(127, 250), expectedInfo(877, 1000));
    expectQuota(old(1000, 400), "30000", expectedInfo(75, 125), expectedInfo(600, 1000));
}

TEST(GetFSInfo, NobodyIsAskedForQuotasWithoutNeedAndAFailureKeepsTheFigures) {
    withPlayedQuotas(true, [](const char *place) {
        const struct statfs fs = figures(kExt4);
        for (const int options : {FSINFO_ALL_FREE, FSINFO_NO_QUOTA})
            EXPECT_EQ(infoOf(fs, place, options).flags, FSINFO_DISK_FS);
        for (const char *path : {"", "/no/such/place", "/"})
            EXPECT_EQ(infoOf(fs, path).flags, FSINFO_DISK_FS);
        EXPECT_EQ(asked, "");
        EXPECT_TRUE(infoOf(fs, place) == infoOf(fs));
        EXPECT_EQ(asked, "/dev/played 54321 80000700");
    });
}

template <class Block>
void expectUnder(const Block &quota, int quotaBlockSize, const FSInfo &expected) {
    FSInfo info = expectedInfo(9000, 10000, 700, 800, expected.blockSize);
    applyQuota(quota, quotaBlockSize, &info);
    EXPECT_TRUE(info == expected) << expected.freeBlocks << " " << expected.freeFiles;
}

TEST(QuotaArithmetic, UseAtOrAboveALimitLeavesNothingFreeAndALimitOfZeroIsNone) {
    expectUnder(current(1000, 500000, 50, 4), 0, expectedInfo(127, 250, 46, 50));
    expectUnder(old(1000, 400, 50, 4), 0, expectedInfo(75, 125, 46, 50));
    for (const uint64_t extra : {0u, 1u, 1000000u})
        expectUnder(current(1000, 1024000 + extra, 50, 50 + extra), 0, expectedInfo(0, 250, 0, 50));
    expectUnder(old(1000, 1001, 50, 51), 0, expectedInfo(0, 125, 0, 50));
    expectUnder(current(0, 500000, 50, 4), 0, expectedInfo(9000, 10000, 46, 50));
    expectUnder(old(1000, 400, 0, 4), 0, expectedInfo(75, 125));
    expectUnder(current(0, 500000, 0, 4), 0, expectedInfo());
}

// Products have 64 bits, comparisons are signed and divisions unsigned, also where a limit looks
// negative; a block size of 0 leaves the block counts.
TEST(QuotaArithmetic, ExtremesNeitherOverflowNorTrap) {
    expectUnder(old(0xffffffff, 0xfffffffe), 4096, expectedInfo(1, 0xffffffff));
    expectUnder(old(0xffffffff, 0), 0, expectedInfo(536870911, 2199023255040 / 4096));
    expectUnder(current(1, 0), -4096, expectedInfo(0, (UINT64_MAX - 4095) / 4096));
    expectUnder(old(2, 1), -4096, expectedInfo(0, (UINT64_MAX - 8191) / 4096));
    expectUnder(current(0, 0, UINT64_MAX, 7), 0, expectedInfo(9000, 10000, 0, UINT64_MAX));
    expectUnder(current(0, 0, 5, UINT64_MAX), 0, expectedInfo(9000, 10000, 6, 5));
    expectUnder(current(1000, 0, 50, 4), 0, expectedInfo(9000, 10000, 46, 50, 0));
    expectUnder(old(1000, 0, 50, 4), 0, expectedInfo(9000, 10000, 46, 50, 0));
}

TEST(MountPoints, LastLineWinsAtTheLoadAndTheFirstInARescan) {
    runWithOwnMounts([] {
        const std::string early = newTmpfs("early one"), late = newTmpfs("late"),
                          quoted = ::testing::TempDir() + "early\\040one", gone = "/no/such/place";
        mountTmpfs("/etc");
        writeMountTable({{"gone", gone}, {"first", quoted}, {"last", quoted}});
        EXPECT_STREQ(deviceAt(early), "last");
        writeMountTable({{"gone", gone}, {"first", late}, {"last", late}});
        EXPECT_STREQ(deviceAt(late), "first");
        writeMountTable({{"other", late}, {"other", quoted}});
        EXPECT_STREQ(deviceAt(early), "last");
        EXPECT_STREQ(deviceAt(late), "first");
    });
}

TEST(MountPoints, MissingTableLeavesAnEmptyCacheAndRescans) {
    runWithOwnMounts([] {
        const std::string place = newTmpfs("place");
        mountTmpfs("/etc");
        EXPECT_EQ(deviceAt(place), nullptr);
        // Loading counts as done, so this is a rescan: the first line wins.
        writeMountTable({{"first", place}, {"last", place}});
        const int before = countOpenDescriptors();
        EXPECT_STREQ(deviceAt(place), "first");
        EXPECT_EQ(countOpenDescriptors(), before) << "the table was left open";
    });
}

// A record that cannot be had costs its own line, a device that cannot be copied ends the loading,
// and a rescan that meets either finds nothing. Of one place's lines, the device found tells which
// were loaded: the last of those. A line takes two allocations, of which the record is the first.
TEST(MountPoints, LackOfMemoryCostsOneLineOrTheRest) {
    const std::pair<unsigned, const char *> kLacks[] = {
        {0b010000, "two"}, {0b000100, "three"}, {0b100000, "two"},  {0b001000, "one"},
        {0b000010, "one"}, {0b001111, nullptr}, {0b010111, nullptr}};
    for (const auto &[failing, device] : kLacks) {
        runWithOwnMounts([failing = failing, device = device] {
            const std::string place = newTmpfs("place");
            mountTmpfs("/etc");
            writeMountTable({{"one", place}, {"two", place}, {"three", place}});
            failingAllocations = failing;
            EXPECT_STREQ(deviceAt(place), device);
        });
    }
}

// An ext4 image of 16 MiB in blocks of 4096 bytes. Few kernels at hand have the quota format compiled
// in, and elsewhere this is skipped; `./run quota-test` boots one that has.
TEST(RealQuota, FiguresAreTheKernelsForTheEffectiveUser) {
    runWithOwnMounts([] {
        const std::string place = newTmpfs("place"), home = place + "/home";
        const std::string script = "exec >/dev/null 2>&1; cd " + ::testing::TempDir() +
                                   "; truncate -s 16M image && mkfs.ext4 -qF -b 4096 -O quota"
                                   " -E quotatype=usrquota image && mount -o loop image place";
        if (inChild([&] { (void)::execl("/bin/sh", "sh", "-c", script.c_str(), nullptr); }) != 0)
            skipScenario("no such ext4 on a loop device");
        dqblk limits{};
        limits.dqb_bhardlimit = 1000;  // KiB
        limits.dqb_ihardlimit = 50;
        limits.dqb_valid = QIF_LIMITS;
        ASSERT_EQ(::quotactl(QCMD(Q_SETQUOTA, USRQUOTA), deviceAt(place), static_cast<int>(kUser),
                             reinterpret_cast<char *>(&limits)),
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
        EXPECT_EQ((std::vector{info.totalBlocks, info.freeBlocks, info.totalFiles, info.freeFiles}),
                  (std::vector<uint64_t>{250, 250 - 124, 50, 48}));
        ASSERT_EQ(::seteuid(0), 0);  // the superuser has no limit
        EXPECT_EQ(GetFSInfo(-1, home.c_str(), 0, &info), 0);
        EXPECT_EQ(info.flags, FSINFO_DISK_FS);
    });
}

}  // namespace
