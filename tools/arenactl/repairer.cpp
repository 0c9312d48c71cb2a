// The order of things: the arena's own mutex first, held to the end so that no chunk comes or goes,
// then every lock table's. Each repair is first made on a copy and judged by the checker; only what
// passes is done to the arena, and only after that is the mutex taken from the dead.
//
// A rehearsal of the whole goes the same way on a copy of the arena, and takes no mutex.
#include "repairer.h"

#include "examine.h"
#include "rehearsal.h"
#include "session.h"
#include "stopped.h"
#include "waiting.h"

#include <algorithm>
#include <cinttypes>

namespace {

// A process on its way through the few instructions without a name is done long before.
constexpr int kNamelessMs = 20;

class Repairer {
public:
    Repairer(const ArenaFile &file, std::span<std::byte> bytes, const RepairOptions &options,
             RepairReport *report)
        : file_(file), bytes_(bytes), options_(options), report_(report) {}

    void run() {
        if (!holdArena()) return;
        for (const std::string &name : options_.abandoned)
            abandon(name);
        repairTables();
        tellReferences();
        if (!options_.isRehearsal) release(mutexAt(0));
    }

private:
    enum class Got { kTaken, kLeft, kRefused };

    SharedMutex *mutexAt(uint64_t offset) const {
        return reinterpret_cast<SharedMutex *>(bytes_.data() + offset);
    }

    MutexReport &startReport(uint64_t offset, std::string place) {
        return report_->mutexes.emplace_back(
            MutexReport{std::move(place), offset, Holder::kNone, 0, {}, {}, {}});
    }

    // ---- a mutex and what it guards ----

    bool refusesKind(MutexReport *report) const {
        if (canTakeOver(mutexAt(report->offset))) return false;
        report->refusal = "the mutex is not one of an arena; see arenactl check";
        return true;
    }

    // Takes a mutex from its dead holder and repairs what it guards. The mutex stays taken.
    Got takeFromTheDead(const Guarded &guarded, MutexReport *report) {
        if (refusesKind(report)) return Got::kRefused;
        const bool isNameless = report->holder == Holder::kNameless;
        const Got got = isNameless && !options_.isRehearsal ? takeNameless(guarded, report)
                                                            : takeKnown(guarded, report);
        if (got != Got::kTaken) return got;
        report->done = guarded.mend(bytes_).done;
        report->done.push_back("mutex freed");
        return Got::kTaken;
    }

    Got takeKnown(const Guarded &guarded, MutexReport *report) const {
        if (!rehearse(bytes_, guarded, report)) return Got::kRefused;
        if (!options_.isRehearsal)
            takeOver(mutexAt(report->offset));
        else if (report->holder == Holder::kNameless)
            report->outcome = "the arena's users would be stopped to see whether its locker lives";
        return Got::kTaken;
    }

    // Rehearses while all are stopped: a locker that lives may just be going on to change things.
    Got takeNameless(const Guarded &guarded, MutexReport *report) const {
        SharedMutex *mutex = mutexAt(report->offset);
        StoppedUsers users(file_);
        if (!users.stopAll(&report->refusal)) return Got::kRefused;
        uint32_t thread = 0;
        const auto isSettled = [&] {
            return judgeHolder(mutex, processes_, &thread) != Holder::kNameless;
        };
        users.stepOut(isSettled);
        if (isSettled()) return Got::kLeft;
        if (!rehearse(bytes_, guarded, report)) return Got::kRefused;
        takeOver(mutex);
        return Got::kTaken;
    }

    // A mutex that has no name for this long is worth stopping everybody for.
    Holder judgePatiently(const SharedMutex *mutex, uint32_t *thread) const {
        const int64_t deadline = nowMs() + (options_.isRehearsal ? 0 : kNamelessMs);
        for (;;) {
            const Holder holder = judgeHolder(mutex, processes_, thread);
            if (holder != Holder::kNameless || nowMs() >= deadline) return holder;
            restOneMs();
        }
    }

    // ---- the arena's mutex ----

    // False if the arena is refused as a whole.
    bool holdArena() {
        const Guarded heap = guardedHeap();
        MutexReport &report = startReport(0, "arena header");
        const int64_t deadline = nowMs() + options_.waitMs;
        if (refusesKind(&report)) return false;
        for (;;) {
            if (!options_.isRehearsal && tryLock(mutexAt(0))) {
                report.holder = Holder::kNone;
                return checkHeap(&report);
            }
            report.holder = judgePatiently(mutexAt(0), &report.thread);
            if (report.holder == Holder::kDead || report.holder == Holder::kNameless) {
                const Got got = takeFromTheDead(heap, &report);
                if (got == Got::kTaken) tellNewest(report);
                if (got != Got::kLeft) return got == Got::kTaken;
            } else if (options_.isRehearsal) {
                return report.holder == Holder::kAlive || checkHeap(&report);
            } else if (nowMs() >= deadline) {
                report.refusal =
                    "it is not released, and nobody can look at the lock tables without "
                    "it; try again, with a longer -w";
                return false;
            }
            restOneMs();
        }
    }

    // A heap that is damaged though nobody died in it is nothing to find tables by.
    bool checkHeap(MutexReport *report) {
        report->refusal = guardedHeap().fault(bytes_);
        if (!report->refusal.empty() && !options_.isRehearsal) release(mutexAt(0));
        return report->refusal.empty();
    }

    void tellNewest(const MutexReport &report) {
        dead_.push_back(report.thread);
        const auto header = ArenaView(bytes_).load<ArenaHeader>(0);
        for (const HeapBlock &block : blocks()) {
            if (block.offset != header.allocatedList || isReadyTable(bytes_, block)) continue;
            report_->notes.push_back(
                printed("the newest chunk, %s at 0x%" PRIx64
                        ", stays: if its creator is who died, it may not be filled in",
                        nameOf(block).c_str(), block.data()));
        }
    }

    static std::string nameOf(const HeapBlock &block) {
        return block.named ? quoted(block.name) : std::string("an unnamed one");
    }

    std::vector<HeapBlock> blocks() const {
        Findings ignored;
        return readAllocated(ArenaView(bytes_), ignored);
    }

    // ---- the lock tables ----

    void abandon(const std::string &name) {
        Guarded heap = guardedHeap();
        heap.mend = [&](std::span<std::byte> bytes) {
            Repair given = abandonTable(bytes, name);
            if (given.refusal.empty() && !given.done.empty())
                given.refusal = repairHeap(bytes).refusal;
            return given;
        };
        MutexReport attempt{};
        if (!rehearse(bytes_, heap, &attempt)) {
            report_->refusals.push_back(attempt.refusal);
            return;
        }
        if (attempt.done.empty()) report_->notes.push_back("there is no chunk " + quoted(name));
        (void)heap.mend(bytes_);
        std::vector<std::string> &done = report_->mutexes.front().done;
        done.insert(done.end(), attempt.done.begin(), attempt.done.end());
    }

    void repairTables() {
        for (const HeapBlock &block : blocks()) {
            if (!looksLikeTable(ArenaView(bytes_), block)) continue;
            if (isReadyTable(bytes_, block))
                repairOneTable(block);
            else
                report_->notes.push_back(
                    "the lock table " + quoted(block.name) +
                    " was never ready and is left alone; name it after the arena to give it up");
        }
    }

    void repairOneTable(const HeapBlock &block) {
        const Guarded table =
            guardedTable(block, [](uint32_t pid) { return hasEnded(Processes::bareLife(pid)); });
        MutexReport &report = startReport(block.data(), "table " + quoted(block.name));
        SharedMutex *mutex = mutexAt(block.data());
        for (;;) {
            report.holder = judgePatiently(mutex, &report.thread);
            if (report.holder == Holder::kNone || report.holder == Holder::kAlive) {
                if (report.holder == Holder::kNone && !options_.isRehearsal) wakeAll(mutex);
                return;
            }
            const Got got = takeFromTheDead(table, &report);
            if (got == Got::kLeft) continue;
            if (got == Got::kRefused) return;
            if (!options_.isRehearsal) release(mutex);
            dead_.push_back(report.thread);
            return;
        }
    }

    // Nothing in the arena tells whose a reference is.
    void tellReferences() {
        std::string chunks;
        for (const HeapBlock &block : blocks()) {
            if (block.references == 0) continue;
            chunks += (chunks.empty() ? "" : ", ") + nameOf(block) +
                      printed(" %" PRIu32, block.references);
        }
        std::sort(dead_.begin(), dead_.end());
        dead_.erase(std::unique(dead_.begin(), dead_.end()), dead_.end());
        if (dead_.empty() || chunks.empty()) return;
        std::string pids;
        for (const uint32_t pid : dead_) {
            if (pid != 0) pids += (pids.empty() ? "" : " and ") + printed("%" PRIu32, pid);
        }
        report_->notes.push_back("references to chunks that " +
                                 (pids.empty() ? "a dead process" : "process " + pids) +
                                 " held stay counted; the counts are now: " + chunks);
    }

    const ArenaFile &file_;
    const std::span<std::byte> bytes_;
    const RepairOptions &options_;
    RepairReport *report_;
    Processes processes_{file_};
    std::vector<uint32_t> dead_;  // threads that held a mutex; 0 for one without a name
};

bool rehearseArena(const char *path, const RepairOptions &options, RepairReport *report,
                   std::string *error) {
    Examination exam;
    if (!examineArena(path, options.waitMs, &exam, error)) return false;
    if (!exam.model.isArena) {
        *error = printed("%s: not an arena that this program can read; check the path", path);
        return false;
    }
    const std::span<const std::byte> bytes = exam.image.bytes();
    std::vector<std::byte> copy(bytes.begin(), bytes.end());
    Repairer(exam.file, copy, options, report).run();
    return true;
}

}  // namespace

bool repairArena(const char *path, const RepairOptions &options, RepairReport *report,
                 std::string *error) {
    report->path = path;
    report->isRehearsal = options.isRehearsal;
    if (options.isRehearsal) return rehearseArena(path, options, report, error);
    Session session;
    if (!session.open(path, error)) return false;
    std::string why;
    if (session.claim(options.waitMs, &why))
        Repairer(session.file(), session.bytes(), options, report).run();
    else
        report->refusals.push_back(why);
    return true;
}
