// Many processes that open, use, close and delete one arena as fast as they can.
//
// Each worker checks what an open handle promises: it lies on the file that is at the path (else it
// is an orphan: others have an arena of their own there), it maps that file whole, and what the
// worker puts into the arena stays there until it closes it (else its creation was lost). A mapping
// that is cut ends a worker with SIGBUS.
//
// Runs for 2 seconds, or for IOSCHED_CHURN_SECONDS.
#include "iosched/shared.h"

#include "iosched/sched.h"
#include "shared/call_wrap.h"
#include "support/in_child.h"
#include "support/test_arena.h"

#include <ctime>
#include <random>

namespace {

class ArenaChurn : public TestArena {
protected:
    // What worker number so and so does.
    void runUntil(int64_t end, uint32_t worker) {
        random_.seed(worker);
        stamp_ = "worker " + std::to_string(worker);
        // Leaves the gaps open long enough for others to come through.
        flockHook = [this](LockMoment) {
            if (random_() % 2 == 0) linger();
        };
        while (getAbsMonoTime() < end && !HasFailure()) {
            const auto dice = random_() % 10;
            if (dice >= 6)
                (void)remove();
            else
                use(dice < 4 ? SHARED_ARENA_CREATE : 0);
            linger();
        }
    }

private:
    void linger() {
        const timespec pause{0, static_cast<long>(random_() % 300) * 1000};
        (void)::nanosleep(&pause, nullptr);
    }

    void use(int flags) {
        const uint32_t opened = open(flags, 4096 * (1 + random_() % 4));
        if (opened != 0) {
            // Without the flag an open may find no file, or one that nobody has initialised yet.
            EXPECT_EQ(flags, 0) << "code " << opened << " errno " << errno;
            return;
        }
        void *chunk = stampOfSize(8 + random_() % 64);
        expectItsPlace();
        linger();
        expectItsPlace();
        EXPECT_EQ(stampOfSize(0), chunk) << "a creation is lost";
        for (int references = 0; references < 2; ++references)
            EXPECT_EQ(FreeSharedChunk(arena, chunk), 0u);
        close();
    }

    // The chunk that the worker makes with a size, and has to find with 0.
    void *stampOfSize(uint64_t bytes) {
        void *chunk = nullptr;
        EXPECT_EQ(AllocateSharedChunk(arena, stamp_.c_str(), &bytes, &chunk, &created), 0u);
        if (created == 1) (void)ReleaseSharedMutex(static_cast<SharedMutex *>(arena->base));
        return chunk;
    }

    void expectItsPlace() const {
        struct stat mine, named;
        ASSERT_EQ(::fstat(arena->descriptor, &mine) | ::stat(path.c_str(), &named), 0);
        EXPECT_EQ(mine.st_ino, named.st_ino) << "an orphan";
        EXPECT_EQ(static_cast<uint64_t>(mine.st_size), arena->mapLength) << "a creation is lost";
    }

    std::string stamp_;
    std::minstd_rand random_;
};

TEST_F(ArenaChurn, NoHandleIsOrphanedAndNoCreationLost) {
    const char *wanted = std::getenv("IOSCHED_CHURN_SECONDS");
    const int ms = (wanted != nullptr ? std::atoi(wanted) : 2) * 1000;
    const int64_t end = getAbsMonoTime() + ms;
    pid_t workers[8];
    for (pid_t &worker : workers) {
        worker = ::fork();
        if (worker != 0) continue;
        runUntil(end, static_cast<uint32_t>(&worker - workers));
        ::_exit(HasFailure() ? 1 : 0);
    }
    for (const pid_t worker : workers)
        EXPECT_EQ(waitForChild(worker, ms + 30000), 0);
}

}  // namespace
