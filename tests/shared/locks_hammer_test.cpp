// Four processes at a few files at once, with a witness that knows nothing of the table: marks in
// shared memory that stand only while a lock or an open is held. Two holders that the table should
// have kept apart would meet there. Meanwhile workers are killed, and what they held is cleaned.

#include "iosched/shared.h"
#include "support/in_child.h"
#include "support/lock_table.h"
#include "support/lock_table_bytes.h"

#include <algorithm>
#include <atomic>
#include <random>
#include <sys/mman.h>
#include <vector>

namespace {

constexpr uint32_t kWorkers = 4, kKeys = 3, kRegions = 4;
constexpr int32_t kFiles = 8, kRecords = 64;
constexpr int64_t kRegionBytes = 10;

// Who holds one thing at this moment: a mark for each worker, so that a dead one's can be wiped.
struct Holders {
    enum Mark : int { Out, Reading, Writing };
    std::atomic<int> marks[kWorkers];

    // Steps in, looks who else is there, and steps out; false when the two may not be together.
    bool visit(uint32_t self, bool asWriter) {
        marks[self] = asWriter ? Writing : Reading;
        bool mayStay = true;
        for (uint32_t i = 0; i < 5 * kWorkers; ++i) {
            const int other = i % kWorkers == self ? Out : marks[i % kWorkers].load();
            mayStay = mayStay && (asWriter ? other == Out : other != Writing);
        }
        marks[self] = Out;
        return mayStay;
    }
};

struct WorkerState {
    std::atomic<bool> inTable;  // while a call into the table may be under way
    std::atomic<uint64_t> rounds, granted, refused;
};

// What all processes share beside the table.
struct Witness {
    Holders things[kKeys][1 + kRegions];  // of each file itself, and of its regions
    std::atomic<uint64_t> collisions;
    std::atomic<bool> stop;
    WorkerState workers[kWorkers];
};

class LocksHammer : public testing::Test {
protected:
    LocksHammer()
        : witness(static_cast<Witness *>(::mmap(nullptr, sizeof(Witness), PROT_READ | PROT_WRITE,
                                                MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
    ~LocksHammer() override { (void)::munmap(witness, sizeof(Witness)); }

    pid_t startWorker(uint32_t index) {
        const pid_t pid = ::fork();
        if (pid != 0) return pid;
        std::minstd_rand random(static_cast<uint32_t>(::getpid()));
        while (!witness->stop)
            openLockAndClose(witness->workers[index], index, random);
        ::_exit(0);
    }
    void openLockAndClose(WorkerState &self, uint32_t index, std::minstd_rand &random);
    uint64_t recordsOf(pid_t pid) const;

    ScratchTable scratch{1, kFiles, kRecords};
    Witness *witness;
};

void LocksHammer::openLockAndClose(WorkerState &self, uint32_t index, std::minstd_rand &random) {
    const auto granted = [&](auto call) {
        self.inTable = true;
        const bool ok = call() == 0;
        self.inTable = false;
        (ok ? self.granted : self.refused).fetch_add(1);
        return ok;
    };
    const auto check = [this](bool good) { witness->collisions += !good; };
    const auto table = scratch.table;
    const auto file = static_cast<uint32_t>(random() % kKeys);
    const SharedFileKey key{file, file * 16};  // all in one bucket
    const bool alone = random() % 3 == 0;
    const uint32_t mode = alone ? SHARED_FILE_WRITE | SHARED_FILE_DENY_READ | SHARED_FILE_DENY_WRITE
                                : SHARED_FILE_READ;
    uint32_t combined = 0;
    self.rounds.fetch_add(1);
    if (!granted([&] { return OpenSharedFile(table, index, 1, &key, mode, 0, "", &combined); }))
        return;
    check(witness->things[file][0].visit(index, alone));
    for (int i = 0; i < 8; ++i) {
        const auto region = static_cast<uint32_t>(random() % kRegions);
        const bool exclusive = random() % 2 == 0;
        // Byte 5 of a region is common to all locks on it.
        const int64_t offset = region * kRegionBytes + static_cast<int64_t>(random() % 3);
        const int64_t length =
            region * kRegionBytes + 6 - offset + static_cast<int64_t>(random() % 4);
        const uint32_t flags = exclusive ? SHARED_FILE_LOCK_EXCLUSIVE : SHARED_FILE_LOCK_SHARED;
        if (!granted(
                [&] { return LockSharedFileRange(table, index, 1, &key, offset, length, flags); }))
            continue;
        check(witness->things[file][1 + region].visit(index, exclusive));
        check(
            granted([&] { return UnlockSharedFileRange(table, index, 1, &key, offset, length); }));
    }
    check(granted([&] { return CloseSharedFile(table, index, 1, &key); }));
}

// What a process holds in the table, which others are using meanwhile.
uint64_t LocksHammer::recordsOf(pid_t pid) const {
    auto *mutex = static_cast<SharedMutex *>(scratch.table->header);
    EXPECT_EQ(AquireSharedMutex(mutex), 0u);
    const TableBytes bytes = readTableBytes(scratch.table, kFiles, kRecords);
    EXPECT_EQ(ReleaseSharedMutex(mutex), 0u);
    EXPECT_EQ(bytes.fault, "");
    uint64_t held = 0;
    for (const TableFile &entry : bytes.entries)
        for (const TableRecord &record : entry.records)
            held += record.pid == static_cast<uint32_t>(pid);
    return held;
}

// Kills a worker while it is outside the table: one that dies inside leaves the mutex locked, and
// nobody could go on. A stopped worker stays where it is, so the flag can be trusted.
void killOutsideTheTable(pid_t pid, const WorkerState &worker) {
    for (;;) {
        int status = 0;
        ASSERT_EQ(::kill(pid, SIGSTOP), 0);
        ASSERT_EQ(::waitpid(pid, &status, WUNTRACED), pid);
        ASSERT_TRUE(WIFSTOPPED(status));
        if (!worker.inTable) break;
        ASSERT_EQ(::kill(pid, SIGCONT), 0);
        (void)::poll(nullptr, 0, 1);  // or it would be stopped again where it stands
    }
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    EXPECT_EQ(WTERMSIG(waitForChild(pid)), SIGKILL);
}

TEST_F(LocksHammer, NoConflictingHoldersEverMeetWhileWorkersAreKilledAndCleaned) {
    std::minstd_rand random(std::random_device{}());
    std::vector<pid_t> workers;
    for (uint32_t i = 0; i < kWorkers; ++i)
        workers.push_back(startWorker(i));
    uint64_t leftovers = 0;
    for (int kills = 0; kills < 60; ++kills) {
        const auto victim = static_cast<uint32_t>(random() % kWorkers);
        WorkerState &worker = witness->workers[victim];
        const uint64_t enough = worker.rounds + 50 + random() % 50;
        while (worker.rounds < enough)
            (void)::poll(nullptr, 0, 1);  // the new one is under way
        const pid_t dead = workers[victim];
        ASSERT_NO_FATAL_FAILURE(killOutsideTheTable(dead, worker));
        // Until the dead one's records are cleaned nobody else may enter where it was.
        for (auto &file : witness->things)
            for (Holders &thing : file)
                thing.marks[victim] = Holders::Out;
        leftovers += recordsOf(dead);
        EXPECT_EQ(CleanSharedFileLockTable(scratch.table, dead), 0);
        EXPECT_EQ(recordsOf(dead), 0u);
        workers[victim] = startWorker(victim);
    }
    witness->stop = true;
    for (pid_t pid : workers)
        EXPECT_EQ(waitForChild(pid), 0);
    EXPECT_EQ(witness->collisions.load(), 0u);
    EXPECT_GT(leftovers, 10u) << "no worker died holding anything";
    for (const WorkerState &worker : witness->workers) {
        EXPECT_GT(worker.granted.load(), 100u);
        EXPECT_GT(worker.refused.load(), 10u) << "they never met";
    }
    const TableBytes bytes = readTableBytes(scratch.table, kFiles, kRecords);
    EXPECT_EQ(bytes.fault, "");
    EXPECT_EQ(bytes.freeEntries, uint64_t{kFiles});
    EXPECT_EQ(bytes.freeRecords, uint64_t{kRecords});
}

}  // namespace
