// Waiting some milliseconds while the loop goes on: what all sleeping functions are made of.

#include "sched/sched_internal.h"

namespace {

void sleepdone(SchedTimer *t) {
    *static_cast<int *>(t->arg) = 1;
}

}  // namespace

void iosched_lib::sleepInLoop(int64_t ms) {
    if (ms == 0) {
        (void)iosched(0);
        return;
    }
    int done = 0;
    SchedTimer timer{sleepdone, &done, ms, nullptr, 0};
    startTimer(&timer);
    for (;;) {
        // A callback may have let signals in. SIGALRM arriving between the look at the flag and the
        // wait would then fire the timer here, and leave nothing to end the wait.
        (void)disableSignals();
        if (done != 0) return;
        (void)iosched(-1);  // -1 only says that a signal came, most likely this timer's
    }
}

int msleep(unsigned int ms) {
    sleepInLoop(ms);
    return 0;
}
