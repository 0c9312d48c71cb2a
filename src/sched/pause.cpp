// Waiting for a signal while the loop goes on.

#include "sched/sched_internal.h"

int ZORpause(void) {
    while (iosched(-1) != -1) {
    }
    return -1;
}
