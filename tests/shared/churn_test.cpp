// Many processes that open, use, close and delete one arena as fast as they can.
//
// Each worker checks what an open handle promises: it lies on the file that is at the path (else it
// is an orphan: others have an arena of their own there), it maps that file whole, and what the
// worker puts into the arena stays there until it closes it (else its creation was lost). A mapping
// that is cut ends a worker with SIGBUS.
//
// Runs for 2 seconds, or for IOSCHED_CHURN_SECONDS.
#include "iosched/shared.h"

#include "shared/call_wrap.h"
#include "support/in_child.h"
#include "support/test_arena.h"

#include <atomic>
#include <cstdio>
#include <ctime>
#include <random>
#include <sys/mman.h>

namespace {

constexpr int kWorkers = 8;

struct Counts {
    std::atomic<uint64_t> opens, creations, deletions, notThere, orphans, lostCreations, failures;
};

double now() {
    timespec time;
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

class Worker {
public:
    Worker(int number, std::string path, Counts *counts)
        : number_(number), path_(std::move(path)), counts_(counts),
          random_(static_cast<uint32_t>(number)) {}

    void runUntil(double end) {
        // Leaves the gaps open long enough for others to come through.
        flockHook = [this](LockMoment) {
            if (random_() % 2 == 0) linger();
        };
        while (now() < end) {
            const auto dice = random_() % 10;
            if (dice < 4)
                use(SHARED_ARENA_CREATE);
            else if (dice < 6)
                use(0);
            else if (DeleteSharedArena(path_.c_str()) == 0)
                ++counts_->deletions;
            linger();
        }
    }

private:
    void linger() {
        const timespec pause{0, static_cast<long>(random_() % 300) * 1000};
        (void)::nanosleep(&pause, nullptr);
    }

    void use(int flags) {
        SharedArena *arena = nullptr;
        const uint64_t bytes = 4096 * (1 + random_() % 4);
        const uint32_t code = OpenSharedArena(path_.c_str(), flags, 0600, bytes, &arena);
        if (code != 0) {
            // Without the flag an open may find no file, or one that nobody has initialised yet.
            ++(flags == 0 ? counts_->notThere : counts_->failures);
            return;
        }
        ++counts_->opens;
        std::string stamp = "worker " + std::to_string(number_);
        const uint64_t stampSize = 8 + random_() % 64;
        void *chunk = nullptr;
        uint32_t created = 0;
        uint64_t size = stampSize;
        const uint32_t stamped = AllocateSharedChunk(arena, stamp.c_str(), &size, &chunk, &created);
        if (created == 1) {
            ++counts_->creations;
            (void)ReleaseSharedMutex(static_cast<SharedMutex *>(arena->base));
        }
        if (stamped != 0) ++counts_->failures;
        checkPlace(arena);
        linger();
        checkPlace(arena);
        if (stamped == 0) checkStamp(arena, stamp, chunk);
        CloseSharedArena(arena);
    }

    void checkPlace(const SharedArena *arena) {
        struct stat mine, named;
        const bool same = ::fstat(arena->descriptor, &mine) == 0 &&
                          ::stat(path_.c_str(), &named) == 0 && mine.st_ino == named.st_ino;
        if (!same)
            ++counts_->orphans;
        else if (static_cast<uint64_t>(mine.st_size) != arena->mapLength)
            ++counts_->lostCreations;
    }

    void checkStamp(SharedArena *arena, const std::string &stamp, void *chunk) {
        uint64_t size = 0;
        void *again = nullptr;
        uint32_t created = 0;
        if (AllocateSharedChunk(arena, stamp.c_str(), &size, &again, &created) != 0 ||
            again != chunk)
            ++counts_->lostCreations;
        else
            (void)FreeSharedChunk(arena, again);
        (void)FreeSharedChunk(arena, chunk);
    }

    int number_;
    std::string path_;
    Counts *counts_;
    std::minstd_rand random_;
};

TEST(ArenaChurn, NoHandleIsOrphanedAndNoCreationLost) {
    const char *wanted = std::getenv("IOSCHED_CHURN_SECONDS");
    const double seconds = wanted != nullptr ? std::atof(wanted) : 2;
    const ScratchDir dir;
    auto *counts = static_cast<Counts *>(
        ::mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const double end = now() + seconds;
    pid_t workers[kWorkers];
    for (int i = 0; i < kWorkers; ++i) {
        workers[i] = ::fork();
        if (workers[i] != 0) continue;
        Worker(i, dir / "arena", counts).runUntil(end);
        ::_exit(0);
    }
    const int deadlineMs = static_cast<int>(seconds * 1000) + 30000;
    for (const pid_t worker : workers)
        EXPECT_EQ(waitForChild(worker, deadlineMs), 0);
    std::printf("opens %lu, chunks created %lu, deletions %lu, not there %lu, orphans %lu, "
                "lost creations %lu, failures %lu\n",
                counts->opens.load(), counts->creations.load(), counts->deletions.load(),
                counts->notThere.load(), counts->orphans.load(), counts->lostCreations.load(),
                counts->failures.load());
    EXPECT_GT(counts->opens, 0u);
    EXPECT_EQ(counts->orphans, 0u);
    EXPECT_EQ(counts->lostCreations, 0u);
    EXPECT_EQ(counts->failures, 0u);
    ::munmap(counts, sizeof(Counts));
}

}  // namespace
