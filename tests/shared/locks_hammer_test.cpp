// Four processes at a few files at once, with a witness that knows nothing of the table: counters in
// shared memory that are moved only while a lock or an open is held. Two holders that the table should
// have kept apart would meet there.

#include "iosched/shared.h"
#include "support/in_child.h"
#include "support/lock_table.h"
#include "support/lock_table_bytes.h"

#include <algorithm>
#include <atomic>
#include <poll.h>
#include <random>
#include <sys/mman.h>
#include <vector>

namespace {

constexpr uint32_t kWorkers = 4, kKeys = 3, kRegions = 4;
constexpr int32_t kFiles = 8, kRecords = 64;
constexpr int64_t kRegionBytes = 10;

SharedFileKey keyOf(uint32_t index) {
    return {index, index * 16};  // all in one bucket
}

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

// What all processes of a test share beside the table.
struct Witness {
    Holders bytes[kKeys][kRegions];
    Holders files[kKeys];
    std::atomic<uint64_t> collisions;
    std::atomic<bool> stop;
    WorkerState workers[kWorkers];

    void wipeMarksOf(uint32_t worker) {
        for (auto &key : bytes)
            for (Holders &region : key)
                region.marks[worker] = Holders::Out;
        for (Holders &file : files)
            file.marks[worker] = Holders::Out;
    }
};

class Dice {
public:
    explicit Dice(uint32_t seed) : random_(seed) {}
    uint32_t below(uint32_t n) { return static_cast<uint32_t>(random_() % n); }

private:
    std::mt19937 random_;
};

class LocksHammer : public testing::Test {
protected:
    LocksHammer()
        : witness(static_cast<Witness *>(::mmap(nullptr, sizeof(Witness), PROT_READ | PROT_WRITE,
                                                MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
    ~LocksHammer() override { (void)::munmap(witness, sizeof(Witness)); }

    pid_t startWorker(uint32_t index) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            work(witness->workers[index], index);
            ::_exit(0);
        }
        return pid;
    }
    void work(WorkerState &self, uint32_t index);
    void hammerRegions(WorkerState &self, const Opener &me, uint32_t key, Dice &dice);
    uint64_t recordsOf(pid_t pid) const;
    void expectAllFree() {
        const TableBytes bytes = readTableBytes(scratch.table, kFiles, kRecords);
        EXPECT_EQ(bytes.fault, "");
        EXPECT_EQ(bytes.freeEntries, uint64_t{kFiles});
        EXPECT_EQ(bytes.freeRecords, uint64_t{kRecords});
    }

    ScratchTable scratch{1, kFiles, kRecords};
    Witness *witness;
};

// Every call into the table goes through here, so that a killer can tell who is inside.
template <class Call>
bool granted(WorkerState &self, Call call) {
    self.inTable = true;
    const bool ok = call() == 0;
    self.inTable = false;
    (ok ? self.granted : self.refused).fetch_add(1);
    return ok;
}

void LocksHammer::hammerRegions(WorkerState &self, const Opener &me, uint32_t key, Dice &dice) {
    for (int i = 0; i < 8; ++i) {
        const uint32_t region = dice.below(kRegions);
        const bool exclusive = dice.below(2) == 0;
        const int64_t offset = region * kRegionBytes + dice.below(3);
        const int64_t length = 1 + dice.below(7);
        const uint32_t flags = exclusive ? SHARED_FILE_LOCK_EXCLUSIVE : SHARED_FILE_LOCK_SHARED;
        // Byte 5 is common to all: start at most 2 and length at least 4 cover it.
        const int64_t reaching = std::max<int64_t>(length, region * kRegionBytes + 6 - offset);
        if (!granted(self, [&] { return me.lock(keyOf(key), offset, reaching, flags); })) continue;
        if (!witness->bytes[key][region].visit(me.owner, exclusive))
            witness->collisions.fetch_add(1);
        if (!granted(self, [&] { return me.unlock(keyOf(key), offset, reaching); })) {
            witness->collisions.fetch_add(1);  // a lock that vanished
        }
    }
}

void LocksHammer::work(WorkerState &self, uint32_t index) {
    Dice dice(static_cast<uint32_t>(::getpid()));
    const Opener me{scratch.table, index, index};
    while (!witness->stop) {
        const uint32_t key = dice.below(kKeys);
        const bool alone = dice.below(3) == 0;
        const uint32_t mode =
            alone ? SHARED_FILE_WRITE | SHARED_FILE_DENY_READ | SHARED_FILE_DENY_WRITE
                  : uint32_t{SHARED_FILE_READ};
        if (granted(self, [&] { return me.open(keyOf(key), mode); })) {
            if (!witness->files[key].visit(index, alone)) witness->collisions.fetch_add(1);
            hammerRegions(self, me, key, dice);
            if (!granted(self, [&] { return me.close(keyOf(key)); }))
                witness->collisions.fetch_add(1);
        }
        self.rounds.fetch_add(1);
    }
}

TEST_F(LocksHammer, NoTwoConflictingOpensOrLocksAreEverHeldAtOnce) {
    std::vector<pid_t> workers;
    for (uint32_t i = 0; i < kWorkers; ++i)
        workers.push_back(startWorker(i));
    (void)::poll(nullptr, 0, 2500);  // how long the hammering is to last: no event to wait for
    witness->stop = true;
    for (pid_t pid : workers)
        EXPECT_EQ(waitForChild(pid), 0);
    EXPECT_EQ(witness->collisions.load(), 0u);
    for (const WorkerState &worker : witness->workers) {
        EXPECT_GT(worker.granted.load(), 100u);
        EXPECT_GT(worker.refused.load(), 10u) << "they never met";
    }
    expectAllFree();
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

TEST_F(LocksHammer, WhatKilledWorkersHeldIsCleanedWhileTheOthersGoOn) {
    Dice dice(std::random_device{}());
    std::vector<pid_t> workers;
    for (uint32_t i = 0; i < kWorkers; ++i)
        workers.push_back(startWorker(i));
    uint64_t leftovers = 0;
    for (int kills = 0; kills < 60; ++kills) {
        const uint32_t victim = dice.below(kWorkers);
        WorkerState &worker = witness->workers[victim];
        const uint64_t enough = worker.rounds + 1 + dice.below(20);
        while (worker.rounds < enough)
            (void)::poll(nullptr, 0, 1);  // the new one is under way
        const pid_t dead = workers[victim];
        ASSERT_NO_FATAL_FAILURE(killOutsideTheTable(dead, worker));
        // Until the dead one's records are cleaned nobody else may enter where it was.
        witness->wipeMarksOf(victim);
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
    expectAllFree();
}

}  // namespace
