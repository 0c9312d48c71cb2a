// The worker ends from inside a callback, with exit(): its loop may be nested in any number of
// waits at that moment, and their frames have nothing left to do.

#include "life.h"
#include "background.h"
#include "service.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iosched/procs.h>
#include <iosched/sched.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace worker {
BoardSlot *counters;
bool leaving;
}  // namespace worker

void worker::end() {
    service.end();
    leaveShare();
    exit(0);
}

namespace {

SchedTimer drainLimit;

void onTerminate(int) {
    worker::end();
}

void onLeave(int) {
    if (worker::leaving) return;
    worker::leaving = true;
    drainLimit.func = [](SchedTimer *) { worker::end(); };
    drainLimit.interval = service.drainMs;
    startTimer(&drainLimit);
    service.leave();
}

// Signals that are the master's business or mean nothing. A callback is better than SIG_IGN here:
// programs that a worker starts would inherit SIG_IGN, while a caught signal is the default for
// them.
void ignore(int) {}

void setSignals() {
    for (const int sig : {SIGINT, SIGHUP, SIGPIPE, SIGUSR2})
        (void)catchSignal(sig, ignore);
    (void)catchSignal(SIGTERM, onTerminate);
    (void)catchSignal(SIGUSR1, onLeave);
    // Without its master a worker would go on for ever, and nobody would clean up after it.
    (void)prctl(PR_SET_PDEATHSIG, SIGTERM);
    // Where only a parent may trace, the program that repairs may not: the master starts it, and so
    // it may if the master may.
    (void)prctl(PR_SET_PTRACER, getppid());
}

}  // namespace

void liveAsWorker(pid_t master, BoardSlot *slot) {
    stopAllTimers();  // the master's, inherited
    forgetLauncher();
    setSignals();
    if (getppid() != master) _exit(1);  // it ended before prctl() could take effect
    worker::counters = slot;
    slot->pid = getpid();  // the master writes the same, perhaps after we have served somebody
    if (!adoptShare()) {
        logLine("cannot adopt the arena: %s", strerror(errno));
        exit(1);
    }
    service.begin();
    slot->accepting = 1;
    (void)kill(master, SIGUSR1);  // it waits for the first set of workers
    for (;;)
        (void)iosched(-1);
}
