// A `usleep` that does not sleep. A server that sleeps in libc's serves nobody meanwhile:
// ZORusleep() runs the loop instead. Returns success at once.

#include "support/link_warning.h"

#include <unistd.h>

extern "C" int usleep(useconds_t) {
    return 0;
}

IOSCHED_LINK_WARNING(usleep);
