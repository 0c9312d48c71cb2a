// GetFSInfo, for the most part with a kernel played by the test: figures, types and quota interfaces
// that the kernel at hand does not have.
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

TEST(GetFSInfo, FiguresAreTheFileSystemsAndFreeBlocksBelowZeroCountAsNone) {
    struct statfs fs = figures(kExt4);
    EXPECT_TRUE(infoOf(fs) ==
                (FSInfo{4096, 9000, 10000, 700, 800, 9000, 10000, 700, 800, FSINFO_DISK_FS}));
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

// The real thing: what statfs says, in both views.
void expectFiguresOf(const std::string &place, uint32_t flags) {
    struct statfs fs {};
    FSInfo info{}, all{};
    ASSERT_EQ(::statfs(place.c_str(), &fs), 0);
    EXPECT_EQ(GetFSInfo(-1, place.c_str(), 0, &info), 0);
    const FSInfo expected{static_cast<uint64_t>(fs.f_bsize),
                          fs.f_bavail,
                          fs.f_blocks,
                          fs.f_ffree,
                          fs.f_files,
                          fs.f_bavail,
                          fs.f_blocks,
                          fs.f_ffree,
                          fs.f_files,
                          flags};
    EXPECT_TRUE(info == expected);
    EXPECT_EQ(GetFSInfo(-1, place.c_str(), FSINFO_ALL_FREE, &all), 0);
    EXPECT_EQ(all.freeBlocks, fs.f_bfree);
}

TEST(GetFSInfo, OnlyExt4OfTheTwoIsADiskFileSystem) {
    runWithOwnMounts([] {
        expectFiguresOf(newTmpfs("memory", "size=3m,nr_inodes=77"), 0);
        expectFiguresOf(newExt4("disk", "-m 20"), FSINFO_DISK_FS);
    });
}

TEST(GetFSInfo, DescriptorIsQueriedBeforeThePathAndNeedsNone) {
    runWithOwnMounts([] {
        const std::string place = newTmpfs("place"), other = newTmpfs("other", "size=5m");
        const int fd = ::open(place.c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        FSInfo expected{}, info{};
        EXPECT_EQ(GetFSInfo(-1, place.c_str(), 0, &expected), 0);
        EXPECT_EQ(expected.totalBlocks, 256u);
        for (const char *path : {static_cast<const char *>(nullptr), "", "/no/such/place",
                                 other.c_str(), place.c_str()}) {
            EXPECT_EQ(GetFSInfo(fd, path, 0, &info), 0);
            EXPECT_TRUE(info == expected) << (path != nullptr ? path : "null");
        }
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

template <class Block>
void expectQuota(const Block &answer, const char *place, uint64_t free, uint64_t total) {
    playedBlock.assign(reinterpret_cast<const char *>(&answer), sizeof answer);
    EXPECT_TRUE(infoOf(figures(kExt4), place) == (FSInfo{4096, free, total, 700, 800, 9000, 10000,
                                                         700, 800, FSINFO_DISK_FS | FSINFO_QUOTA}));
    EXPECT_EQ(asked.device, "/dev/played");
    EXPECT_EQ(asked.user, static_cast<int>(kUser));
}

TEST(GetFSInfo, CurrentQuotaInterfaceIsAskedWhereItIsPresent) {
    withPlayedQuotas(true, [](const char *place) {
        QuotaBlock block{};
        block.blockHardLimit = 1000;
        block.usedBytes = 500000;
        expectQuota(block, place, 127, 250);
        EXPECT_EQ(asked.command, 0x80000700u);
        EXPECT_EQ(SetQuotaBlockSize(4096), 0);
        expectQuota(block, place, 877, 1000);
    });
}

TEST(GetFSInfo, OldQuotaInterfaceIsAskedElsewhere) {
    withPlayedQuotas(false, [](const char *place) {
        const OldQuotaBlock block{1000, 0, 400, 0, 0, 0, 0, 0};
        expectQuota(block, place, 75, 125);
        EXPECT_EQ(asked.command, 0x30000u);
        EXPECT_EQ(SetQuotaBlockSize(4096), 0);
        EXPECT_EQ(SetQuotaBlockSize(0), 0);
        expectQuota(block, place, 75, 125);
    });
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

}  // namespace
