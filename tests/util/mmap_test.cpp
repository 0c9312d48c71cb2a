#include "iosched/util.h"

#include "support/scratch_dir.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/mman.h>

namespace {

constexpr uint32_t kShared = MEMMAP_READ | MEMMAP_WRITE | MEMMAP_SHARED;

// What the kernel lets this process do where a mapping starts, as /proc/self/maps writes it.
std::string permissionsAt(const void *start) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        if (std::stoull(line, nullptr, 16) == reinterpret_cast<uintptr_t>(start))
            return line.substr(line.find(' ') + 1, 4);
    }
    return "none";
}

// A file of 10000 bytes whose byte at position p is p % 251, and the arguments of a call on it.
class MapView : public ::testing::Test {
protected:
    MapView() {
        std::string bytes(10000, '\0');
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = byteAt(i);
        writeFile(dir / "file", bytes);
        fd = ::open((dir / "file").c_str(), O_RDWR | O_CLOEXEC);
    }
    ~MapView() override { ::close(fd); }

    static char byteAt(size_t position) { return static_cast<char>(position % 251); }
    int map(uint32_t flags) { return MemMap(&length, flags, fd, &offset, &start, &address); }
    void expectNothingMapped() {
        EXPECT_EQ(start, nullptr);
        EXPECT_EQ(address, nullptr);
    }

    ScratchDir dir;
    int fd;
    uint64_t length = 0;
    int64_t offset = 0;
    void *start = nullptr;
    void *address = &length;  // a failure is to clear it
};

TEST_F(MapView, StartsAtThePageBoundaryBelowTheOffset) {
    offset = 5000;
    length = 100;
    ASSERT_EQ(map(kShared), 0);
    EXPECT_EQ(offset, 4096);
    EXPECT_EQ(length, 1004u);
    EXPECT_EQ(address, static_cast<char *>(start) + 904);
    EXPECT_EQ(*static_cast<char *>(address), byteAt(5000));
    EXPECT_EQ(MemUnmap(start, length), 0);
}

TEST_F(MapView, AnEmptyStretchIsInvalid) {
    for (const int64_t place : {10000, 10001, 20000}) {
        offset = place;
        start = &offset;
        errno = 0;
        EXPECT_EQ(map(kShared), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(offset, place);
        EXPECT_EQ(length, 0u);
        expectNothingMapped();
    }
}

TEST_F(MapView, LengthZeroReachesToTheEndOfTheFile) {
    ASSERT_EQ(map(MEMMAP_READ | MEMMAP_PRIVATE | MEMMAP_NORESERVE | MEMMAP_DONTNEED), 0);
    EXPECT_EQ(length, 10000u);
    EXPECT_EQ(address, start);
    EXPECT_EQ(static_cast<char *>(start)[9999], byteAt(9999));
    EXPECT_EQ(MemUnmap(start, length), 0);
}

TEST_F(MapView, ALengthThatWouldWrapIsRefused) {
    offset = 5000;
    length = UINT64_MAX;
    EXPECT_EQ(map(kShared), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(offset, 5000);
    EXPECT_EQ(length, UINT64_MAX);
    expectNothingMapped();
}

TEST_F(MapView, FailuresOfTheSystemKeepTheirErrno) {
    errno = 0;
    EXPECT_EQ(MemMap(nullptr, kShared, fd, &offset, &start, &address), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(address, &length) << "nothing is stored with an argument missing";
    EXPECT_EQ(MemMap(&length, kShared, -1, &offset, &start, &address), -1);
    EXPECT_EQ(errno, EBADF);
    expectNothingMapped();

    const int readOnly = ::open((dir / "file").c_str(), O_RDONLY | O_CLOEXEC);
    offset = 5000;
    EXPECT_EQ(MemMap(&length, kShared, readOnly, &offset, &start, &address), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(offset, 5000);
    expectNothingMapped();
    ::close(readOnly);
}

TEST_F(MapView, RefusedFlagsLeaveErrnoAndIgnoredOnesDoNothing) {
    for (const uint32_t refused : {0x080u, 0x100u, 0x400u}) {
        errno = ENOTTY;
        EXPECT_EQ(map(kShared | refused), -1);
        EXPECT_EQ(errno, ENOTTY);
        expectNothingMapped();
    }
    ASSERT_EQ(map(kShared | 0x008 | 0xfffff000), 0);
    EXPECT_EQ(MemUnmap(start, length), 0);
}

TEST_F(MapView, EachFlagGivesItsOwnPermission) {
    const struct {
        uint32_t flags;
        const char *permissions;
    } cases[] = {{MEMMAP_SHARED, "---s"},
                 {MEMMAP_SHARED | MEMMAP_READ, "r--s"},
                 {MEMMAP_SHARED | MEMMAP_WRITE, "-w-s"},
                 {MEMMAP_PRIVATE | MEMMAP_EXEC, "--xp"},
                 {MEMMAP_PRIVATE | MEMMAP_READ | MEMMAP_WRITE, "rw-p"}};
    for (const auto &wanted : cases) {
        start = nullptr;
        if (map(wanted.flags) != 0 && errno == EPERM) GTEST_SKIP() << "no execution from here";
        EXPECT_EQ(permissionsAt(start), wanted.permissions);
        EXPECT_EQ(MemUnmap(start, length), 0);
    }
}

TEST_F(MapView, FixedUsesTheAddressGiven) {
    void *place = ::mmap(nullptr, 16384, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(place, MAP_FAILED);
    start = static_cast<char *>(place) + 4096;
    void *const wanted = start;
    ASSERT_EQ(map(kShared | MEMMAP_FIXED), 0);
    EXPECT_EQ(start, wanted);
    EXPECT_EQ(static_cast<char *>(start)[1], byteAt(1));
    EXPECT_EQ(MemUnmap(start, length), 0);
    ::munmap(place, 16384);
}

TEST_F(MapView, OnlyItsOwnLiveMappingsAreUnmapped) {
    void *strange = ::mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(strange, MAP_FAILED);
    ASSERT_EQ(map(kShared), 0);
    EXPECT_EQ(MemUnmap(start, 0), -1);  // fails and keeps the record
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(MemUnmap(start, length), 0);
    errno = ENOTTY;
    EXPECT_EQ(MemUnmap(start, length), -1);
    EXPECT_EQ(MemUnmap(strange, 4096), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(::munmap(strange, 4096), 0);
}

}  // namespace
