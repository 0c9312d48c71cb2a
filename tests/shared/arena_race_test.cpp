// Arenas whose file another process deletes, initialises or locks between two steps of an opener.
//
// The other process is played by calls from inside the wrapped flock: locks belong to open files,
// so a second descriptor of this process stands for one of another's.
#include "iosched/shared.h"

#include "shared/call_wrap.h"
#include "support/in_child.h"
#include "support/test_arena.h"

#include <cerrno>
#include <sys/file.h>
#include <sys/mman.h>

namespace {

class ArenaRace : public TestArena {
protected:
    ~ArenaRace() override {
        flockHook = nullptr;
        if (other != nullptr) CloseSharedArena(other);
    }

    // Runs the action once, the first time that the moment comes.
    void onceAt(LockMoment moment, std::function<void()> action) {
        exclusiveFd = -1;
        flockHook = [=, done = false](LockMoment now) mutable {
            if (now == moment && !std::exchange(done, true)) action();
        };
    }
    void openOther(uint64_t bytes) {
        EXPECT_EQ(OpenSharedArena(path.c_str(), SHARED_ARENA_CREATE, 0600, bytes, &other), 0u);
    }
    void removed() { EXPECT_EQ(remove(), 0u); }

    static ino_t inodeOf(const SharedArena *which) {
        struct stat status;
        EXPECT_EQ(::fstat(which->descriptor, &status), 0);
        return status.st_ino;
    }
    void expectSoundAndAtThePath() {
        ASSERT_NE(arena, nullptr);
        struct stat named;
        ASSERT_EQ(::stat(path.c_str(), &named), 0);
        EXPECT_EQ(inodeOf(arena), named.st_ino);
        EXPECT_EQ(arena->mapLength, static_cast<uint64_t>(named.st_size));
        EXPECT_EQ(fault(), "");
        EXPECT_EQ(remove(), kBusy);
    }
    // A lock on the file as another program, or an attacher half-way, holds it.
    int lockedDescriptor(int operation) {
        const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        EXPECT_EQ(::flock(fd, operation), 0);
        return fd;
    }

    SharedArena *other = nullptr;
};

TEST_F(ArenaRace, WhateverComesBetweenTheOpenerEndsOnTheFileAtThePath) {
    constexpr int kCreate = SHARED_ARENA_CREATE;
    constexpr LockMoment kBefore = LockMoment::beforeLock, kGivenUp = LockMoment::givenUp;
    const auto remake = [this](uint64_t bytes) {
        return [=, this] { removed(), openOther(bytes); };
    };
    const auto initialise = [this](uint64_t bytes) { return [=, this] { openOther(bytes); }; };
    const auto killedCreator = [this](off_t left) {
        return [=, this] {
            EXPECT_EQ(::truncate(path.c_str(), 0) | ::truncate(path.c_str(), left), 0);
        };
    };
    const struct {
        int flags;
        LockMoment moment;
        std::function<void()> event;
        uint64_t bytes, otherBytes = 0;  // asked for, and what the other process made
    } rows[] = {
        {kCreate, kBefore, [this] { removed(); }, 4096},
        {kCreate | SHARED_ARENA_EXCLUSIVE, kBefore, [this] { removed(); }, 4096},
        {0, kBefore, remake(8192), 4096, 8192},
        {kCreate, kGivenUp, [this] { removed(); }, 4096},
        {kCreate, kGivenUp, remake(8192), 4096, 8192},
        {kCreate, kGivenUp, initialise(16384), 4096, 16384},
        {kCreate, kGivenUp, initialise(4096), 16384, 4096},
        {kCreate, kGivenUp, initialise(8192), 8192, 8192},
        {kCreate, kGivenUp, killedCreator(0), 8192},
        {kCreate, kGivenUp, killedCreator(4096), 8192},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        if (row.flags == 0) writeFile(path, std::string(4096, '\0'));
        onceAt(row.moment, row.event);
        ASSERT_EQ(open(row.flags, row.bytes), 0u);
        flockHook = nullptr;
        expectSoundAndAtThePath();
        EXPECT_EQ(arena->mapLength, row.otherBytes != 0 ? row.otherBytes : row.bytes);
        close();
        if (other != nullptr) CloseSharedArena(std::exchange(other, nullptr));
        removed();
    }
}

TEST_F(ArenaRace, AFileThatGoesIsMissingGivenUpOrNotTheOneToDelete) {
    const int before = countOpenDescriptors();
    writeFile(path, std::string(4096, '\0'));
    onceAt(LockMoment::beforeLock, [this] { removed(); });
    EXPECT_EQ(open(0), kSystemError);
    EXPECT_EQ(errno, ENOENT);

    flockHook = [this](LockMoment) { removed(); };
    EXPECT_EQ(open(SHARED_ARENA_CREATE), kSystemError);
    EXPECT_EQ(errno, ESTALE);
    EXPECT_EQ(countOpenDescriptors(), before);

    flockHook = nullptr;
    writeFile(path, std::string(4096, '\0'));
    onceAt(LockMoment::beforeLock, [this] { removed(), openOther(4096); });
    EXPECT_EQ(remove(), kBusy);
    EXPECT_EQ(fileSize(path), 4096);
}

TEST_F(ArenaRace, ACreatorWaitsForAnAttacherOfAFileNotYetInitialised) {
    for (const int exclusive : {0, SHARED_ARENA_EXCLUSIVE}) {
        int attacher = -1, attempts = 0;
        flockHook = [&](LockMoment moment) {
            if (moment != LockMoment::beforeLock) return;
            if (attempts++ == 0) attacher = lockedDescriptor(LOCK_SH);
            if (attempts == 6) ::close(attacher);
        };
        ASSERT_EQ(open(SHARED_ARENA_CREATE | exclusive), 0u);
        EXPECT_GE(attempts, 6);
        flockHook = nullptr;
        expectSoundAndAtThePath();
        close();
        removed();
    }
}

TEST_F(ArenaRace, LocksMeanToOtherProgramsWhatTheySay) {
    ASSERT_EQ(open(SHARED_ARENA_CREATE), 0u);
    const int fd = lockedDescriptor(LOCK_SH);
    EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), -1) << "an open handle holds a shared lock";
    close();
    EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0) << "and nothing else";
    EXPECT_EQ(remove(), kBusy);
    ::close(fd);
}

TEST_F(ArenaRace, AForkedChildNeverStandsWithoutALock) {
    ASSERT_EQ(open(SHARED_ARENA_CREATE), 0u);
    int parentIsGone[2];
    ASSERT_EQ(::pipe2(parentIsGone, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        char byte;
        (void)::read(parentIsGone[0], &byte, 1);
        // Linux lets the mapping keep the lock too, which would hide a descriptor closed too early.
        ::munmap(arena->mapAddress, arena->mapLength);
        bool busy = false;
        onceAt(LockMoment::beforeLock, [&] { busy = remove() == kBusy; });
        const uint32_t code = ForkSharedArena(arena);
        ::_exit(busy && code == 0 ? 0 : 1);
    }
    close();
    EXPECT_EQ(::write(parentIsGone[1], "", 1), 1);
    EXPECT_EQ(waitForChild(child), 0);
    removed();
    for (const int end : parentIsGone)
        ::close(end);
}

// A handle whose ForkSharedArena failed has no lock, and the file may be taken from it.
TEST_F(ArenaRace, AForkedChildThatStoodWithoutALockIsToldWhatBecameOfItsFile) {
    const std::function<void()> takeovers[] = {[this] { removed(); }, [this] { openOther(16384); }};
    for (const auto &takeOver : takeovers) {
        ASSERT_EQ(open(SHARED_ARENA_CREATE, 8192), 0u);
        // Closing alone would not do where the mapping keeps the lock, as on Linux.
        EXPECT_EQ(::flock(arena->descriptor, LOCK_UN), 0);
        ::close(std::exchange(arena->descriptor, -1));
        onceAt(LockMoment::beforeLock, takeOver);
        EXPECT_EQ(ForkSharedArena(arena), kSystemError);
        EXPECT_EQ(errno, ESTALE);
        EXPECT_EQ(arena->descriptor, -1);
        close();
    }
}

}  // namespace
