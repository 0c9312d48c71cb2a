// A process is judged only while the table's mutex is held: a new process that is given a dead
// one's id cannot have put records of its own there in the meantime.
#include "cleaner.h"

#include "rehearsal.h"
#include "session.h"
#include "waiting.h"

#include <cinttypes>

namespace {

class Cleaner {
public:
    Cleaner(const Session &session, const CleanOptions &options, RepairReport *report)
        : session_(session), bytes_(session.bytes()), options_(options), report_(report) {}

    void run() {
        MutexReport header = reportOn(0, "arena header");
        if (!hold(&header)) {
            report_->mutexes.push_back(std::move(header));
            return;
        }
        Findings ignored;
        for (const HeapBlock &block : readAllocated(ArenaView(bytes_), ignored)) {
            if (isReadyTable(bytes_, block)) cleanTable(block);
        }
        release(mutexAt(0));
        tellStrangers();
    }

private:
    static MutexReport reportOn(uint64_t offset, std::string place) {
        return {std::move(place), offset, Holder::kNone, 0, {}, {}, {}};
    }

    SharedMutex *mutexAt(uint64_t offset) const {
        return reinterpret_cast<SharedMutex *>(bytes_.data() + offset);
    }

    // Takes a mutex, or says why not. A death in it leaves more to be done than is done here.
    bool hold(MutexReport *report) const {
        const Processes processes(session_.file());
        if (!canTakeOver(mutexAt(report->offset))) {
            report->refusal = "the mutex is not one of an arena; see arenactl check";
            return false;
        }
        const int64_t deadline = nowMs() + options_.waitMs;
        while (!tryLock(mutexAt(report->offset))) {
            report->holder = judgeHolder(mutexAt(report->offset), processes, &report->thread);
            if (report->holder == Holder::kDead || nowMs() >= deadline) {
                report->refusal = report->holder == Holder::kDead
                                      ? "arenactl repair has to free it first"
                                      : "it is not released; try again, with a longer -w";
                return false;
            }
            restOneMs();
        }
        report->holder = Holder::kNone;
        return true;
    }

    void cleanTable(const HeapBlock &block) {
        MutexReport report = reportOn(block.data(), "table " + quoted(block.name));
        if (hold(&report)) {
            Processes processes(session_.file());
            const Guarded table =
                guardedTable(block, [&](uint32_t pid) { return mayRemove(processes, pid); });
            if (rehearse(bytes_, table, &report)) (void)table.mend(bytes_);
            release(mutexAt(block.data()));
        }
        report_->mutexes.push_back(std::move(report));
    }

    // A stranger's records go on demand only: it may come back to them.
    bool mayRemove(Processes &processes, uint32_t pid) {
        if (!options_.pids.empty() && !options_.pids.contains(pid)) return false;
        if (hasEnded(Processes::bareLife(pid))) return true;
        living_.insert(pid);
        return options_.pids.contains(pid) && processes.lifeOf(pid) == Life::kStranger;
    }

    void tellStrangers() {
        Processes processes(session_.file());
        for (const uint32_t pid : living_) {
            if (!options_.pids.empty() || processes.lifeOf(pid) != Life::kStranger) continue;
            report_->notes.push_back(printed("process %" PRIu32
                                             " runs but does not use this arena; "
                                             "name it to have its records removed",
                                             pid));
        }
    }

    const Session &session_;
    const std::span<std::byte> bytes_;
    const CleanOptions &options_;
    RepairReport *report_;
    std::set<uint32_t> living_;  // that have records
};

}  // namespace

bool cleanArena(const char *path, const CleanOptions &options, RepairReport *report,
                std::string *error) {
    report->path = path;
    report->command = "clean";
    Session session;
    if (!session.open(path, error)) return false;
    std::string why;
    if (!session.claim(options.waitMs, &why)) {
        report->refusals.push_back(why);
        return true;
    }
    Processes processes(session.file());
    for (const uint32_t pid : options.pids) {
        if (processes.lifeOf(pid) == Life::kAlive)
            report->refusals.push_back(
                printed("process %" PRIu32 " lives and uses the arena", pid));
    }
    if (report->refusals.empty()) Cleaner(session, options, report).run();
    return true;
}
