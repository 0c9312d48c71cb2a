// Waiting some microseconds while the loop goes on, to the millisecond.

#include "sched/sched_internal.h"

int ZORusleep(unsigned int usec) {
    constexpr unsigned int kUsPerMs = 1000;
    return msleep(usec >= kUsPerMs ? usec / kUsPerMs : 1);
}
