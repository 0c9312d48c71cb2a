#include "iosched/util.h"

#include "support/scratch_dir.h"

#include <cerrno>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <utility>

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
        std::string bytes;
        while (bytes.size() < 10000)
            bytes += static_cast<char>(bytes.size() % 251);
        writeFile(dir / "file", bytes);
        fd = ::open((dir / "file").c_str(), O_RDWR | O_CLOEXEC);
    }
    ~MapView() override { ::close(fd); }
    int map(uint32_t flags) { return MemMap(&length, flags, fd, &offset, &start, &address); }

    ScratchDir dir;
    int fd;
    uint64_t length = 0;
    int64_t offset = 0;
    void *start = nullptr;
    void *address = nullptr;
};

TEST_F(MapView, BytesAskedForLieAtTheAddressInWholePagesWithTheAccessAskedFor) {
    const struct {
        int64_t offset;
        uint64_t length;
        uint32_t flags;
        int64_t mappedOffset;
        uint64_t mappedLength;
        const char *permissions;
    } rows[] = {
        {5000, 100, MEMMAP_SHARED | MEMMAP_READ, 4096, 1004, "r--s"},
        {4096, 1, kShared, 4096, 1, "rw-s"},
        {9999, 0, MEMMAP_PRIVATE | MEMMAP_READ | MEMMAP_WRITE, 8192, 1808, "rw-p"},
        {0, 0, MEMMAP_READ | MEMMAP_PRIVATE | MEMMAP_NORESERVE | MEMMAP_DONTNEED, 0, 10000, "r--p"},
        {0, 0, MEMMAP_SHARED | 0x008 | 0xfffff000, 0, 10000, "---s"},
        {0, 0, MEMMAP_SHARED | MEMMAP_WRITE, 0, 10000, "-w-s"},
        {0, 0, MEMMAP_PRIVATE | MEMMAP_EXEC, 0, 10000, "--xp"},
    };
    for (const auto &row : rows) {
        offset = row.offset, length = row.length, start = nullptr;
        const int result = map(row.flags);
        if (result != 0 && errno == EPERM) GTEST_SKIP() << "no execution from here";
        ASSERT_EQ(result, 0) << row.permissions;
        EXPECT_EQ(offset, row.mappedOffset);
        EXPECT_EQ(length, row.mappedLength);
        EXPECT_EQ(address, static_cast<char *>(start) + (row.offset - row.mappedOffset));
        EXPECT_EQ(permissionsAt(start), row.permissions);
        EXPECT_TRUE((row.flags & MEMMAP_READ) == 0 ||
                    *static_cast<unsigned char *>(address) == row.offset % 251);
        EXPECT_EQ(MemUnmap(start, length), 0);
        EXPECT_EQ(permissionsAt(start), "none");
    }
}

TEST_F(MapView, FailureMapsNothingAndTellsTheSystemsErrorUnlessAFlagIsRefused) {
    const auto expectError = [this](int error, int64_t at, uint64_t bytes, uint32_t more) {
        offset = at, length = bytes;
        start = address = &length;
        errno = ENOTTY;
        EXPECT_EQ(map(kShared | more), -1);
        EXPECT_EQ(errno, error) << at << " " << more;
        EXPECT_TRUE(offset == at && length == bytes && start == nullptr && address == nullptr);
    };
    expectError(EINVAL, 10000, 0, 0);
    expectError(EINVAL, 10001, 0, 0);
    expectError(ENOMEM, 5000, INT64_MAX, 0);
    expectError(ENOMEM, 5000, UINT64_MAX, 0);
    for (const uint32_t refused : {0x080u, 0x100u, 0x400u})
        expectError(ENOTTY, 0, 0, refused);
    address = &length;
    EXPECT_EQ(MemMap(nullptr, kShared, fd, &offset, &start, &address), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(address, &length) << "nothing is stored with an argument missing";
}

TEST_F(MapView, FixedUsesTheAddressGivenAndOnlyItsOwnLiveMappingsAreUnmapped) {
    void *strange = ::mmap(nullptr, 16384, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(strange, MAP_FAILED);
    void *const wanted = start = static_cast<char *>(strange) + 4096;
    ASSERT_EQ(map(kShared | MEMMAP_FIXED), 0);
    EXPECT_EQ(std::exchange(start, nullptr), wanted);
    EXPECT_EQ(static_cast<char *>(wanted)[1], 1);
    ASSERT_EQ(map(kShared), 0);
    EXPECT_EQ(MemUnmap(start, 0), -1);  // fails and keeps the record
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(MemUnmap(start, length), 0);
    errno = ENOTTY;
    EXPECT_EQ(MemUnmap(start, length), -1);
    EXPECT_EQ(MemUnmap(strange, 4096), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(::munmap(strange, 4096), 0);
    EXPECT_EQ(MemUnmap(wanted, length), 0);
    ::munmap(strange, 16384);
}

}  // namespace
