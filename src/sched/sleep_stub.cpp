// A `sleep` that does not sleep. A server that sleeps in libc's serves nobody meanwhile: ZORsleep()
// runs the loop instead. Returns at once, nothing left to sleep.

#include "support/link_warning.h"

#include <unistd.h>

extern "C" unsigned int sleep(unsigned int) {
    return 0;
}

IOSCHED_LINK_WARNING(sleep);
