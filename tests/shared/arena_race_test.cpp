// Arenas whose file another process deletes, initialises or locks between two steps of an opener.
//
// The other process is played by calls from inside the interposed flock: locks belong to open
// files, so a second descriptor of this process stands for one of another's.
#include "iosched/shared.h"

#include "shared/interposed_flock.h"
#include "support/in_child.h"
#include "support/test_arena.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>

namespace {

class ArenaRace : public TestArena {
protected:
    ~ArenaRace() override {
        flockHook = nullptr;
        if (other != nullptr) CloseSharedArena(other);
    }

    // Runs the action once, the first time that the moment comes.
    void onceAt(LockMoment moment, std::function<void()> action) {
        flockHook = [=, done = false](LockMoment now) mutable {
            if (now != moment || std::exchange(done, true)) return;
            action();
        };
    }

    uint32_t openOther(int flags, uint64_t bytes = 4096) {
        return OpenSharedArena(path.c_str(), flags, 0600, bytes, &other);
    }

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
        EXPECT_EQ(contents().fault, "");
        EXPECT_EQ(DeleteSharedArena(path.c_str()), static_cast<uint32_t>(SHARED_ERR_BUSY));
    }

    void expectSameArenaAsOther() {
        expectSoundAndAtThePath();
        ASSERT_NE(other, nullptr);
        EXPECT_EQ(inodeOf(arena), inodeOf(other));
        EXPECT_EQ(arena->mapLength, other->mapLength);
    }

    // A lock on the file as another program, or an attacher half-way, holds it.
    int lockedDescriptor(int operation) {
        const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        EXPECT_EQ(::flock(fd, operation), 0);
        return fd;
    }

    SharedArena *other = nullptr;
};

TEST_F(ArenaRace, DeletedBetweenOpenAndLockIsCreatedAnew) {
    for (const int flags : {SHARED_ARENA_CREATE, SHARED_ARENA_CREATE | SHARED_ARENA_EXCLUSIVE}) {
        onceAt(LockMoment::beforeLock, [this] { EXPECT_EQ(DeleteSharedArena(path.c_str()), 0u); });
        ASSERT_EQ(open(flags), 0u);
        expectSoundAndAtThePath();
        CloseSharedArena(std::exchange(arena, nullptr));
        EXPECT_EQ(DeleteSharedArena(path.c_str()), 0u);
    }
}

TEST_F(ArenaRace, AFileThatIsAlwaysDeletedIsGivenUp) {
    const int before = openDescriptors();
    flockHook = [this](LockMoment) { EXPECT_EQ(DeleteSharedArena(path.c_str()), 0u); };
    EXPECT_EQ(open(SHARED_ARENA_CREATE), kSystemError);
    EXPECT_EQ(errno, ESTALE);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ArenaRace, AnAttacherWhoseFileIsDeletedFindsNone) {
    writeFile(path, std::string(4096, '\0'));
    const int before = openDescriptors();
    onceAt(LockMoment::beforeLock, [this] { EXPECT_EQ(DeleteSharedArena(path.c_str()), 0u); });
    EXPECT_EQ(open(0), kSystemError);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(arena, nullptr);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ArenaRace, AnAttacherFollowsToTheFileMadeAnew) {
    writeFile(path, std::string(4096, '\0'));
    onceAt(LockMoment::beforeLock, [this] {
        EXPECT_EQ(DeleteSharedArena(path.c_str()), 0u);
        EXPECT_EQ(openOther(SHARED_ARENA_CREATE, 8192), 0u);
    });
    ASSERT_EQ(open(0), 0u);
    expectSameArenaAsOther();
}

TEST_F(ArenaRace, DeletingDoesNotHitAFileMadeAnew) {
    writeFile(path, std::string(4096, '\0'));
    onceAt(LockMoment::beforeLock, [this] {
        EXPECT_EQ(DeleteSharedArena(path.c_str()), 0u);
        EXPECT_EQ(openOther(SHARED_ARENA_CREATE), 0u);
    });
    EXPECT_EQ(DeleteSharedArena(path.c_str()), static_cast<uint32_t>(SHARED_ERR_BUSY));
    EXPECT_EQ(fileSize(path), 4096);
}

TEST_F(ArenaRace, DeletedWhileTheLockIsTurnedIsCreatedAnew) {
    onceAt(LockMoment::givenUp, [this] { EXPECT_EQ(DeleteSharedArena(path.c_str()), 0u); });
    ASSERT_EQ(open(SHARED_ARENA_CREATE), 0u);
    expectSoundAndAtThePath();
}

TEST_F(ArenaRace, InitialisedAgainWhileTheLockIsTurnedIsMappedAsItThenIs) {
    const uint64_t sizes[][2] = {{4096, 16384}, {16384, 4096}, {8192, 8192}};
    for (const auto &[mine, theirs] : sizes) {
        onceAt(LockMoment::givenUp,
               [this, theirs = theirs] { EXPECT_EQ(openOther(SHARED_ARENA_CREATE, theirs), 0u); });
        ASSERT_EQ(open(SHARED_ARENA_CREATE, mine), 0u);
        expectSameArenaAsOther();
        CloseSharedArena(std::exchange(arena, nullptr));
        CloseSharedArena(std::exchange(other, nullptr));
    }
}

TEST_F(ArenaRace, DeletedAndMadeAnewWhileTheLockIsTurnedIsAttachedTo) {
    onceAt(LockMoment::givenUp, [this] {
        EXPECT_EQ(DeleteSharedArena(path.c_str()), 0u);
        EXPECT_EQ(openOther(SHARED_ARENA_CREATE, 8192), 0u);
    });
    ASSERT_EQ(open(SHARED_ARENA_CREATE, 4096), 0u);
    expectSameArenaAsOther();
}

TEST_F(ArenaRace, ACreatorKilledWhileTheLockIsTurnedLeavesTheFileToThisOne) {
    for (const off_t left : {0, 4096}) {
        onceAt(LockMoment::givenUp, [this, left] {
            EXPECT_EQ(::truncate(path.c_str(), 0), 0);
            EXPECT_EQ(::truncate(path.c_str(), left), 0);
        });
        ASSERT_EQ(open(SHARED_ARENA_CREATE, 8192), 0u);
        EXPECT_EQ(arena->mapLength, 8192u);
        expectSoundAndAtThePath();
        CloseSharedArena(std::exchange(arena, nullptr));
    }
}

TEST_F(ArenaRace, ACreatorWaitsForAnAttacherOfAFileNotYetInitialised) {
    for (const bool exclusive : {false, true}) {
        int attacher = -1;
        int attempts = 0;
        flockHook = [&](LockMoment moment) {
            if (moment != LockMoment::beforeLock) return;
            if (attempts++ == 0) attacher = lockedDescriptor(LOCK_SH);
            if (attempts == 6) ::close(attacher);
        };
        const int flags = SHARED_ARENA_CREATE | (exclusive ? SHARED_ARENA_EXCLUSIVE : 0);
        ASSERT_EQ(open(flags), 0u);
        EXPECT_GE(attempts, 6);
        expectSoundAndAtThePath();
        CloseSharedArena(std::exchange(arena, nullptr));
        EXPECT_EQ(DeleteSharedArena(path.c_str()), 0u);
    }
}

TEST_F(ArenaRace, ACreatorGivesUpOnAFileThatStaysUninitialised) {
    const int before = openDescriptors();
    writeFile(path, std::string(4096, '\0'));
    const int holder = lockedDescriptor(LOCK_SH);
    EXPECT_EQ(open(SHARED_ARENA_CREATE), static_cast<uint32_t>(SHARED_ERR_MAGIC));
    EXPECT_EQ(::truncate(path.c_str(), 0), 0);
    EXPECT_EQ(open(SHARED_ARENA_CREATE), kSystemError);
    EXPECT_EQ(errno, EINVAL);
    ::close(holder);
    EXPECT_EQ(arena, nullptr);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ArenaRace, LocksMeanToOtherProgramsWhatTheySay) {
    ASSERT_EQ(open(SHARED_ARENA_CREATE), 0u);
    const int fd = lockedDescriptor(LOCK_SH);
    EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), -1) << "an open handle holds a shared lock";
    CloseSharedArena(std::exchange(arena, nullptr));
    EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0) << "and nothing else";
    EXPECT_EQ(DeleteSharedArena(path.c_str()), static_cast<uint32_t>(SHARED_ERR_BUSY));
    ::close(fd);
}

// Runs an opening in a child that kills itself at the moment given.
int killedAt(const std::string &path, LockMoment moment) {
    return inChild([&] {
        flockHook = [=](LockMoment now) {
            if (now == moment) (void)::kill(::getpid(), SIGKILL);
        };
        SharedArena *never = nullptr;
        (void)OpenSharedArena(path.c_str(), SHARED_ARENA_CREATE, 0600, 8192, &never);
    });
}

TEST_F(ArenaRace, ACreatorKilledAtAnyStepLeavesAFileToStartFrom) {
    for (const LockMoment moment :
         {LockMoment::beforeLock, LockMoment::stillLocked, LockMoment::givenUp}) {
        EXPECT_EQ(WTERMSIG(killedAt(path, moment)), SIGKILL);
        const uint32_t attached = open(0);
        if (moment == LockMoment::beforeLock) {
            EXPECT_EQ(attached, kSystemError) << "an empty file";
        } else {
            EXPECT_EQ(attached, 0u) << "initialised, so ready for anybody";
            expectSoundAndAtThePath();
            CloseSharedArena(std::exchange(arena, nullptr));
        }
        ASSERT_EQ(open(SHARED_ARENA_CREATE), 0u);
        expectSoundAndAtThePath();
        CloseSharedArena(std::exchange(arena, nullptr));
        EXPECT_EQ(DeleteSharedArena(path.c_str()), 0u);
    }
}

TEST_F(ArenaRace, ACreatorKilledWhileWritingLeavesNoArena) {
    ASSERT_EQ(open(SHARED_ARENA_CREATE, 8192), 0u);
    CloseSharedArena(std::exchange(arena, nullptr));
    const int status = inChild([this] {
        const rlimit twoPages{8192, 8192};  // SIGXFSZ at the third
        (void)::setrlimit(RLIMIT_FSIZE, &twoPages);
        (void)open(SHARED_ARENA_CREATE, 16384);
    });
    EXPECT_EQ(WTERMSIG(status), SIGXFSZ);
    EXPECT_EQ(open(0), static_cast<uint32_t>(SHARED_ERR_MAGIC));
    ASSERT_EQ(open(SHARED_ARENA_CREATE, 16384), 0u);
    expectSoundAndAtThePath();
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
        onceAt(LockMoment::beforeLock,
               [&] { busy = DeleteSharedArena(path.c_str()) == SHARED_ERR_BUSY; });
        const uint32_t code = ForkSharedArena(arena);
        ::_exit(busy && code == 0 ? 0 : 1);
    }
    CloseSharedArena(std::exchange(arena, nullptr));
    EXPECT_EQ(::write(parentIsGone[1], "", 1), 1);
    EXPECT_EQ(waitForChild(child), 0);
    EXPECT_EQ(DeleteSharedArena(path.c_str()), 0u);
    for (const int end : parentIsGone)
        ::close(end);
}

TEST_F(ArenaRace, AWaitThatACaughtSignalEndsIsReported) {
    writeFile(path, std::string(4096, '\0'));
    const int holder = lockedDescriptor(LOCK_EX);
    struct sigaction ignoring = {};
    ignoring.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGUSR1, &ignoring, nullptr), 0);
    const pid_t test = ::getpid();
    const pid_t sender = ::fork();
    if (sender == 0) {
        // Again and again, since the first may come before the wait.
        while (::kill(test, SIGUSR1) == 0)
            (void)::poll(nullptr, 0, 1);
        ::_exit(0);
    }
    const int before = openDescriptors();
    EXPECT_EQ(open(0), kSystemError);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(::kill(sender, SIGKILL), 0);
    (void)waitForChild(sender);
    ::close(holder);
}

// A handle whose ForkSharedArena failed has no lock, and the file may be taken from it.
TEST_F(ArenaRace, AForkedChildThatStoodWithoutALockIsToldWhatBecameOfItsFile) {
    const std::function<void()> takeovers[] = {
        [this] { EXPECT_EQ(DeleteSharedArena(path.c_str()), 0u); },
        [this] { EXPECT_EQ(openOther(SHARED_ARENA_CREATE, 16384), 0u); },
    };
    for (const auto &takeOver : takeovers) {
        ASSERT_EQ(open(SHARED_ARENA_CREATE, 8192), 0u);
        // Closing alone would not do where the mapping keeps the lock, as on Linux.
        EXPECT_EQ(::flock(arena->descriptor, LOCK_UN), 0);
        ::close(std::exchange(arena->descriptor, -1));
        onceAt(LockMoment::beforeLock, takeOver);
        EXPECT_EQ(ForkSharedArena(arena), kSystemError);
        EXPECT_EQ(errno, ESTALE);
        EXPECT_EQ(arena->descriptor, -1);
        CloseSharedArena(std::exchange(arena, nullptr));
    }
}

}  // namespace
