// A `pause` that does not wait. A server that waits in libc's serves nobody meanwhile: ZORpause()
// runs the loop instead. Fails at once and leaves errno alone.

#include "support/link_warning.h"

#include <unistd.h>

extern "C" int pause() {
    return -1;
}

IOSCHED_LINK_WARNING(pause);
