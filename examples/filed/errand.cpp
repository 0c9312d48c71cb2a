#include "errand.h"
#include "share.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <iosched/procs.h>
#include <iosched/sched.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int64_t kDeadlineMs = 5000;  // operations on the table take microseconds

struct {
    pid_t child;  // 0 = none under way
    Errand what;
    pid_t worker;
    ErrandDone done;
    bool stuck;
    SchedTimer deadline;
} errand;

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

[[noreturn]] void inChild(Errand what, pid_t worker, int pidFd) {
    const bool good = what == Errand::Kill ? killOutsideMutexes(pidFd)
                                           : CleanSharedFileLockTable(share.table, worker) == 0;
    _exit(good ? 0 : 1);  // never through the loop, and without the master's exit handlers
}

void onDeadline(SchedTimer *) {
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
    errand.done(errand.what, errand.worker, end);
}

}  // namespace

bool errandUnderWay() {
    return errand.child != 0;
}

bool startErrand(Errand what, pid_t worker, ErrandDone done) {
    // Taken by number while it is our unreaped child, the descriptor can never mean another process.
    int pidFd = -1;
    if (what == Errand::Kill) {
        pidFd = static_cast<int>(syscall(SYS_pidfd_open, worker, 0));
        if (pidFd < 0) return false;
    }
    const pid_t child = ioFork();
    if (child == 0) inChild(what, worker, pidFd);
    const int saved = errno;
    if (pidFd >= 0) (void)close(pidFd);
    errno = saved;
    if (child < 0) return false;
    errand = {child, what, worker, done, false, {}};
    errand.deadline.func = onDeadline;
    errand.deadline.interval = kDeadlineMs;
    startTimer(&errand.deadline);
    (void)registerChild(child, onEnd, nullptr);
    return true;
}
