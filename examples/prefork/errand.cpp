#include "errand.h"
#include "service.h"
#include "share.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iosched/procs.h>
#include <iosched/sched.h>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int64_t kDeadlineMs = 500;  // operations on the table take microseconds
constexpr int64_t kRepairDeadlineMs = 20'000;
constexpr int kRefusedStatus = 2;   // of arenactl
constexpr int kPostponements = 20;  // for a child that is inside a mutex when its time is over

struct {
    pid_t child;  // 0 = none under way
    Errand what;
    pid_t worker;
    ErrandDone done;
    bool stuck;
    int postponed;
    SchedTimer deadline;
} errand;

int repairTool = -1;  // O_PATH: found and opened once, whoever this process becomes later

// A process cannot die inside a mutex that its killer holds. Both mutexes are kept until the worker
// is gone: a signal takes a moment to reach a process that is running on another processor.
bool killOutsideMutexes(int pidFd) {
    if (AquireSharedMutex(arenaMutex()) != 0 || AquireSharedMutex(tableMutex()) != 0) return false;
    const bool sent = syscall(SYS_pidfd_send_signal, pidFd, SIGKILL, nullptr, 0) == 0;
    pollfd ended{pidFd, POLLIN, 0};
    while (sent && poll(&ended, 1, -1) < 0 && errno == EINTR) {
    }
    (void)ReleaseSharedMutex(tableMutex());
    (void)ReleaseSharedMutex(arenaMutex());
    return sent;
}

// The arena's mutex is none of a cleaner's business, but whoever cannot get it should hear of it.
bool clean(pid_t worker) {
    return AquireSharedMutex(arenaMutex()) == 0 && ReleaseSharedMutex(arenaMutex()) == 0 &&
           CleanSharedFileLockTable(share.table, worker) == 0;
}

pid_t forkErrand(Errand what, pid_t worker) {
    // Taken by number while it is our unreaped child, the descriptor can never mean another
    // process.
    int pidFd = -1;
    if (what == Errand::Kill) {
        pidFd = static_cast<int>(syscall(SYS_pidfd_open, worker, 0));
        if (pidFd < 0) return -1;
    }
    const pid_t child = ioFork();
    // Never through the loop, and without the master's exit handlers.
    if (child == 0)
        _exit((what == Errand::Kill ? killOutsideMutexes(pidFd) : clean(worker)) ? 0 : 1);
    const int saved = errno;
    if (pidFd >= 0) (void)close(pidFd);
    errno = saved;
    return child;
}

// What it says goes to the log.
pid_t spawnRepair() {
    char program[32], name[] = "arenactl", command[] = "repair";
    (void)snprintf(program, sizeof program, "/proc/self/fd/%d", repairTool);
    char *const argv[] = {name, command, const_cast<char *>(service.arenaPath), nullptr};
    SpawnOptions options{};
    options.flags = SPAWN_STDOUT | SPAWN_ARGV;
    options.stdoutFd = STDERR_FILENO;
    options.argv = argv;
    return spawnProcess(&options, program);
}

// Killed inside a mutex the child would leave it as it is meant to find it, so that is put off.
void onDeadline(SchedTimer *timer) {
    const bool holds =
        stateOf(tableMutex()).owner == errand.child || stateOf(arenaMutex()).owner == errand.child;
    if (holds && ++errand.postponed < kPostponements) return startTimer(timer);
    errand.stuck = true;
    (void)kill(errand.child, SIGKILL);  // ours and not reaped yet, so the number is still its own
}

void onEnd(void *, const ChildStatus *status) {
    if (status->stopped) {  // somebody's SIGSTOP: the report has used up the registration
        (void)registerChild(errand.child, onEnd, nullptr);
        return;
    }
    (void)stopTimer(&errand.deadline);
    errand.child = 0;
    ErrandEnd end = ErrandEnd::Failed;
    if (errand.stuck)
        end = ErrandEnd::Stuck;
    else if (status->termSignal == 0 && status->exitCode == 0)
        end = ErrandEnd::Done;
    else if (errand.what == Errand::Repair && status->exitCode == kRefusedStatus)
        end = ErrandEnd::Refused;
    errand.done(errand.what, errand.worker, end);
}

}  // namespace

bool errandUnderWay() {
    return errand.child != 0;
}

const char *errandName(Errand what) {
    constexpr const char *kNames[] = {"cleaning", "killing", "repairing"};
    return kNames[static_cast<int>(what)];
}

bool startErrand(Errand what, pid_t worker, ErrandDone done) {
    const pid_t child = what == Errand::Repair ? spawnRepair() : forkErrand(what, worker);
    if (child < 0) return false;
    errand = {child, what, worker, done, false, 0, {}};
    errand.deadline.func = onDeadline;
    errand.deadline.interval = what == Errand::Repair ? kRepairDeadlineMs : kDeadlineMs;
    startTimer(&errand.deadline);
    (void)registerChild(child, onEnd, nullptr);
    return true;
}

void findRepairTool() {
    const std::string name = service.repairTool;
    const char *path = getenv("PATH");
    std::istringstream places(name.find('/') == std::string::npos && path ? path : "");
    for (std::string place; repairTool < 0 && std::getline(places, place, ':');)
        repairTool = open(place.append(1, '/').append(name).c_str(), O_PATH | O_CLOEXEC);
    if (repairTool < 0) repairTool = open(name.c_str(), O_PATH | O_CLOEXEC);
    if (repairTool < 0)
        logLine("no %s: a worker that dies inside a mutex will end the service", name.c_str());
}
