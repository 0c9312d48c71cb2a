// The master: starts the workers, hears of their ends, has their records removed, replaces them.
//
// It never serves a client and never asks for a shared mutex once a worker runs (errand.h tells why).
// It keeps the listening socket open throughout, so that connections wait in its queue whatever
// becomes of the workers, and nobody is refused.
//
// Workers are forked between passes of the loop, not in a callback: the child runs a loop of its own
// for ever, and that should not be nested in whatever the master was doing.

#include "master.h"
#include "errand.h"
#include "filed.h"
#include "share.h"
#include "worker.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <iosched/procs.h>
#include <iosched/sched.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr int64_t kShortLifeMs = 1000;  // a worker that ends sooner makes its seat wait
constexpr int64_t kFirstDelayMs = 100;  // doubled with each short life
constexpr int64_t kLongestDelayMs = 10'000;
constexpr int64_t kErrandRetryMs = 500;  // when no child could be made for it
constexpr int64_t kStopGraceMs = 3000;   // from SIGTERM to SIGKILL

struct Worker {
    pid_t pid;
    size_t seat;
    BoardSlot *slot;
    bool leaving;  // told to drain; its successor has the seat
    int64_t startedAt;
};

// A place for one accepting worker.
struct Seat {
    bool vacant = true;  // to be filled as soon as the delay is over
    int shortLives = 0;  // in a row
    SchedTimer delay{};  // runs while the seat waits
};

int listenSocket;
int rootDirectory;
std::vector<Seat> seats;  // never resized after the start: timers are linked by address
std::vector<Worker> workers;
std::deque<pid_t> toClean;    // reaped workers whose records are still in the table
std::deque<pid_t> toReplace;  // the rest of a rolling restart, one at a time
int killsWanted;
size_t nextToKill;
bool stopping;
bool tableLost;
bool serving;     // the first set of workers is complete
bool pidWritten;  // the file is ours to remove, not a server's that runs already
SchedTimer stopGrace;
SchedTimer errandRetry;

void runErrands();

Worker *findWorker(pid_t pid) {
    const auto found = std::find_if(workers.begin(), workers.end(),
                                    [pid](const Worker &worker) { return worker.pid == pid; });
    return found == workers.end() ? nullptr : &*found;
}

// ---- the end of the service ----

void signalAll(int sig) {
    for (const Worker &worker : workers)
        (void)kill(worker.pid, sig);
}

void stopService() {
    if (stopping) return;
    stopping = true;
    killsWanted = 0;
    toReplace.clear();
    for (Seat &seat : seats)
        (void)stopTimer(&seat.delay);
    signalAll(SIGTERM);
    // A worker that waits for a mutex that nobody will release hears no SIGTERM.
    stopGrace.func = [](SchedTimer *) { signalAll(SIGKILL); };
    stopGrace.interval = kStopGraceMs;
    startTimer(&stopGrace);
}

// A mutex has died with its holder. Nothing repairs the table behind it, and every worker that asks
// for it waits for ever, so the honest thing is to say so and end.
void loseTable(const std::string &reason) {
    if (tableLost) return;
    tableLost = true;
    logLine("%s; nothing can use the lock table any more, stopping the service", reason.c_str());
    stopService();
}

const char *mutexHeldBy(pid_t pid) {
    const auto holder = static_cast<uint32_t>(pid);
    if (__atomic_load_n(&tableMutex()->holder, __ATOMIC_RELAXED) == holder) return "lock table";
    if (__atomic_load_n(&arenaMutex()->holder, __ATOMIC_RELAXED) == holder) return "arena";
    return nullptr;
}

// The holder writes its name a few instructions after it has the mutex, and wipes it out a few
// before it lets go. A death in between leaves no name; then only the errand's deadline tells.
void explainStuckErrand() {
    const uint32_t table = tableMutex()->holder, arena = arenaMutex()->holder;
    if (table == 0 && arena == 0)
        loseTable("a mutex stays locked with no holder on record: a worker died just as it took it "
                  "or let it go");
    else
        loseTable("process " + std::to_string(table ? table : arena) + " keeps the " +
                  (table ? "lock table's" : "arena's") + " mutex locked");
}

// ---- cleaning and killing, one errand at a time ----

void cleanLater(pid_t pid) {
    if (stopping) {
        logLine("the records of worker %d stay in the lock table", pid);
        return;
    }
    toClean.push_back(pid);
    errandRetry.func = [](SchedTimer *) { runErrands(); };
    errandRetry.interval = kErrandRetryMs;
    (void)restartTimer(&errandRetry);
}

void onErrandDone(Errand what, pid_t pid, ErrandEnd end) {
    if (end == ErrandEnd::Stuck) return explainStuckErrand();
    if (end == ErrandEnd::Failed) {
        if (what == Errand::Clean) {
            logLine("could not remove the records of worker %d", pid);
            return cleanLater(pid);
        }
        logLine("worker %d was not killed: it has ended meanwhile", pid);
    } else if (what == Errand::Clean) {
        share.board->cleanings++;
    }
    runErrands();
}

void startKill() {
    const Worker &victim = workers[nextToKill++ % workers.size()];
    logLine("killing worker %d, as asked", victim.pid);
    killsWanted--;
    if (!startErrand(Errand::Kill, victim.pid, onErrandDone))
        logLine("cannot kill worker %d: %s", victim.pid, strerror(errno));
}

void runErrands() {
    if (errandUnderWay() || tableLost) return;
    if (!toClean.empty()) {
        const pid_t pid = toClean.front();
        toClean.pop_front();
        if (startErrand(Errand::Clean, pid, onErrandDone)) return;
        logLine("cannot remove the records of worker %d yet: %s", pid, strerror(errno));
        cleanLater(pid);
    } else if (killsWanted > 0 && !workers.empty()) {
        startKill();
    }
}

// ---- workers come and go ----

BoardSlot *takeSlot() {
    for (BoardSlot &slot : share.board->slots)
        if (slot.pid == 0) return &slot;
    return nullptr;
}

void retireSlot(BoardSlot &slot) {
    Board &board = *share.board;
    board.accepted += slot.accepted;
    board.requests += slot.requests;
    board.refusals += slot.refusals;
    slot.accepted = slot.requests = slot.refusals = slot.connections = 0;
    slot.leaving = 0;
    slot.pid = 0;
}

// The first short life costs nothing; each further one in a row doubles the wait. The timer runs in
// any case: it ends the pass after which the main loop fills the seat.
void vacate(Seat &seat, int64_t lifeMs) {
    seat.shortLives = lifeMs < kShortLifeMs ? seat.shortLives + 1 : 0;
    seat.vacant = true;
    seat.delay.interval = 0;
    if (seat.shortLives > 1) {
        const int doublings = std::min(seat.shortLives - 2, 10);
        seat.delay.interval = std::min(kFirstDelayMs << doublings, kLongestDelayMs);
        logLine("%d short lives in a row, the next start waits %lld ms", seat.shortLives,
                static_cast<long long>(seat.delay.interval));
    }
    (void)restartTimer(&seat.delay);
}

// Goes on with a rolling restart: the seat is vacated, the main loop starts the successor, and that
// sends the old worker its notice.
void replaceNext() {
    while (!toReplace.empty() && !stopping) {
        Worker *worker = findWorker(toReplace.front());
        toReplace.pop_front();
        if (!worker || worker->leaving) continue;  // has ended meanwhile
        worker->leaving = true;
        worker->slot->leaving = 1;
        seats[worker->seat].vacant = true;
        return;
    }
}

void logEnd(const Worker &worker, const ChildStatus *status) {
    if (status->termSignal != 0) {
        logLine("worker %d was killed by signal %d (%s)", worker.pid, status->termSignal,
                strsignal(status->termSignal));
        share.board->killed++;
    } else if (status->exitCode != 0 || !(stopping || worker.leaving)) {
        logLine("worker %d ended with status %d", worker.pid, status->exitCode);
    }
}

void onWorkerEnd(void *, const ChildStatus *status) {
    if (status->stopped) {  // a stop ends the registration; the worker may go on
        (void)registerChild(status->pid, onWorkerEnd, nullptr);
        return;
    }
    const Worker worker = *findWorker(status->pid);
    workers.erase(workers.begin() + (findWorker(worker.pid) - workers.data()));
    logEnd(worker, status);
    retireSlot(*worker.slot);
    if (const char *mutex = mutexHeldBy(worker.pid))
        loseTable("worker " + std::to_string(worker.pid) + " died holding the " + mutex +
                  "'s mutex");
    // Only now, and only here: reaped by this process, the number cannot be a living worker's.
    toClean.push_back(worker.pid);
    runErrands();
    if (stopping) return;
    if (worker.leaving)
        replaceNext();
    else
        vacate(seats[worker.seat], getAbsMonoTime() - worker.startedAt);
}

void startWorker(size_t seat) {
    BoardSlot *slot = takeSlot();
    if (!slot) return;
    const pid_t master = getpid();
    const pid_t pid = ioFork();
    if (pid == 0) runWorker(master, listenSocket, rootDirectory, slot);
    seats[seat].vacant = false;
    if (pid < 0) {
        logLine("cannot start a worker: %s", strerror(errno));
        vacate(seats[seat], 0);
        return;
    }
    slot->pid = pid;
    (void)registerChild(pid, onWorkerEnd, nullptr);
    workers.push_back({pid, seat, slot, false, getAbsMonoTime()});
    logLine("worker %d started", pid);
    if (serving) share.board->replaced++;
    for (const Worker &old : workers)
        if (old.seat == seat && old.leaving) (void)kill(old.pid, SIGUSR1);
}

// While a dead worker's records wait to be removed nobody is started: a new worker that got the dead
// one's number would lose its own records with them.
void startWorkers() {
    if (stopping || !toClean.empty() || errandUnderWay()) return;
    for (size_t seat = 0; seat < seats.size(); seat++)
        if (seats[seat].vacant && seats[seat].delay.expires <= getAbsMonoTime()) startWorker(seat);
}

// ---- signals ----

void onHangup(int) {
    if (stopping) return;
    logLine("replacing %zu workers, one at a time", seats.size());
    bool underWay = false;
    toReplace.clear();
    for (const Worker &worker : workers) {
        if (worker.leaving)
            underWay = true;
        else
            toReplace.push_back(worker.pid);
    }
    if (!underWay) replaceNext();
}

void onKillWanted(int) {
    if (stopping) return;
    killsWanted++;
    runErrands();
}

void onStop(int sig) {
    logLine("stopping on signal %d", sig);
    stopService();
}

bool writePidFile() {
    if (!settings.pidFile) return true;
    const std::string temporary = std::string(settings.pidFile) + ".new";
    FILE *file = fopen(temporary.c_str(), "we");
    if (!file) return false;
    (void)fprintf(file, "%d %d\n", getpid(), settings.port);
    pidWritten = fclose(file) == 0 && rename(temporary.c_str(), settings.pidFile) == 0;
    return pidWritten;
}

bool start() {
    if (!openShare()) return false;
    (void)catchSignal(SIGTERM, onStop);
    (void)catchSignal(SIGINT, onStop);
    (void)catchSignal(SIGHUP, onHangup);
    (void)catchSignal(SIGUSR2, onKillWanted);
    seats = std::vector<Seat>(static_cast<size_t>(settings.workers));
    startWorkers();
    serving = workers.size() == seats.size();
    if (serving && writePidFile()) return true;
    logLine("cannot start: %s", strerror(errno));
    return false;
}

}  // namespace

int runMaster(int listenFd, int rootFd) {
    listenSocket = listenFd;
    rootDirectory = rootFd;
    const bool started = start();
    if (!started) {
        if (!share.board) return 1;
        stopService();
    }
    while (!stopping || !workers.empty() || errandUnderWay() || (!toClean.empty() && !tableLost)) {
        (void)iosched(-1);
        startWorkers();
    }
    const uint64_t requests = share.board->requests, killed = share.board->killed;
    closeShare(!tableLost);
    if (pidWritten) (void)unlink(settings.pidFile);
    logLine("ended: %llu requests served, %llu workers killed",
            static_cast<unsigned long long>(requests), static_cast<unsigned long long>(killed));
    if (!started) return 1;
    return tableLost ? 3 : 0;
}
