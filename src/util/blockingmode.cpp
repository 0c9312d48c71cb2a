// Switching a descriptor between blocking and non-blocking.

#include "iosched/util.h"

#include <fcntl.h>

int SetBlockingMode(int fd, int blocking) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags == -1) return -1;
    return ::fcntl(fd, F_SETFL, blocking != 0 ? flags & ~O_NONBLOCK : flags | O_NONBLOCK);
}
