// The master: starts the workers, hears of their ends, has their records removed, replaces them.
//
// What the lock table needs then is care.cpp's. The master never serves a client and never asks for
// a shared mutex once a worker runs (errand.h tells why).
//
// A server's listening socket stays open here throughout, so that connections wait in its queue
// whatever becomes of the workers, and nobody is refused.
//
// Workers are forked between passes of the loop, not in a callback: the child runs a loop of its
// own for ever, and that should not be nested in whatever the master was doing.

#include "master.h"
#include "background.h"
#include "care.h"
#include "life.h"
#include "manager.h"
#include "service.h"
#include "share.h"

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
constexpr int64_t kStopGraceMs = 3000;  // from SIGTERM to SIGKILL

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

std::vector<Seat> seats;  // never resized after the start: timers are linked by address
std::vector<Worker> workers;
std::deque<pid_t> toReplace;  // the rest of a rolling restart, one at a time
size_t nextToKill;
bool stopping;
bool tableLost;
bool serving;  // the first set of workers has begun to accept
bool startFailed;
bool pidWritten;  // the file is ours to remove, not a server's that runs already
SchedTimer stopGrace;

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
    wantCareToEnd();
    toReplace.clear();
    for (Seat &seat : seats)
        (void)stopTimer(&seat.delay);
    signalAll(SIGTERM);
    // A worker that waits for a mutex that nobody will release hears no SIGTERM.
    stopGrace.func = [](SchedTimer *) { signalAll(SIGKILL); };
    stopGrace.interval = kStopGraceMs;
    startTimer(&stopGrace);
}

void failStart(const std::string &reason) {
    startFailed = true;
    logLine("cannot start: %s", reason.c_str());
    stopService();
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
    slot.accepting = slot.leaving = 0;
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
    careForDead(worker.pid);
    if (stopping) return;
    if (!serving) {
        failStart("a worker has ended before the server ever served");
    } else if (worker.leaving) {
        replaceNext();
    } else {
        vacate(seats[worker.seat], getAbsMonoTime() - worker.startedAt);
    }
}

void startWorker(size_t seat) {
    BoardSlot *slot = takeSlot();
    if (!slot) return;
    const pid_t master = getpid();
    const pid_t pid = ioFork();
    if (pid == 0) liveAsWorker(master, slot);
    seats[seat].vacant = false;
    if (pid < 0) {
        const std::string reason = strerror(errno);
        if (!serving) return failStart(reason);
        logLine("cannot start a worker: %s", reason.c_str());
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

void startWorkers() {
    if (stopping || careUnderWay()) return;
    for (size_t seat = 0; seat < seats.size(); seat++)
        if (seats[seat].vacant && seats[seat].delay.expires <= getAbsMonoTime()) startWorker(seat);
}

// ---- signals ----

void onHangup(int) {
    if (stopping) return;
    reopenLog();
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
    if (!stopping) killOneLater();
}

void onStop(int sig) {
    logLine("stopping on signal %d", sig);
    tellManager("STOPPING=1");
    stopService();
}

bool writePidFile() {
    if (!service.pidFile) return true;
    const std::string temporary = std::string(service.pidFile) + ".new";
    FILE *file = fopen(temporary.c_str(), "we");
    if (!file) return false;
    (void)fprintf(file, "%d %d\n", getpid(), service.port);
    pidWritten = fclose(file) == 0 && rename(temporary.c_str(), service.pidFile) == 0;
    return pidWritten;
}

// A worker has begun to accept. When all of the first set do, the server serves, and says so.
void onWorkerReady(int) {
    if (serving || stopping) return;
    for (const Worker &worker : workers)
        if (!worker.slot->accepting) return;
    if (workers.size() < seats.size()) return;
    serving = writePidFile();
    if (serving) {
        tellManager("READY=1");
        return nowServing();
    }
    failStart(std::string(service.pidFile) + ": " + strerror(errno));
}

}  // namespace

bool isWorker(pid_t pid) {
    return findWorker(pid) != nullptr;
}

pid_t nextVictim() {
    if (workers.empty()) return 0;
    const pid_t victim = workers[nextToKill++ % workers.size()].pid;
    logLine("killing worker %d, as asked", victim);
    return victim;
}

bool tableIsLost() {
    return tableLost;
}

void loseTable(const std::string &reason) {
    if (tableLost) return;
    tableLost = true;
    logLine("%s; nothing can use the lock table any more, stopping the service", reason.c_str());
    stopService();
}

int runMaster() {
    if (!openShare()) return 1;
    (void)catchSignal(SIGTERM, onStop);
    (void)catchSignal(SIGINT, onStop);
    (void)catchSignal(SIGHUP, onHangup);
    (void)catchSignal(SIGUSR1, onWorkerReady);
    (void)catchSignal(SIGUSR2, onKillWanted);
    seats = std::vector<Seat>(static_cast<size_t>(service.workers));
    startWorkers();
    startCare();
    while (!stopping || !workers.empty() || careUnderWay()) {
        (void)iosched(-1);
        startWorkers();
    }
    const uint64_t requests = share.board->requests, killed = share.board->killed;
    closeShare(!tableLost && !mutexIsStuck());
    if (pidWritten) (void)unlink(service.pidFile);
    logLine("ended: %llu requests served, %llu workers killed",
            static_cast<unsigned long long>(requests), static_cast<unsigned long long>(killed));
    if (tableLost) return 3;
    return startFailed ? 1 : 0;
}
