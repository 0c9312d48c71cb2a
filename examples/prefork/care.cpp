#include "care.h"
#include "errand.h"
#include "master.h"
#include "service.h"
#include "share.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <iosched/sched.h>
#include <string>
#include <unistd.h>
#include <utility>

namespace {

constexpr int64_t kRetryMs = 500;  // when no child could be made for an errand, or a mutex was held
constexpr int kRepairTries = 3;    // of a repairer that could not look; a refusal is final
constexpr int kRetriesAtTheEnd = 12;  // of the cleaning, once the service stops

// Looks are counted, not time: on a machine that stands still with everybody on it, nobody stalls.
constexpr int64_t kLookMs = 500;      // at a mutex that was free
constexpr int64_t kCloseLookMs = 50;  // at one that was held
constexpr int kLooksToRepair = 10;    // half a second: dead holders and those without a name
constexpr int kLooksToName = 40;      // two seconds: living ones

struct Watched {
    SharedMutex *(*mutex)();
    const char *name;
    int looks;      // in a row at which it was held by the same owner; 0 = it was free
    pid_t owner;    // at those looks
    bool reported;  // of this owner all is said, and a repair was tried
};

Watched watched[] = {{tableMutex, "the lock table's mutex", 0, 0, false},
                     {arenaMutex, "the arena's mutex", 0, 0, false}};
std::deque<pid_t> toClean;  // reaped workers whose records are still in the table
bool repairWanted;
bool deathSeen;  // what is to be repaired died; else a living stranger is to be looked at
int repairTries;
int killsWanted;
bool ending;
int retriesAtTheEnd;
SchedTimer lookTimer, retryTimer;

void runErrands();

// ---- errands, one at a time ----

void retryLater() {
    retryTimer.func = [](SchedTimer *) { runErrands(); };
    retryTimer.interval = kRetryMs;
    (void)restartTimer(&retryTimer);
}

void cleanAgain(pid_t worker) {
    if (ending && ++retriesAtTheEnd > kRetriesAtTheEnd) {
        logLine("the records of worker %d stay in the lock table", worker);
        return;
    }
    toClean.push_back(worker);
    retryLater();
}

bool lives(pid_t pid) {
    const char state = processState(pid);
    return state != 0 && state != 'Z' && state != 'X';
}

void loseWhatDied() {
    for (const Watched &mutex : watched) {
        const MutexState now = stateOf(mutex.mutex());
        // What a living process holds is left alone by a repair, and is no reason to end.
        if (!now.locked || (now.owner != 0 && lives(now.owner))) continue;
        return loseTable(std::string(mutex.name) + " died with process " +
                         std::to_string(now.owner) + " and is not repaired");
    }
}

// What a living process holds stays reported; all else is looked at afresh.
void forgetWhatIsFree() {
    for (Watched &mutex : watched) {
        const MutexState now = stateOf(mutex.mutex());
        const bool same = now.locked && now.owner == mutex.owner;
        if (!same || mutex.owner == 0 || !lives(mutex.owner))
            mutex = {mutex.mutex, mutex.name, 0, 0, false};
    }
    if (std::exchange(deathSeen, false)) share.board->repairs++;
}

void onRepairEnd(ErrandEnd end) {
    if (end == ErrandEnd::Done) {
        repairTries = 0;
        forgetWhatIsFree();
    } else if (end == ErrandEnd::Refused || ++repairTries == kRepairTries) {
        loseWhatDied();
    } else {  // it could not look, or somebody else was repairing
        repairWanted = true;
        retryLater();
    }
}

void onErrandDone(Errand what, pid_t worker, ErrandEnd end) {
    if (what == Errand::Repair) {
        onRepairEnd(end);
        if (repairWanted) return;  // in a moment
    } else if (what == Errand::Clean && end == ErrandEnd::Done) {
        share.board->cleanings++;
    } else if (what == Errand::Clean) {
        if (end == ErrandEnd::Failed) logLine("cannot remove the records of worker %d yet", worker);
        return cleanAgain(worker);
    } else if (end != ErrandEnd::Done) {
        logLine("worker %d was not killed: %s", worker,
                end == ErrandEnd::Stuck ? "a mutex is held" : "it has ended meanwhile");
    }
    runErrands();
}

void start(Errand what, pid_t worker) {
    if (startErrand(what, worker, onErrandDone)) return;
    logLine("%s: no child could be made for it: %s", errandName(what), strerror(errno));
    if (what == Errand::Clean) return cleanAgain(worker);
    repairWanted = what == Errand::Repair;
    if (repairWanted) retryLater();
}

void runErrands() {
    if (errandUnderWay() || tableIsLost()) return;
    if (repairWanted) {
        repairWanted = false;
        start(Errand::Repair, 0);
    } else if (!toClean.empty()) {
        const pid_t worker = toClean.front();
        toClean.pop_front();
        start(Errand::Clean, worker);
    } else if (killsWanted > 0) {
        killsWanted--;
        if (const pid_t victim = nextVictim()) start(Errand::Kill, victim);
    }
}

void wantRepair(const Watched &mutex, pid_t holder) {
    if (holder != 0)
        logLine("process %d died holding %s; having it repaired", holder, mutex.name);
    else
        logLine("%s stays locked with no holder on record; having it repaired", mutex.name);
    repairWanted = deathSeen = true;
    runErrands();
}

// ---- the watch ----

const char *stateText(char state) {
    switch (state) {
    case 'T':
        return "stopped";
    case 't':
        return "stopped by a tracer";
    case 'D':
        return "in the kernel";
    case 'R':
        return "running";
    default:
        return "asleep";
    }
}

void reportLiving(const Watched &mutex) {
    const bool ours = isWorker(mutex.owner);
    logLine("%s %d (%s) has kept %s for 2 s; everybody waits for it", ours ? "worker" : "process",
            mutex.owner, stateText(processState(mutex.owner)), mutex.name);
    if (!ours) {
        // Its number may have come round to somebody who has nothing to do with the arena. The
        // repairer can tell, and leaves alone what is alive.
        repairWanted = true;
        runErrands();
    } else if (service.stopStalled) {
        logLine("killing worker %d", mutex.owner);
        (void)kill(mutex.owner, SIGKILL);  // reaped only by this process: the number is its own
    }
}

void lookAt(Watched &mutex) {
    const MutexState now = stateOf(mutex.mutex());
    if (!now.locked || now.owner != mutex.owner) {
        if (mutex.reported && lives(mutex.owner))
            logLine("process %d has let go of %s", mutex.owner, mutex.name);
        mutex.looks = now.locked ? 1 : 0;
        mutex.owner = now.owner;
        mutex.reported = false;
        return;
    }
    mutex.looks++;
    if (mutex.reported || mutex.looks < kLooksToRepair) return;
    const bool alive = mutex.owner != 0 && lives(mutex.owner);
    if (alive && mutex.looks < kLooksToName) return;
    mutex.reported = true;
    if (alive)
        reportLiving(mutex);
    else
        wantRepair(mutex, mutex.owner);
}

void onLook(SchedTimer *timer) {
    bool held = false;
    for (Watched &mutex : watched) {
        lookAt(mutex);
        held = held || mutex.looks > 0;
    }
    timer->interval = held ? kCloseLookMs : kLookMs;
    startTimer(timer);
}

}  // namespace

void startCare() {
    lookTimer.func = onLook;
    lookTimer.interval = kLookMs;
    startTimer(&lookTimer);
}

void careForDead(pid_t worker) {
    // Reaped by this process, the number cannot be a living worker's before it is cleaned.
    toClean.push_back(worker);
    for (Watched &mutex : watched) {
        const MutexState now = stateOf(mutex.mutex());
        if (!now.locked || now.owner != worker) continue;
        mutex = {mutex.mutex, mutex.name, 1, worker, true};
        wantRepair(mutex, worker);
    }
    runErrands();
}

void killOneLater() {
    killsWanted++;
    runErrands();
}

bool careUnderWay() {
    return errandUnderWay() || (!tableIsLost() && (repairWanted || !toClean.empty()));
}

void wantCareToEnd() {
    ending = true;
    killsWanted = 0;
}

bool mutexIsStuck() {
    for (const Watched &mutex : watched)
        if (mutex.looks >= kLooksToRepair) return true;
    return false;
}
