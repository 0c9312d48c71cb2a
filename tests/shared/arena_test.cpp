#include "iosched/shared.h"

#include "iosched/procs.h"
#include "support/in_child.h"
#include "support/test_arena.h"
#include "util/own_mounts.h"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>

namespace {

class Arena : public TestArena {
protected:
    void close() { EXPECT_EQ(CloseSharedArena(std::exchange(arena, nullptr)), 0u); }

    uint32_t openWithOutputKept(int flags) {
        auto *const untouched = reinterpret_cast<SharedArena *>(&size);
        SharedArena *out = untouched;
        const uint32_t code = OpenSharedArena(path.c_str(), flags, 0600, 4096, &out);
        EXPECT_EQ(out, untouched);
        return code;
    }
};

std::string readFile(const std::string &path) {
    std::string bytes(static_cast<size_t>(fileSize(path)), '\0');
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(::read(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    ::close(fd);
    return bytes;
}

TEST_F(Arena, ANewFileHoldsTheHeaderOneFreeBlockAndZeros) {
    ASSERT_EQ(open(SHARED_ARENA_CREATE, 5000), 0u);
    EXPECT_EQ(arena->base, arena->mapAddress);
    EXPECT_EQ(arena->mapLength, 8192u);
    EXPECT_EQ(arena->size, 8192u);
    EXPECT_EQ(arena->path, path);
    EXPECT_NE(::fcntl(arena->descriptor, F_GETFD) & FD_CLOEXEC, 0);
    close();

    std::string bytes = readFile(path);
    ASSERT_EQ(bytes.size(), 8192u);
    const unsigned char fields[] = {
        0,    0,    0,    0,    0, 0, 0, 0,  // holder, padding
        0x93, 0x70, 0x31, 0x51, 1, 0, 0, 0,  // magic, version
        0x48, 0,    0,    0,    0, 0, 0, 0,  // free list
        0,    0,    0,    0,    0, 0, 0, 0,  // allocated list
        0,    0,    0,    0,    0, 0, 0, 0,  // the free block: next
        0,    0,    0,    0,    0, 0, 0, 0,  // name
        0xb8, 0x1f, 0,    0,    0, 0, 0, 0,  // block size 8120
    };
    EXPECT_EQ(std::memcmp(bytes.data() + 0x28, fields, sizeof fields), 0);
    bytes.erase(0, 0x28 + sizeof fields);
    EXPECT_EQ(bytes, std::string(bytes.size(), '\0'));
}

TEST_F(Arena, ModeIsThatOfACreatedFile) {
    ::umask(0);
    EXPECT_EQ(OpenSharedArena(path.c_str(), SHARED_ARENA_CREATE, 0640, 4096, &arena), 0u);
    struct stat status;
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u);
}

TEST_F(Arena, CreatingOnAnArenaInUseAttachesAndOnAnIdleOneStartsAfresh) {
    ASSERT_EQ(open(SHARED_ARENA_CREATE), 0u);
    ASSERT_NE(allocate("kept", 64), nullptr);
    SharedArena *first = std::exchange(arena, nullptr);
    ASSERT_EQ(open(SHARED_ARENA_CREATE, 65536), 0u);
    EXPECT_EQ(arena->mapLength, 4096u);
    EXPECT_NE(arena->base, first->base);
    EXPECT_NE(allocate("kept", 0), nullptr);
    close();
    CloseSharedArena(first);

    ASSERT_EQ(open(0, 65536), 0u);
    EXPECT_NE(allocate("kept", 0), nullptr) << "an idle file keeps its contents";
    close();
    ASSERT_EQ(open(SHARED_ARENA_CREATE, 8192), 0u);
    EXPECT_EQ(arena->mapLength, 8192u);
    EXPECT_EQ(allocate("kept", 0), nullptr);
    EXPECT_EQ(contents().fault, "");
}

TEST_F(Arena, SizeZeroEmptiesAnIdleFileAndFails) {
    ASSERT_EQ(open(SHARED_ARENA_CREATE), 0u);
    close();
    errno = 0;
    EXPECT_EQ(open(SHARED_ARENA_CREATE, 0), kSystemError);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fileSize(path), 0);
}

TEST_F(Arena, ASizeThatCannotBeRoundedUpLeavesTheFileAlone) {
    ASSERT_EQ(open(SHARED_ARENA_CREATE), 0u);
    ASSERT_NE(allocate("kept", 64), nullptr);
    SharedArena *first = std::exchange(arena, nullptr);
    EXPECT_EQ(open(SHARED_ARENA_CREATE, UINT64_MAX), 0u) << "an attacher's size means nothing";
    close();
    CloseSharedArena(first);
    for (const uint64_t huge : {UINT64_MAX, UINT64_MAX - 4094}) {
        errno = 0;
        EXPECT_EQ(open(SHARED_ARENA_CREATE, huge), kSystemError);
        EXPECT_EQ(errno, EINVAL);
    }
    ASSERT_EQ(open(0), 0u);
    EXPECT_NE(allocate("kept", 0), nullptr);
}

TEST_F(Arena, FilesThatAreNoArenaGetACode) {
    ASSERT_EQ(open(SHARED_ARENA_CREATE, 8192), 0u);
    close();
    const std::string good = readFile(path);
    std::string strange = good, newer = good;
    strange[0x30] = 'x';
    newer[0x34] = 2;
    const struct {
        const char *what;
        std::string bytes;
        uint32_t code;
    } files[] = {
        {"empty", "", SCHED_ERR_SYSTEM},
        {"zeros", std::string(4096, '\0'), SHARED_ERR_MAGIC},
        {"one byte", "x", SHARED_ERR_MAGIC},
        {"text of odd length", std::string(5000, 't'), SHARED_ERR_MAGIC},
        {"another magic", strange, SHARED_ERR_MAGIC},
        {"cut before the version", good.substr(0, 0x34), SHARED_ERR_VERSION},
        {"cut inside the header", good.substr(0, 0x40), SHARED_ERR_MAGIC},
        {"cut inside a page", good.substr(0, 5000), SHARED_ERR_MAGIC},
        {"added to", good + "tail", SHARED_ERR_MAGIC},
        {"version 2", newer, SHARED_ERR_VERSION},
    };
    const int before = openDescriptors();
    for (const auto &file : files) {
        SCOPED_TRACE(file.what);
        writeFile(path, file.bytes);
        EXPECT_EQ(openWithOutputKept(0), file.code);
    }
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(DeleteSharedArena(path.c_str()), 0u) << "no lock was left behind";
}

TEST_F(Arena, FailuresOfTheSystemKeepTheirErrno) {
    EXPECT_EQ(openWithOutputKept(0), kSystemError);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(DeleteSharedArena(path.c_str()), kSystemError);
    EXPECT_EQ(errno, ENOENT);
    writeFile(path, "x");
    EXPECT_EQ(openWithOutputKept(SHARED_ARENA_CREATE | SHARED_ARENA_EXCLUSIVE), kSystemError);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(fileSize(path), 1);
}

TEST_F(Arena, IsDeletedOnlyOnceNobodyHasItOpen) {
    ASSERT_EQ(open(SHARED_ARENA_CREATE), 0u);
    EXPECT_EQ(DeleteSharedArena(path.c_str()), static_cast<uint32_t>(SHARED_ERR_BUSY));
    EXPECT_CHILD_OK([this] {
        EXPECT_EQ(DeleteSharedArena(path.c_str()), static_cast<uint32_t>(SHARED_ERR_BUSY));
    });
    EXPECT_EQ(fileSize(path), 4096);
    close();
    EXPECT_EQ(DeleteSharedArena(path.c_str()), 0u);
    EXPECT_EQ(fileSize(path), -1);
}

TEST_F(Arena, AFullFileSystemShowsWhenTheArenaIsCreated) {
    runWithOwnMounts([] {
        const std::string full = newTmpfs("full", "size=64k") + "/arena";
        SharedArena *none = nullptr;
        const int before = openDescriptors();
        EXPECT_EQ(OpenSharedArena(full.c_str(), SHARED_ARENA_CREATE, 0600, 1 << 20, &none),
                  static_cast<uint32_t>(SCHED_ERR_SYSTEM));
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_EQ(none, nullptr);
        EXPECT_EQ(openDescriptors(), before);
        EXPECT_EQ(OpenSharedArena(full.c_str(), 0, 0, 0, &none),
                  static_cast<uint32_t>(SHARED_ERR_MAGIC));
        ASSERT_EQ(OpenSharedArena(full.c_str(), SHARED_ARENA_CREATE, 0600, 32768, &none), 0u);
        CloseSharedArena(none);
    });
}

TEST_F(Arena, ProcessesSeeEachOthersChunksAtAddressesOfTheirOwn) {
    ASSERT_EQ(open(SHARED_ARENA_CREATE, 16384), 0u);
    auto *chunk = static_cast<char *>(allocate("board", 64));
    EXPECT_CHILD_OK([&] {
        SharedArena *inherited = std::exchange(arena, nullptr);
        ASSERT_EQ(open(0),
                  0u);  // the inherited mapping is in its place, so this one lies elsewhere
        EXPECT_NE(arena->base, inherited->base);
        auto *mine = static_cast<char *>(allocate("board", 0));
        ASSERT_NE(mine, nullptr);
        EXPECT_EQ(offsetOf(mine),
                  static_cast<uint64_t>(chunk - static_cast<char *>(inherited->base)));
        std::strcpy(mine, "from the child");
        CloseSharedArena(inherited);
    });
    EXPECT_STREQ(chunk, "from the child");
    EXPECT_EQ(contents().allocatedBlocks.at(0).references, 2u);
}

TEST_F(Arena, AForkedChildGetsALockOfItsOwn) {
    ASSERT_EQ(open(SHARED_ARENA_CREATE), 0u);
    EXPECT_CHILD_OK([this] {
        const int before = openDescriptors();
        void *const base = arena->base;
        EXPECT_EQ(ForkSharedArena(arena), 0u);
        EXPECT_EQ(openDescriptors(), before);
        EXPECT_EQ(arena->base, base);
        EXPECT_EQ(::fcntl(arena->descriptor, F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_NE(allocate("child", 8), nullptr);
        close();
    });
    EXPECT_NE(allocate("child", 0), nullptr);
    EXPECT_EQ(DeleteSharedArena(path.c_str()), static_cast<uint32_t>(SHARED_ERR_BUSY));
}

TEST_F(Arena, AForkedChildFindsRoomInAFullDescriptorTable) {
    ASSERT_EQ(open(SHARED_ARENA_CREATE), 0u);
    EXPECT_CHILD_OK([this] {
        const rlimit few{64, 64};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
        while (::dup(0) >= 0) {
        }
        EXPECT_EQ(ForkSharedArena(arena), 0u);
        EXPECT_GE(arena->descriptor, 0);
    });
}

TEST_F(Arena, AForkedChildWhosePathLeadsElsewhereIsTold) {
    ASSERT_EQ(open(SHARED_ARENA_CREATE), 0u);
    ASSERT_EQ(::rename(path.c_str(), (dir / "moved").c_str()), 0);
    EXPECT_CHILD_OK([this] {
        EXPECT_EQ(ForkSharedArena(arena), kSystemError);
        EXPECT_EQ(errno, ENOENT);
        EXPECT_EQ(arena->descriptor, -1);
        writeFile(path, std::string(4096, '\0'));
        EXPECT_EQ(ForkSharedArena(arena), kSystemError);
        EXPECT_EQ(errno, ESTALE);
        EXPECT_EQ(arena->descriptor, -1);
        ASSERT_EQ(::rename((dir / "moved").c_str(), path.c_str()), 0);
        EXPECT_EQ(ForkSharedArena(arena), 0u);
        close();
    });
}

// The image was written by the first version of this format and is never written again: what it
// holds, every later version has to find.
TEST_F(Arena, TheGoldenImageIsUnderstood) {
    writeFile(path, readFile(GOLDEN_ARENA));
    ASSERT_EQ(open(0), 0u);
    const ArenaContents now = contents();
    EXPECT_EQ(now.fault, "");
    const std::vector<ArenaBlock> freeBlocks{{0xb8, 0x90, 0, 0, ""}, {0x1e8, 0xe18, 0, 0, ""}};
    const std::vector<ArenaBlock> chunks{
        {0x178, 0x70, 64, 1, "second"}, {0x148, 0x30, 8, 1, ""}, {0x48, 0x70, 64, 2, "first"}};
    EXPECT_EQ(now.freeBlocks, freeBlocks);
    EXPECT_EQ(now.allocatedBlocks, chunks);

    void *first = allocate("first", 0);
    ASSERT_NE(first, nullptr);
    EXPECT_STREQ(static_cast<char *>(first), "the first chunk");
    EXPECT_EQ(size, 64u);
    EXPECT_STREQ(static_cast<char *>(allocate("second", 0)), "the second chunk");
    EXPECT_EQ(offsetOf(allocate("new", 100)), 0xb8u + 40) << "the hole is the best fit";
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(FreeSharedChunk(arena, first), 0u);
    EXPECT_EQ(contents().fault, "");
}

}  // namespace
