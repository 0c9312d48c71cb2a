// A death at every instruction: each operation on an arena is carried out by a child that is moved
// on one instruction at a time, and whatever the arena then is, is copied, repaired, judged by the
// checker and compared with what was there before and after. So are the repairs themselves.
// Children are killed inside the mutexes too, and arenactl repairs what they leave.
//
// IOSCHED_WHOLE=1 steps every repair of every state, which takes minutes; otherwise some are
// chosen.
#include "repair_rules.h"
#include "sample_arena.h"
#include "shared/shared_internal.h"
#include "takeover.h"

#include <algorithm>
#include <functional>
#include <map>
#include <sched.h>
#include <set>
#include <sys/ptrace.h>
#include <syslog.h>

namespace {

using Bytes = std::vector<std::byte>;
using Step = std::function<void()>;

constexpr SharedFileKey kOurs = SampleArena::kReport, kGhosts{1, 2}, kNew{1, 3};
constexpr uint32_t kReadWrite = SHARED_FILE_READ | SHARED_FILE_WRITE;
constexpr size_t kChosen = 6;  // of so many operations one, where not all are done
// A sanitizer's own instructions are most of a repair's then, and say nothing new.
#ifdef IOSCHED_SANITIZED
constexpr bool kRepairsToo = false;
#else
constexpr bool kRepairsToo = true;
#endif

struct {
    long instructions, states, repairInstructions, repairStates, kills;
} counts;

// ---- the operations ----

struct Operation {
    const char *name;
    Step prepare;  // not stepped, by the same child
    Step run;
};

// What the operations work on, the chunk and table calls of the caller's process.
struct Lab : SampleArena {
    Lab() : SampleArena(8192) {
        (void)initMutexes();  // so that holders are recorded
        EXPECT_CHILD_OK([&] { open(kOurs), open(kGhosts), lock(kGhosts, 0), lock(kOurs, 1000); });
        const ArenaModel model = readArena(mapped());
        for (const TableFile &file : model.tables.at(0).files) {
            if (file.word1 == kGhosts.word1) ghost = file.records.at(0).pid;
        }
    }
    void open(const SharedFileKey &key, uint32_t mode = kReadWrite, uint32_t handle = 1) const {
        uint32_t modes = 0;
        (void)OpenSharedFile(table, 5, handle, &key, mode, 9, "a/name/of/some/length", &modes);
    }
    void lock(const SharedFileKey &key, int64_t offset, uint32_t handle = 1) const {
        (void)LockSharedFileRange(table, 5, handle, &key, 2000 + offset, 10,
                                  SHARED_FILE_LOCK_SHARED);
    }
    void unlock(const SharedFileKey &key, int64_t offset, uint32_t handle = 1) const {
        (void)UnlockSharedFileRange(table, 5, handle, &key, 2000 + offset, 10);
    }
    void close(const SharedFileKey &key) const { (void)CloseSharedFile(table, 5, 1, &key); }
    void giveBack(void *chunk) const { (void)FreeSharedChunk(arena, chunk); }
    void lookAround() const {
        uint32_t pids[4], modes = 0, opens = 0;
        int64_t length = 100;
        (void)SharedFileInfo(table, &kOurs, &modes, &opens, nullptr, 0);
        (void)GetOplockHolders(table, &kOurs, pids, 4, &opens);
        (void)TestSharedFileRange(table, 5, 1, &kOurs, 0, &length, SHARED_FILE_TEST_WRITE);
        (void)SharedFileIsOpen(table, &kNew);
    }
    void makeYoung() { (void)AllocateSharedFileLockTable(arena, "young", 1, 2, 3, &young); }

    uint32_t ghost = 0;  // a process that has ended and left records
    SharedFileLockTable *young = nullptr;
};

std::vector<Operation> operationsOn(Lab &lab) {
    const Step nothing = [] {};
    const auto open = [&lab](SharedFileKey key, uint32_t mode = kReadWrite) {
        return Step([=, &lab] { lab.open(key, mode); });
    };
    const auto allocate = [&lab](const char *name, uint64_t size) {
        return Step([=, &lab] { (void)lab.allocate(name, size); });
    };
    const auto giveBack = [&lab](void *chunk) { return Step([=, &lab] { lab.giveBack(chunk); }); };
    const Step openAndLock = [&lab] { lab.open(kOurs), lab.lock(kOurs, 0); };
    const Step makeYoung = [&lab] { lab.makeYoung(); };
    const Step useUp = [&lab] {
        lab.open(kOurs);
        for (int64_t i = 0; i < 10; i++)
            lab.lock(kOurs, i * 10);
    };
    return {
        {"open of a new file", nothing, open(kNew)},
        {"open of a file that others have open", nothing, open(kOurs)},
        {"open that is refused", nothing, open(kOurs, SHARED_FILE_DENY_READ)},
        {"open without a free record", useUp, open(kNew)},
        {"open without a free entry",
         [&] {
             lab.open({2, 1}), lab.open({2, 2});
         },
         open(kNew)},
        {"close that empties the file", [&] { lab.open(kNew), lab.lock(kNew, 0); },
         [&] { lab.close(kNew); }},
        {"close beside others", openAndLock, [&] { lab.close(kOurs); }},
        {"lock", open(kOurs), [&] { lab.lock(kOurs, 5); }},
        {"unlock", openAndLock, [&] { lab.unlock(kOurs, 0); }},
        {"unlock of a file's last record",
         [&] { lab.open(kNew), lab.lock(kNew, 5, 2), lab.close(kNew); },
         [&] { lab.unlock(kNew, 5, 2); }},
        {"change of mode", open(kOurs),
         [&] { (void)SetSharedFileMode(lab.table, 5, 1, &kOurs, 1); }},
        {"clean", nothing,
         [&] { (void)CleanSharedFileLockTable(lab.table, static_cast<int>(lab.ghost)); }},
        {"looks", nothing, [&] { lab.lookAround(); }},
        {"chunk that splits a block", nothing, allocate(nullptr, 40)},
        {"chunk that fits exactly", nothing, allocate(nullptr, 200)},
        {"chunk with surplus and a name", nothing, allocate("surplus", 180)},
        {"chunk that is there", nothing, allocate("tally", 1)},
        {"chunk too large", nothing, allocate("huge", 8192)},
        {"free of one of two references", allocate("tally", 1), giveBack(lab.tally)},
        {"free behind a free block", nothing, giveBack(lab.tally)},
        {"free between chunks", nothing, giveBack(lab.loner)},
        {"free before a free block", nothing, giveBack(lab.spare)},
        {"free between free blocks", giveBack(lab.loner), giveBack(lab.spare)},
        {"making of a table", nothing, makeYoung},
        {"attaching to a table", makeYoung, makeYoung},
        {"free of a table", makeYoung, [&] { (void)FreeSharedFileLockTable(lab.young); }},
        {"taking over from the dead",
         [&] { EXPECT_CHILD_OK([&] { (void)AquireSharedMutex(lab.tableMutex()); }); },
         [&] { takeOver(lab.tableMutex()), release(lab.tableMutex()); }},
    };
}

// ---- what is in an arena, to be compared ----

using Records = std::vector<std::pair<uint32_t, std::string>>;  // process id, and all the rest
using Files = std::map<std::string, Records>;                   // by table, key, limit and name

struct Chunk {
    uint64_t offset;
    std::string header;
    Bytes data;  // of a chunk that is no table
    bool operator==(const Chunk &) const = default;
};

struct Contents {
    std::vector<Chunk> chunks;          // in list order
    Files files;                        // without those that have no records
    std::string fault;                  // what the checker says, but of mutexes
    std::vector<std::string> halfMade;  // tables
};

void addFiles(const LockTable &table, Files *files) {
    for (const TableFile &file : table.files) {
        const std::string key = printed("%s %lx:%lx %u %s", table.name.c_str(), file.word0,
                                        file.word1, file.openLimit, file.name.c_str());
        for (const TableRecord &r : file.records)
            (*files)[key].emplace_back(
                r.pid, printed("%u %u %ld-%ld %x", r.owner, r.handle, r.start, r.end, r.mode));
    }
}

Contents contentsOf(std::span<const std::byte> bytes) {
    const ArenaModel model = readArena(bytes);
    const ArenaView view(bytes);
    Contents contents;
    for (uint64_t at = view.load<ArenaHeader>(0).allocatedList; at; at = view.load<uint64_t>(at)) {
        for (const HeapBlock &b : model.blocks) {
            if (b.offset != at) continue;
            const auto data = bytes.subspan(b.data(), looksLikeTable(view, b) ? 0 : b.chunkSize);
            contents.chunks.push_back(
                {at,
                 printed("%lu %lu %u %s", b.size, b.chunkSize, b.references, b.name.c_str()),
                 {data.begin(), data.end()}});
        }
    }
    std::set<uint64_t> ignored;
    for (const LockTable &table : model.tables) {
        if (table.state == SHARED_FILE_TABLE_READY) {
            addFiles(table, &contents.files);
            continue;
        }
        contents.halfMade.push_back(table.name);
        ignored.insert(table.offset);
    }
    for (const Finding &finding : model.findings.list()) {
        if (!std::string_view(finding.code).starts_with("mutex-") &&
            !ignored.contains(finding.guard))
            contents.fault = describe(finding);
    }
    return contents;
}

Files without(Files files, const std::set<uint32_t> &pids) {
    for (auto &[key, records] : files)
        std::erase_if(records, [&](const auto &record) { return pids.contains(record.first); });
    std::erase_if(files, [](const auto &item) { return item.second.empty(); });
    return files;
}

// What is in a chunk that was not there before is its creator's matter: it may have died on the
// way.
bool isEither(std::vector<Chunk> now, const std::vector<Chunk> &before, std::vector<Chunk> after) {
    for (std::vector<Chunk> *chunks : {&now, &after}) {
        for (Chunk &chunk : *chunks) {
            if (std::none_of(before.begin(), before.end(),
                             [&](const Chunk &old) { return old.offset == chunk.offset; }))
                chunk.data.clear();
        }
    }
    return now == before || now == after;
}

// Whether a is b with some records left out.
bool isPart(const Records &a, const Records &b) {
    auto at = b.begin();
    return std::all_of(a.begin(), a.end(), [&](const auto &record) {
        at = std::find(at, b.end(), record);
        return at != b.end() && (++at, true);
    });
}

// An operation changes a file's records one after the other. So with a death in it some may be as
// before and some as after: the fewer of the two are in what is there, and that is in the more.
bool liesBetween(Files now, Files before, Files after) {
    if (now == before || now == after) return true;
    Files all = before;
    all.merge(Files(after)), all.merge(Files(now));
    return std::all_of(all.begin(), all.end(), [&](const auto &item) {
        const Records &n = now[item.first], &b = before[item.first], &a = after[item.first];
        return (isPart(a, n) && isPart(n, b)) || (isPart(b, n) && isPart(n, a));
    });
}

// ---- children that are stepped, and what is said of the states that they leave ----

class SteppedChild {
public:
    SteppedChild(const Step &prepare, const Step &operation) : pid_(::fork()) {
        if (pid_ == 0) {
            prepare();
            (void)::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            (void)::raise(SIGSTOP);
            operation();
            ::_exit(0);
        }
        awaitStop();
    }
    ~SteppedChild() { end(); }
    SteppedChild(const SteppedChild &) = delete;
    SteppedChild &operator=(const SteppedChild &) = delete;

    uint32_t pid() const { return static_cast<uint32_t>(pid_); }

    void end() {
        if (!isThere_) return;
        (void)::kill(pid_, SIGKILL);
        (void)::waitpid(pid_, nullptr, 0);
        isThere_ = false;
    }

    // False once it has ended.
    bool step() {
        if (isThere_) (void)::ptrace(PTRACE_SINGLESTEP, pid_, nullptr, nullptr);
        return awaitStop();
    }

    // Leaves it stopped where it is, and nobody's to step; and lets it go on to its end.
    void leaveStopped() const {
        (void)::ptrace(PTRACE_DETACH, pid_, nullptr, SIGSTOP);
        (void)::waitpid(pid_, nullptr, WUNTRACED);
    }
    void finish() {
        (void)::kill(pid_, SIGCONT);
        (void)::waitpid(pid_, nullptr, 0);
        isThere_ = false;
    }

private:
    bool awaitStop() {
        int status = 0;
        isThere_ = isThere_ && ::waitpid(pid_, &status, 0) == pid_ && WIFSTOPPED(status);
        return isThere_;
    }

    pid_t pid_;
    bool isThere_ = true;
};

enum class Repairs { kNone, kOne, kAll };  // that are stepped

class Stepper {
public:
    Stepper(Lab &lab, const Operation &operation)
        : lab_(lab), operation_(operation), start_(copy()), dead_{lab.ghost} {}
    ~Stepper() { putBack(start_); }
    Stepper(const Stepper &) = delete;
    Stepper &operator=(const Stepper &) = delete;

    void run(Repairs repairs) {
        std::vector<Bytes> states;
        std::vector<long> steps;
        {
            SteppedChild child(operation_.prepare, operation_.run);
            before_ = contentsOf(lab_.mapped());
            dead_.insert(child.pid());
            counts.instructions += stepThrough(child, [&](long step) {
                states.push_back(copy());
                steps.push_back(step);
            });
        }
        after_ = contentsOf(lab_.mapped());
        counts.states += static_cast<long>(states.size());
        for (size_t i = 0; i < states.size(); i++)
            EXPECT_EQ(verdict(states[i]), "") << operation_.name << ", instruction " << steps[i];
        for (size_t i = 0; i < states.size(); i++) {
            if (repairs == Repairs::kAll || (repairs == Repairs::kOne && i == states.size() / 2))
                stepRepair(states[i], steps[i]);
        }
    }

    // At every instruction that changes a mutex.
    void killInMutexes() {
        putBack(start_);
        std::vector<long> moments;
        {
            SteppedChild child(operation_.prepare, operation_.run);
            std::string last;
            (void)stepThrough(child, [&](long step) {
                const std::string now = mutexBytes();
                if (now != last) moments.push_back(step);
                last = now;
            });
        }
        for (const long moment : moments)
            killAfter(moment);
    }

private:
    Bytes copy() const { return {lab_.mapped().begin(), lab_.mapped().end()}; }
    void putBack(const Bytes &bytes) const {
        std::memcpy(lab_.mapped().data(), bytes.data(), bytes.size());
    }
    std::string mutexBytes() const {
        return std::string(reinterpret_cast<const char *>(lab_.headerMutex()),
                           sizeof(SharedMutex)) +
               std::string(reinterpret_cast<const char *>(lab_.tableMutex()), sizeof(SharedMutex));
    }

    // Calls visit(step) whenever an instruction has changed the arena. Returns how many there were.
    long stepThrough(SteppedChild &child, const std::function<void(long)> &visit) const {
        Bytes last = copy();
        long step = 0;
        for (; child.step(); step++) {
            if (std::memcmp(last.data(), lab_.mapped().data(), last.size()) == 0) continue;
            last = copy();
            visit(step);
        }
        return step;
    }

    std::string verdict(const Bytes &state) const {
        Bytes bytes = state;
        const std::string refusal = repairAll(bytes, [](uint32_t) { return false; });
        if (!refusal.empty()) return "refused: " + refusal;
        Contents now = contentsOf(bytes);
        if (!now.fault.empty()) return now.fault;
        if (!isEither(now.chunks, before_.chunks, after_.chunks)) return "other chunks";
        if (!liesBetween(now.files, before_.files, after_.files)) return "other records";
        (void)repairAll(bytes, [&](uint32_t pid) { return dead_.contains(pid); });
        for (const std::string &name : now.halfMade) {
            const std::string kept = abandonTable(bytes, name).refusal;
            (void)repairHeap(bytes);
            if (!kept.empty() || contentsOf(bytes).chunks != before_.chunks)
                return "half a table cannot be given up: " + kept;
        }
        now = contentsOf(bytes);
        if (!now.fault.empty()) return "without the dead, " + now.fault;
        return now.files == without(before_.files, dead_) ? "" : "not what others had";
    }

    // The repair of this state, killed at every instruction and done again.
    void stepRepair(const Bytes &state, long stateStep) {
        putBack(state);
        const Contents before = before_, after = after_;
        before_.files = contentsOf(state).files;  // the repair removes records too
        after_.files = without(after.files, dead_);
        const HasEnded hasEnded = [this](uint32_t pid) { return dead_.contains(pid); };
        SteppedChild child([] {}, [&] { (void)repairAll(lab_.mapped(), hasEnded); });
        counts.repairInstructions += stepThrough(child, [&](long step) {
            counts.repairStates++;
            EXPECT_EQ(verdict(copy()), "")
                << operation_.name << ", repair of " << stateStep << ", instruction " << step;
        });
        before_ = before, after_ = after;
    }

    // Stopped there, it lives and keeps its mutex; killed there, it loses it.
    void killAfter(long moment) const {
        for (const bool isKilled : {false, true}) {
            putBack(start_);
            SteppedChild child(operation_.prepare, operation_.run);
            for (long step = 0; step <= moment; step++)
                (void)child.step();
            if (isKilled)
                child.end();
            else
                child.leaveStopped();
            const std::string command = std::string(ARENACTL " repair -w5 ") + lab_.path() +
                                        " 2>&1" +
                                        (isKilled ? "" : " | { ! grep -q 'mutex freed'; }");
            EXPECT_EQ(inChild([&] { ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr); }), 0)
                << operation_.name << ", " << (isKilled ? "killed" : "stopped") << " after "
                << moment;
            if (!isKilled) child.finish();
            counts.kills += isKilled;
        }
        for (SharedMutex *mutex : {lab_.headerMutex(), lab_.tableMutex()}) {
            EXPECT_TRUE(tryLock(mutex));
            release(mutex);
        }
    }

    Lab &lab_;
    const Operation &operation_;
    const Bytes start_;
    std::set<uint32_t> dead_;
    Contents before_, after_;
};

}  // namespace

TEST(Stepping, ADeathAtAnyInstructionIsRepaired) {
    cpu_set_t one;  // two processes that take turns are fastest on one processor
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(::sched_getcpu()), &one);
    (void)::sched_setaffinity(0, sizeof one, &one);
    (void)::setlogmask(LOG_UPTO(LOG_EMERG));  // full tables are meant to be
    const bool isWhole = std::getenv("IOSCHED_WHOLE") != nullptr;
    Lab lab;
    const std::vector<Operation> operations = operationsOn(lab);
    for (size_t i = 0; i < operations.size(); i++) {
        const bool isChosen = isWhole || i % kChosen == kChosen - 1;
        Stepper stepper(lab, operations[i]);
        stepper.run(isWhole                   ? Repairs::kAll
                    : isChosen && kRepairsToo ? Repairs::kOne
                                              : Repairs::kNone);
        if (isChosen) stepper.killInMutexes();
    }
    std::printf("%ld instructions of operations, %ld states; %ld instructions of repairs, %ld "
                "states; %ld kills in mutexes\n",
                counts.instructions, counts.states, counts.repairInstructions, counts.repairStates,
                counts.kills);
}
