// GetFSInfo with a kernel played by the test: figures, types and quota interfaces that the kernel
// at hand does not have.
#include "util/own_mounts.h"
#include "util/util_internal.h"

#include <fcntl.h>
#include <sys/quota.h>
#include <sys/statfs.h>

namespace {

// What fstatfs answers; unless it is set, the real one does.
const struct statfs *playedFigures = nullptr;

// What quotactl was asked, and what it answers when it is played.
struct QuotaCall {
    int calls;
    uint32_t command;
    std::string device;
    int user;
};
QuotaCall asked;
bool quotasArePlayed = false;
std::string playedBlock;  // empty: the call fails

}  // namespace

// The linker sends this program's calls through here, the library's included.
extern "C" {
int __real_fstatfs(int fd, struct statfs *fs);
int __wrap_fstatfs(int fd, struct statfs *fs) {
    if (playedFigures == nullptr) return __real_fstatfs(fd, fs);
    *fs = *playedFigures;
    return 0;
}
int __real_quotactl(int command, const char *device, int id, caddr_t data);
int __wrap_quotactl(int command, const char *device, int id, caddr_t data) {
    if (!quotasArePlayed) return __real_quotactl(command, device, id, data);
    asked = {asked.calls + 1, static_cast<uint32_t>(command), device, id};
    std::memcpy(data, playedBlock.data(), playedBlock.size());
    errno = ESRCH;
    return playedBlock.empty() ? -1 : 0;
}
}

namespace {

constexpr uid_t kUser = 54321;
constexpr uint64_t kExt4 = 0xef53;

bool operator==(const FSInfo &a, const FSInfo &b) {
    return std::memcmp(&a, &b, offsetof(FSInfo, flags) + sizeof a.flags) == 0;
}

struct statfs figures(uint64_t type) {
    struct statfs fs {};
    fs.f_type = static_cast<decltype(fs.f_type)>(type);
    fs.f_bsize = 4096;
    fs.f_blocks = 10000;
    fs.f_bfree = 9500;
    fs.f_bavail = 9000;
    fs.f_files = 800;
    fs.f_ffree = 700;
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
FSInfo expectedInfo(uint64_t freeBlocks = 9000, uint64_t totalBlocks = 10000,
                    uint64_t freeFiles = 700, uint64_t totalFiles = 800,
                    uint64_t blockSize = 4096) {
    const bool limited = totalBlocks != 10000 || totalFiles != 800;
    return {blockSize,   freeBlocks,
            totalBlocks, freeFiles,
            totalFiles,  9000,
            10000,       700,
            800,         FSINFO_DISK_FS | (limited ? FSINFO_QUOTA : 0)};
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
    struct statfs root {};
    FSInfo expected{}, info{};
    EXPECT_EQ(GetFSInfo(-1, "/proc", FSINFO_NO_QUOTA, &expected), 0);
    for (const char *path : {static_cast<const char *>(nullptr), "", "/no/such/place", "/"}) {
        EXPECT_EQ(GetFSInfo(fd, path, FSINFO_NO_QUOTA, &info), 0);
        EXPECT_TRUE(info == expected) << (path != nullptr ? path : "null");
    }
    ASSERT_EQ(::statfs("/", &root), 0);
    EXPECT_EQ(GetFSInfo(-1, "/", FSINFO_NO_QUOTA, &info), 0);
    EXPECT_EQ(info.fsTotalBlocks, root.f_blocks);
    EXPECT_NE(root.f_blocks, expected.totalBlocks);
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
        hideEtc();
        writeMountTable("/dev/played " + place + " tmpfs rw 0 0\n");
        mountTmpfs("/proc/sys/fs");
        if (currentInterface) (void)::mkdir("/proc/sys/fs/quota", 0755);
        ASSERT_EQ(::seteuid(kUser), 0);
        quotasArePlayed = true;
        scenario(place.c_str());
    });
}

// In quota blocks of the interface's own size, of 4096 bytes, and of the interface's own again.
template <class Block>
void expectQuota(const Block &answer, uint32_t command, const FSInfo &byDefault,
                 const FSInfo &by4096) {
    withPlayedQuotas(std::is_same_v<Block, QuotaBlock>, [&](const char *place) {
        playedBlock.assign(reinterpret_cast<const char *>(&answer), sizeof answer);
        for (const int size : {0, 4096, 0}) {
            EXPECT_EQ(SetQuotaBlockSize(size), 0);
            EXPECT_TRUE(infoOf(figures(kExt4), place) == (size == 0 ? byDefault : by4096));
            EXPECT_EQ(asked.command, command);
            EXPECT_EQ(asked.device, "/dev/played");
            EXPECT_EQ(asked.user, static_cast<int>(kUser));
        }
    });
}

TEST(GetFSInfo, CurrentQuotaInterfaceIsAskedWhereItIsPresent) {
    expectQuota(current(1000, 500000), 0x80000700, expectedInfo(127, 250), expectedInfo(877, 1000));
}

TEST(GetFSInfo, OldQuotaInterfaceIsAskedElsewhere) {
    expectQuota(old(1000, 400), 0x30000, expectedInfo(75, 125), expectedInfo(600, 1000));
}

TEST(GetFSInfo, NobodyIsAskedForQuotasWithoutNeedAndAFailureKeepsTheFigures) {
    withPlayedQuotas(true, [](const char *place) {
        const struct statfs fs = figures(kExt4);
        for (const int options : {FSINFO_ALL_FREE, FSINFO_NO_QUOTA})
            EXPECT_EQ(infoOf(fs, place, options).flags, FSINFO_DISK_FS);
        for (const char *path : {"", "/no/such/place", "/"})
            EXPECT_EQ(infoOf(fs, path).flags, FSINFO_DISK_FS);
        EXPECT_EQ(asked.calls, 0);
        EXPECT_TRUE(infoOf(fs, place) == infoOf(fs));
        EXPECT_EQ(asked.calls, 1);
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

}  // namespace
