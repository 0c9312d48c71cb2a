// GetFSInfo with a kernel played by the test, for figures, types and quota interfaces that the kernel
// at hand does not have.
#include "util/own_mounts.h"
#include "util/util_internal.h"

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

TEST(PlayedKernel, FreeBlocksBelowZeroCountAsNone) {
    struct statfs fs = figures(0);
    fs.f_bavail = UINT64_MAX - 4;
    EXPECT_EQ(infoOf(fs).freeBlocks, 0u);
    EXPECT_EQ(infoOf(fs).fsFreeBlocks, 0u);
    EXPECT_EQ(infoOf(fs, nullptr, FSINFO_ALL_FREE).freeBlocks, 9500u);
    fs.f_bfree = UINT64_MAX;
    EXPECT_EQ(infoOf(fs, nullptr, FSINFO_ALL_FREE).freeBlocks, 0u);
}

TEST(PlayedKernel, TypeNumberTellsADiskFileSystem) {
    for (const uint64_t type :
         {0xef53u, 0xef51u, 0x4a465321u, 0x52654973u, 0x11954u, 0x58465342u, 0x9123683eu}) {
        EXPECT_EQ(infoOf(figures(type)).flags, FSINFO_DISK_FS) << std::hex << type;
    }
    for (const uint64_t type : {0x6969u, 0x01021994u, 0xef52u, 0u})
        EXPECT_EQ(infoOf(figures(type)).flags, 0u) << std::hex << type;
}

// Calls `scenario` with a directory on a file system whose quotas are played, as an unprivileged
// effective user, in a process that has met no quota interface yet.
template <class Scenario>
void withPlayedQuotas(bool currentInterface, Scenario scenario) {
    runWithOwnMounts([&] {
        ScratchMount scratch;
        const std::string place = scratch.tmpfs("place");
        hideEtc();
        writeMountTable("/dev/played " + place + " tmpfs rw 0 0\n");
        if (::mount("fs", "/proc/sys/fs", "tmpfs", 0, nullptr) != 0)
            skipScenario("no /proc/sys/fs");
        if (currentInterface) {
            ASSERT_EQ(::mkdir("/proc/sys/fs/quota", 0755), 0);
        }
        ASSERT_EQ(::seteuid(kUser), 0);
        quotasArePlayed = true;
        scenario(place.c_str());
        quotasArePlayed = false;
        ASSERT_EQ(::seteuid(0), 0);
    });
}

template <class Block>
void answerWith(const Block &block) {
    playedBlock.assign(reinterpret_cast<const char *>(&block), sizeof block);
}

void expectBlocks(const FSInfo &info, uint64_t free, uint64_t total) {
    EXPECT_EQ(info.flags, FSINFO_DISK_FS | FSINFO_QUOTA);
    EXPECT_EQ(info.freeBlocks, free);
    EXPECT_EQ(info.totalBlocks, total);
    EXPECT_EQ(info.fsFreeBlocks, 9000u);
    EXPECT_EQ(info.fsTotalBlocks, 10000u);
}

TEST(PlayedKernel, CurrentInterfaceIsAskedWhereItIsPresent) {
    withPlayedQuotas(true, [](const char *place) {
        QuotaBlock block{};
        block.blockHardLimit = 1000;
        block.usedBytes = 500000;
        answerWith(block);
        expectBlocks(infoOf(figures(0xef53), place), 127, 250);
        EXPECT_EQ(asked.command, 0x80000700u);
        EXPECT_EQ(asked.device, "/dev/played");
        EXPECT_EQ(asked.user, static_cast<int>(kUser));
        EXPECT_EQ(SetQuotaBlockSize(4096), 0);
        expectBlocks(infoOf(figures(0xef53), place), 877, 1000);
    });
}

TEST(PlayedKernel, OldInterfaceIsAskedElsewhere) {
    withPlayedQuotas(false, [](const char *place) {
        answerWith(OldQuotaBlock{1000, 0, 400, 0, 0, 0, 0, 0});
        expectBlocks(infoOf(figures(0xef53), place), 75, 125);
        EXPECT_EQ(asked.command, 0x30000u);
        EXPECT_EQ(asked.device, "/dev/played");
        EXPECT_EQ(asked.user, static_cast<int>(kUser));
        EXPECT_EQ(SetQuotaBlockSize(4096), 0);
        EXPECT_EQ(SetQuotaBlockSize(0), 0);
        expectBlocks(infoOf(figures(0xef53), place), 75, 125);
    });
}

TEST(PlayedKernel, NobodyIsAskedWithoutNeedAndAFailureKeepsTheFigures) {
    withPlayedQuotas(true, [](const char *place) {
        for (const int options : {FSINFO_ALL_FREE, FSINFO_NO_QUOTA})
            EXPECT_EQ(infoOf(figures(0xef53), place, options).flags, FSINFO_DISK_FS);
        for (const char *path : {static_cast<const char *>(nullptr), "", "/no/such/place", "/"})
            EXPECT_EQ(infoOf(figures(0xef53), path).flags, FSINFO_DISK_FS);
        EXPECT_EQ(asked.calls, 0);
        const FSInfo info = infoOf(figures(0xef53), place);
        EXPECT_EQ(asked.calls, 1);
        EXPECT_EQ(info.flags, FSINFO_DISK_FS);
        EXPECT_EQ(info.freeBlocks, 9000u);
        EXPECT_EQ(info.totalBlocks, 10000u);
    });
}

}  // namespace
