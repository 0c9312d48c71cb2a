#include "iosched/shared.h"

#include "shared/call_wrap.h"
#include "support/in_child.h"
#include "support/test_arena.h"

#include <cerrno>
#include <cstring>
#include <sys/file.h>
#include <sys/resource.h>

namespace {

class Arena : public TestArena {
protected:
    ~Arena() override { flockHook = nullptr; }

    uint32_t openWithOutputKept(int flags, uint64_t bytes = 4096) {
        auto *const untouched = reinterpret_cast<SharedArena *>(&size);
        SharedArena *out = untouched;
        const uint32_t code = OpenSharedArena(path.c_str(), flags, 0600, bytes, &out);
        if (code == 0) CloseSharedArena(std::exchange(out, untouched));
        EXPECT_EQ(out, untouched);
        return code;
    }
    // An arena with a chunk, that nobody has open.
    void leaveIdleArena(uint64_t bytes = 4096) {
        ASSERT_EQ(open(SHARED_ARENA_CREATE, bytes), 0u);
        ASSERT_NE(allocate("old", 64), nullptr);
        close();
    }
    bool hasOldChunk() {
        const bool attached = open(0) == 0;
        const bool found = attached && allocate("old", 0) != nullptr;
        if (attached) close();
        return found;
    }
};

TEST_F(Arena, ANewFileHoldsTheHeaderOneFreeBlockAndZeros) {
    ::umask(0);
    ASSERT_EQ(OpenSharedArena(path.c_str(), SHARED_ARENA_CREATE, 0640, 5000, &arena), 0u);
    struct stat status;
    EXPECT_EQ(::fstat(arena->descriptor, &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u);
    EXPECT_EQ(arena->base, arena->mapAddress);
    EXPECT_EQ(arena->mapLength, 8192u);
    EXPECT_EQ(arena->size, 8192u);
    EXPECT_EQ(arena->path, path);
    EXPECT_NE(::fcntl(arena->descriptor, F_GETFD) & FD_CLOEXEC, 0);
    close();

    std::string bytes = readFile(path);
    ASSERT_EQ(bytes.size(), 8192u);
    const uint64_t fields[] = {0, 0x0000000151317093, 0x48, 0, 0, 0, 8120};  // from the holder on
    EXPECT_EQ(std::memcmp(bytes.data() + 0x28, fields, sizeof fields), 0);
    bytes.erase(0, 0x28 + sizeof fields);
    EXPECT_EQ(bytes, std::string(bytes.size(), '\0'));
}

TEST_F(Arena, CreatingOnOneInUseAttachesAndOnAnIdleOneStartsAfresh) {
    ASSERT_EQ(open(SHARED_ARENA_CREATE), 0u);
    ASSERT_NE(allocate("old", 64), nullptr);
    EXPECT_EQ(remove(), kBusy);
    SharedArena *first = std::exchange(arena, nullptr);
    for (const uint64_t bytes : {uint64_t{65536}, UINT64_MAX}) {
        ASSERT_EQ(open(SHARED_ARENA_CREATE, bytes), 0u) << "an attacher's size means nothing";
        EXPECT_EQ(arena->mapLength, 4096u);
        EXPECT_NE(arena->base, first->base);
        EXPECT_NE(allocate("old", 0), nullptr);
        close();
    }
    EXPECT_EQ(CloseSharedArena(first), 0u);
    EXPECT_TRUE(hasOldChunk()) << "an idle file keeps its contents";
    ASSERT_EQ(open(SHARED_ARENA_CREATE, 8192), 0u);
    EXPECT_EQ(arena->mapLength, 8192u);
    EXPECT_EQ(allocate("old", 0), nullptr);
    EXPECT_EQ(fault(), "");
    close();
    EXPECT_EQ(remove(), 0u);
    EXPECT_EQ(fileSize(path), -1);
}

TEST_F(Arena, SizesThatCannotBeAreRefusedBeforeTheOldContentsGo) {
    const struct {
        uint64_t bytes;
        int error;
        bool isKept = true;
    } rows[] = {
        {UINT64_MAX, EINVAL}, {UINT64_MAX - 4094, EINVAL}, {8193, EFBIG}, {0, EINVAL, false}};
    for (const auto &row : rows) {
        leaveIdleArena();
        EXPECT_CHILD_OK([&] {
            const rlimit twoPages{8192, 8192};  // SIGXFSZ at a third
            ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &twoPages), 0);
            EXPECT_EQ(openWithOutputKept(SHARED_ARENA_CREATE, row.bytes), kSystemError);
            EXPECT_EQ(errno, row.error);
            EXPECT_EQ(fileSize(path), row.isKept ? 4096 : 0);
            EXPECT_EQ(hasOldChunk(), row.isKept);
            EXPECT_EQ(openWithOutputKept(SHARED_ARENA_CREATE, 8192), 0u);
        });
    }
}

// Files for one who attaches; and for a creator while another process holds them, who waits for
// what can still become an arena, but not for anything else.
TEST_F(Arena, DescriptorZeroIsOneLikeAnother) {
    EXPECT_CHILD_OK([this] {
        (void)::close(STDIN_FILENO);
        ASSERT_EQ(::open("/dev/null", O_RDONLY), STDIN_FILENO);
        EXPECT_EQ(openWithOutputKept(0), SCHED_ERR_SYSTEM);
        EXPECT_EQ(::close(STDIN_FILENO), 0);  // which a failing open must leave alone
        ASSERT_EQ(open(SHARED_ARENA_CREATE), 0u);
        EXPECT_EQ(arena->descriptor, STDIN_FILENO);
        close();
        EXPECT_EQ(remove(), 0u);
    });
}

TEST_F(Arena, FilesThatAreNoArenaGetACode) {
    leaveIdleArena(8192);
    const std::string good = readFile(path);
    std::string strange = good, newer = good;
    strange[0x30] = 'x';
    newer[0x34] = 2;
    const struct {
        const char *what;
        std::string bytes;
        uint32_t code;
        bool isWaitedFor = false;
    } rows[] = {
        {"empty", "", SCHED_ERR_SYSTEM, true},
        {"zeros", std::string(4096, '\0'), SHARED_ERR_MAGIC, true},
        {"one byte", "x", SHARED_ERR_MAGIC},
        {"text of odd length", std::string(5000, 't'), SHARED_ERR_MAGIC},
        {"another magic", strange, SHARED_ERR_MAGIC},
        {"cut before the version", good.substr(0, 0x34), SHARED_ERR_VERSION},
        {"version 2", newer, SHARED_ERR_VERSION},
        {"cut inside the header", good.substr(0, 0x40), 0},
        {"cut inside a page", good.substr(0, 5000), 0},
        {"added to", good + "tail", 0},
    };
    const int before = countOpenDescriptors();
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        writeFile(path, row.bytes);
        EXPECT_EQ(openWithOutputKept(0), row.code);
        const int holder = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        ASSERT_EQ(::flock(holder, LOCK_SH), 0);
        int locks = 0;
        flockHook = [&](LockMoment) { ++locks; };
        EXPECT_EQ(openWithOutputKept(SHARED_ARENA_CREATE), row.code);
        if (row.code == kSystemError) {
            EXPECT_EQ(errno, EINVAL);
        }
        flockHook = nullptr;
        EXPECT_EQ(locks > 2, row.isWaitedFor);
        ::close(holder);
    }
    EXPECT_EQ(countOpenDescriptors(), before);
    EXPECT_EQ(openWithOutputKept(SHARED_ARENA_CREATE | SHARED_ARENA_EXCLUSIVE), kSystemError);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(readFile(path), good + "tail");
    EXPECT_EQ(remove(), 0u) << "no lock was left behind";
    for (const uint32_t code : {remove(), openWithOutputKept(0)}) {
        EXPECT_EQ(code, kSystemError);
        EXPECT_EQ(errno, ENOENT);
    }
}

TEST_F(Arena, AForkedChildGetsALockOfItsOwnEvenInAFullDescriptorTable) {
    ASSERT_EQ(open(SHARED_ARENA_CREATE), 0u);
    EXPECT_CHILD_OK([&] {
        const rlimit few{64, 64};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
        while (::dup(arena->descriptor) >= 0) {
        }
        const int before = countOpenDescriptors();
        void *const base = arena->base;
        EXPECT_EQ(ForkSharedArena(arena), 0u);
        EXPECT_EQ(countOpenDescriptors(), before);
        EXPECT_EQ(arena->base, base);
        EXPECT_EQ(::fcntl(arena->descriptor, F_GETFD), 0);
        EXPECT_NE(allocate("child", 8), nullptr);
        close();
    });
    EXPECT_NE(allocate("child", 0), nullptr);
    EXPECT_EQ(remove(), kBusy);
}

TEST_F(Arena, AForkedChildWhosePathLeadsElsewhereIsTold) {
    ASSERT_EQ(open(SHARED_ARENA_CREATE), 0u);
    ASSERT_EQ(::rename(path.c_str(), (dir / "moved").c_str()), 0);
    EXPECT_CHILD_OK([this] {
        const auto refuses = [this](int error) {
            EXPECT_EQ(ForkSharedArena(arena), kSystemError);
            EXPECT_EQ(errno, error);
            EXPECT_EQ(arena->descriptor, -1);
        };
        refuses(ENOENT);
        writeFile(path, std::string(4096, '\0'));
        refuses(ESTALE);
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
    EXPECT_EQ(fault(), "");
    EXPECT_TRUE(holds({{0x48, 0x70, 2, 64, "first"},
                       {0xb8, 0x90, 0, 0, ""},
                       {0x148, 0x30, 1, 8, ""},
                       {0x178, 0x70, 1, 64, "second"},
                       {0x1e8, 0xe18, 0, 0, ""}}));
    void *first = allocate("first", 0);
    ASSERT_NE(first, nullptr);
    EXPECT_STREQ(static_cast<char *>(first), "the first chunk");
    EXPECT_EQ(size, 64u);
    EXPECT_STREQ(static_cast<char *>(allocate("second", 0)), "the second chunk");
    EXPECT_EQ(offsetOf(allocate("new", 100)), 0xb8u + 40) << "the hole is the best fit";
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(FreeSharedChunk(arena, first), 0u);
    EXPECT_EQ(fault(), "");
}

}  // namespace
