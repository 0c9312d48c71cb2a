// The interface as a C program uses it: everything that can happen, through plain functions.
#include "iosched/procs.h"
#include "iosched/sched.h"

#include <signal.h>
#include <unistd.h>

static int happened;  // one bit for each kind of event

static void onInput(void *arg, int fd) {
    char byte;
    if (read(fd, &byte, 1) == 1) *(int *)arg |= 1;
}

static void onDelayedCall(DelayedCall *call) {
    (void)call;
    happened |= 2;
}

static void onSignal(int sig) {
    if (sig == SIGUSR1) happened |= 4;
}

static void onTimer(SchedTimer *timer) {
    *(int *)timer->arg |= 8;
}

static void onChildDone(void *arg, const ChildStatus *status) {
    if (status->exitCode == 7) *(int *)arg |= 16;
}

int runProgramFromC(void);

// Returns a bit for each kind of event that arrived, or a negative number where a call failed.
int runProgramFromC(void) {
    char msg[128];
    int ends[2];
    DelayedCall call = {0};
    SchedTimer timer = {0};
    pid_t pid;

    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, msg, sizeof msg) != 0) return -1;
    if (pipe(ends) != 0 || registerInput(ends[0], onInput, &happened) != 0) return -2;
    if (catchSignal(SIGUSR1, onSignal) == SIG_ERR) return -3;
    call.func = onDelayedCall;
    registerDelayedCall(&call);
    timer.func = onTimer;
    timer.arg = &happened;
    timer.interval = 5;
    startTimer(&timer);
    pid = ioFork();
    if (pid == 0) _exit(7);
    if (pid == -1 || registerChild(pid, onChildDone, &happened) != 0) return -4;
    if (write(ends[1], "x", 1) != 1 || kill(getpid(), SIGUSR1) != 0) return -5;
    while (happened != 31)
        (void)iosched(-1);
    return happened;
}
