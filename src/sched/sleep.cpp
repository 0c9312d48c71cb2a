// Waiting some seconds while the loop goes on.

#include "sched/sched_internal.h"

unsigned int ZORsleep(unsigned int seconds) {
    // In 64 bits: a request of 50 days must not become one of seven hours.
    sleepInLoop(static_cast<int64_t>(seconds) * 1000);
    return 0;
}
