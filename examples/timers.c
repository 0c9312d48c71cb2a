/* Signals, timers and waiting: everything goes on while a callback waits. */
#include <iosched/sched.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

static SchedTimer beat, idle;

static void onBeat(SchedTimer *timer) {
    int *beats = timer->arg;
    if (++*beats < 5) restartTimer(timer); /* one-shot: a repeating timer starts itself again */
}

static void onIdle(SchedTimer *timer) {
    (void)timer;
    puts("idle for 200 ms");
}

static void onSignal(int sig) {
    if (restartTimer(&idle)) printf("signal %d: the idle timer starts anew\n", sig);
    msleep(20); /* runs passes: the beats go on meanwhile */
}

int main(void) {
    int beats = 0;
    int64_t began = getAbsMonoTime();
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, NULL, 0) != 0) return 1;
    SchedSignalFunc before = catchSignal(SIGUSR1, onSignal);
    beat = (SchedTimer){.func = onBeat, .arg = &beats, .interval = 10};
    idle = (SchedTimer){.func = onIdle, .interval = 200};
    startTimer(&beat);
    startTimer(&idle);
    kill(getpid(), SIGUSR1); /* blocked outside the loop; its callback runs in a pass */
    ZORpause();              /* ends when the signal or a timer has come */
    ZORusleep(100000);
    printf("%d beats in at least 100 ms: %s\n", beats,
           getAbsMonoTime() - began >= 100 ? "yes" : "no");
    ZORsleep(1);
    printf("stopping what is not running any more: %d\n", stopTimer(&beat));
    startTimer(&beat);
    stopAllTimers();
    catchSignal(SIGUSR1, before); /* as signal() would: what was there comes back */
    enableSignals();              /* everything comes in at once, inside the handler, ... */
    disableSignals();             /* ... until here, or the next pass */
    return ExitSched();
}
