// The lock table beside what it is made of and what it stands in for: a process-shared mutex taken
// and released, which every operation pays for, and a lock on an open file description set and
// unset, which is the kernel's own way to lock ranges between processes.
//
// "Getpid" runs ask the kernel for the process id at each call, as they would where it wipes no
// memory at a fork. The difference is what the remembered id saves.

#include "iosched/shared.h"
#include "shared/pid_internal.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

// An arena in a file of its own with a table in it; ends the program where that fails.
struct Table {
    Table() {
        if (::mkdtemp(dir.data()) == nullptr ||
            OpenSharedArena((dir + "/arena").c_str(), SHARED_ARENA_CREATE, 0600, 4 << 20, &arena) ||
            AllocateSharedFileLockTable(arena, "bench", 16, 256, 0, &table)) {
            std::perror("no table");
            std::exit(1);
        }
    }
    ~Table() {
        (void)FreeSharedFileLockTable(table);
        (void)CloseSharedArena(arena);
        (void)DeleteSharedArena((dir + "/arena").c_str());
        (void)::rmdir(dir.c_str());
    }
    Table(const Table &) = delete;
    Table &operator=(const Table &) = delete;

    std::string dir = "/tmp/locks_bench.XXXXXX";
    SharedArena *arena = nullptr;
    SharedFileLockTable *table = nullptr;
};

// Leaves the process without a remembered id for as long as it lives, if told to.
class PidSource {
public:
    explicit PidSource(bool remembered) : saved_(ownPidWord) {
        if (!remembered) ownPidWord = &kNothing;
    }
    ~PidSource() { ownPidWord = saved_; }
    PidSource(const PidSource &) = delete;
    PidSource &operator=(const PidSource &) = delete;

private:
    static constexpr uint32_t kNothing = 0;
    const uint32_t *saved_;
};

constexpr bool kRemembered = true, kGetpid = false;  // where the process id comes from
constexpr SharedFileKey kFile{0x1000, 0x2000};

void open(Table &shared, const SharedFileKey &key, benchmark::State &state) {
    uint32_t combined = 0;
    if (OpenSharedFile(shared.table, 1, 1, &key, SHARED_FILE_READ, 0, "/a/path", &combined) != 0) {
        state.SkipWithError("open refused");
    }
}

// As many other files are open as the argument says.
void LockTable_LockUnlock(benchmark::State &state, bool remembered) {
    Table shared;
    const PidSource pid(remembered);
    for (uint64_t i = 0; i < static_cast<uint64_t>(state.range(0)); ++i)
        open(shared, {i, i << 20}, state);
    open(shared, kFile, state);
    for (auto _ : state) {
        const int taken =
            LockSharedFileRange(shared.table, 1, 1, &kFile, 0, 100, SHARED_FILE_LOCK_EXCLUSIVE);
        const int given = UnlockSharedFileRange(shared.table, 1, 1, &kFile, 0, 100);
        if (taken != 0 || given != 0) state.SkipWithError("lock refused");
    }
}

void LockTable_OpenClose(benchmark::State &state, bool remembered) {
    Table shared;
    const PidSource pid(remembered);
    for (uint64_t i = 0; i < static_cast<uint64_t>(state.range(0)); ++i)
        open(shared, {i, i << 20}, state);
    for (auto _ : state) {
        open(shared, kFile, state);
        if (CloseSharedFile(shared.table, 1, 1, &kFile) != 0) state.SkipWithError("not open");
    }
}

// The bare mutex. Every benchmark above makes two operations a round, so it pays for two such pairs.
void SharedMutex_LockUnlock(benchmark::State &state) {
    Table shared;
    auto *mutex = static_cast<SharedMutex *>(shared.table->header);
    for (auto _ : state) {
        if (::pthread_mutex_lock(&mutex->mutex) != 0) state.SkipWithError("lock");
        benchmark::ClobberMemory();
        if (::pthread_mutex_unlock(&mutex->mutex) != 0) state.SkipWithError("unlock");
    }
}

void Kernel_OfdLockUnlock(benchmark::State &state) {
    Table shared;
    struct flock range {};
    range.l_len = 100;
    for (auto _ : state) {
        range.l_type = F_WRLCK;
        if (::fcntl(shared.arena->descriptor, F_OFD_SETLK, &range) != 0) state.SkipWithError("set");
        range.l_type = F_UNLCK;
        if (::fcntl(shared.arena->descriptor, F_OFD_SETLK, &range) != 0)
            state.SkipWithError("unset");
    }
}

void Pid(benchmark::State &state, bool remembered) {
    Table shared;
    const PidSource pid(remembered);
    for (auto _ : state)
        benchmark::DoNotOptimize(ownPid());
}

BENCHMARK_CAPTURE(LockTable_LockUnlock, Remembered, kRemembered)->Arg(0)->Arg(4000);
BENCHMARK_CAPTURE(LockTable_LockUnlock, Getpid, kGetpid)->Arg(0);
BENCHMARK_CAPTURE(LockTable_OpenClose, Remembered, kRemembered)->Arg(0)->Arg(4000);
BENCHMARK_CAPTURE(LockTable_OpenClose, Getpid, kGetpid)->Arg(0);
BENCHMARK(SharedMutex_LockUnlock);
BENCHMARK(Kernel_OfdLockUnlock);
BENCHMARK_CAPTURE(Pid, Remembered, kRemembered);
BENCHMARK_CAPTURE(Pid, Getpid, kGetpid);

}  // namespace
