#include "examine.h"

#include "mutex_words.h"
#include "waiting.h"

#include <algorithm>
#include <cinttypes>

namespace {

// How many copies of a busy arena must show the same finding before it counts.
constexpr int kConfirmations = 4;
constexpr int kConfirmMs = 20;

// Reads the file until two readings agree and no mutex is held, or the time is up.
bool takeCopy(int waitMs, Examination *exam, std::string *error) {
    const int64_t deadline = nowMs() + waitMs;
    bool changed = true;
    exam->exact = false;
    if (!exam->image.refresh(exam->file, &changed, error)) return false;
    do {
        if (!exam->image.refresh(exam->file, &changed, error)) return false;
        if (changed) {
            exam->whyNot = "the arena never held still";
            continue;
        }
        exam->model = readArena(exam->image.bytes());
        exam->exact = !exam->model.anyMutexHeld();
        if (exam->exact) return true;
        exam->whyNot = "a mutex was held all the time";
        restOneMs();
    } while (nowMs() < deadline);
    if (changed) exam->model = readArena(exam->image.bytes());
    return true;
}

bool sameFinding(const Finding &a, const Finding &b) {
    return a.offset == b.offset && std::string_view(a.code) == b.code;
}

// A copy torn by writers can look damaged. What is really wrong shows in every copy, at the same
// place: of two readings that differ the later one counts, less what only it finds wrong.
bool confirmFindings(Examination *exam, std::string *error) {
    for (int i = 1; i < kConfirmations && !exam->exact && !exam->model.findings.empty(); i++) {
        const std::vector<Finding> before = std::move(exam->model.findings.list());
        restOneMs();
        if (!takeCopy(kConfirmMs, exam, error)) return false;
        if (exam->exact) return true;
        std::erase_if(exam->model.findings.list(), [&](const Finding &finding) {
            return std::none_of(before.begin(), before.end(), [&](const Finding &earlier) {
                return sameFinding(earlier, finding);
            });
        });
    }
    return true;
}

// Does the file still name the same holder? A holder that released the mutex after the copy was
// taken and ended since then is nobody's worry.
bool stillHeld(const ArenaFile &file, const MutexState &mutex) {
    SharedMutex now{};
    if (::pread(file.descriptor(), &now, sizeof(now), static_cast<off_t>(mutex.offset)) !=
        static_cast<ssize_t>(sizeof(now)))
        return true;
    const MutexWords words = mutexWords(now);
    return words.lock != 0 && words.owner == mutex.owner && now.holder == mutex.holder;
}

// Between locking and recording itself a holder has no name for some instructions, and again while
// it unlocks. One that is not on the processor then is no corpse, so this is never for certain.
void addNameless(const MutexState &mutex, Findings *findings) {
    findings->add(
        "mutex-no-owner", mutex.offset, sizeof(SharedMutex), mutex.place + ", mutex",
        "locked, but names no owner: if it stays so, its locker has died; arenactl repair "
        "finds out");
    Finding &last = findings->list().back();  // another one where the list is full
    if (last.offset == mutex.offset) last.unsure = true;
}

// Marks what a living holder may be about to put right, and adds what a dead one never will.
// Nothing is dropped here: a finding that is unsure is shown, but makes no arena damaged.
void judgeMutexes(Examination *exam) {
    std::vector<Finding> &findings = exam->model.findings.list();
    for (const MutexState &mutex : exam->model.mutexes) {
        if (!mutex.held()) continue;
        const Life life = exam->processes.holderLife(mutex.process());
        if (!cannotHold(life)) {
            for (Finding &finding : findings)
                finding.unsure = finding.unsure || finding.guard == mutex.offset;
            continue;
        }
        if (!stillHeld(exam->file, mutex)) continue;
        exam->model.findings.guardedBy(mutex.offset);
        if (mutex.process() == 0)
            addNameless(mutex, &exam->model.findings);
        else
            exam->model.findings.add(
                "mutex-dead-holder", mutex.offset, sizeof(SharedMutex), mutex.place + ", mutex",
                printed("held by process %" PRIu32 ", which is %s: every process that needs it "
                        "waits for ever; arenactl repair frees it",
                        mutex.process(), textOf(life).words));
    }
}

}  // namespace

bool Examination::damaged() const {
    return std::any_of(model.findings.list().begin(), model.findings.list().end(),
                       [](const Finding &finding) { return !finding.unsure; });
}

bool examineArena(const char *path, int waitMs, Examination *exam, std::string *error) {
    if (!exam->file.open(path, error)) return false;
    if (!takeCopy(waitMs, exam, error) || !confirmFindings(exam, error)) return false;
    judgeMutexes(exam);
    return true;
}
