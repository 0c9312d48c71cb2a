// Openings that fail, or whose process is killed, at each single step.
#include "iosched/shared.h"

#include "shared/call_wrap.h"
#include "shared/interposed_flock.h"
#include "support/in_child.h"
#include "support/test_arena.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <memory>

namespace {

class ArenaFaults : public TestArena {
protected:
    ~ArenaFaults() override {
        callHook = nullptr;
        flockHook = nullptr;
    }

    // An arena of one page with a chunk, that nobody has open.
    void leaveIdleArena() {
        ASSERT_EQ(open(SHARED_ARENA_CREATE), 0u);
        ASSERT_NE(allocate("old", 64), nullptr);
        CloseSharedArena(std::exchange(arena, nullptr));
    }

    // Opens with two pages in a child that dies right before the step of that number; the wait
    // status. With fewer steps the child ends with 0.
    int openingKilledAt(int step) {
        return inChild([this, step] {
            const auto countDown = [stepsLeft = step]() mutable {
                if (--stepsLeft == 0) (void)::kill(::getpid(), SIGKILL);
            };
            const auto shared = std::make_shared<std::function<void()>>(countDown);
            callHook = [shared](std::string_view) { return (*shared)(), 0; };
            flockHook = [shared](LockMoment) { (*shared)(); };
            const uint32_t code = open(SHARED_ARENA_CREATE, 8192);
            callHook = nullptr;
            flockHook = nullptr;
            EXPECT_EQ(code, 0u);
        });
    }
};

TEST_F(ArenaFaults, ACallThatFailsIsReportedAndLeavesNothingOpen) {
    const struct {
        const char *call;
        int error, letThrough;
        uint32_t whatIsLeft;  // for one who only attaches
    } cases[] = {
        {"ftruncate", EIO, 0, 0},
        {"write", ENOSPC, 0, SCHED_ERR_SYSTEM},
        {"write", EDQUOT, 1, SHARED_ERR_MAGIC},
        {"mmap", ENOMEM, 0, SHARED_ERR_MAGIC},
        {"pthread_mutex_init", EAGAIN, 0, SHARED_ERR_MAGIC},
        {"pthread_mutex_lock", EAGAIN, 0, SHARED_ERR_MAGIC},
        {"pthread_mutex_unlock", EPERM, 0, 0},
        {"mmap", ENOMEM, 1, 0},  // when it attaches to what it made
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.call) + " " + std::to_string(c.letThrough));
        leaveIdleArena();
        const int before = openDescriptors();
        callHook = failing(c.call, c.error, c.letThrough);
        errno = 0;
        EXPECT_EQ(open(SHARED_ARENA_CREATE, 8192), kSystemError);
        EXPECT_EQ(errno, c.error);
        callHook = nullptr;
        EXPECT_EQ(arena, nullptr);
        EXPECT_EQ(openDescriptors(), before);
        EXPECT_EQ(open(0), c.whatIsLeft);
        if (arena != nullptr) CloseSharedArena(std::exchange(arena, nullptr));
        EXPECT_EQ(DeleteSharedArena(path.c_str()), 0u) << "no lock was left behind";
    }
}

TEST_F(ArenaFaults, AnInitialisationThatFailsIsNotTriedAgain) {
    int attempts = 0;
    callHook = [&](std::string_view call) {
        return call == "ftruncate" && ++attempts > 0 ? EINVAL : 0;
    };
    EXPECT_EQ(open(SHARED_ARENA_CREATE), kSystemError);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(attempts, 1);
}

TEST_F(ArenaFaults, ACreatorKilledAtAnyStepLeavesTheOldArenaNoneOrAWholeNewOne) {
    int oldOnes = 0, unfinished = 0, newOnes = 0;
    for (int step = 1;; ++step) {
        SCOPED_TRACE(step);
        leaveIdleArena();
        const int status = openingKilledAt(step);
        if (status == 0) break;
        ASSERT_EQ(WTERMSIG(status), SIGKILL);

        const uint32_t attached = open(0);
        if (attached == 0) {
            const ArenaContents left = contents();
            EXPECT_EQ(left.fault, "");
            const bool isOld = arena->mapLength == 4096;
            EXPECT_EQ(left.allocatedBlocks.size(), isOld ? 1u : 0u);
            ++(isOld ? oldOnes : newOnes);
            CloseSharedArena(std::exchange(arena, nullptr));
        } else {
            EXPECT_TRUE(attached == SHARED_ERR_MAGIC ||
                        (attached == kSystemError && errno == EINVAL));
            ++unfinished;
        }
        ASSERT_EQ(open(SHARED_ARENA_CREATE, 8192), 0u) << "the next creator starts from there";
        EXPECT_EQ(contents().fault, "");
        EXPECT_NE(allocate("new", 64), nullptr) << "with a mutex that is free";
        CloseSharedArena(std::exchange(arena, nullptr));
    }
    EXPECT_EQ(oldOnes, 2) << "before the lock, before the truncation";
    EXPECT_GE(unfinished, 8);
    EXPECT_GE(newOnes, 4) << "from the release of the mutex on";
}

}  // namespace
