// Giving up the processor to other processes.

#include "iosched/sched.h"

#include <sched.h>

int ioYield(void) {
    return ::sched_yield();
}
