// Pipes for asynchronous requests.

#include "iosched/aio.h"
#include "iosched/util.h"

#include <unistd.h>

int AIOPipe(int *readFd, int *writeFd, int flags) {
    int ends[2] = {-1, -1};
    const int result = ::pipe(ends);
    if (result == 0) {
        // Cannot fail on the ends of a new pipe.
        if ((flags & AIO_PIPE_NONBLOCK_READ) != 0) (void)SetBlockingMode(ends[0], 0);
        if ((flags & AIO_PIPE_NONBLOCK_WRITE) != 0) (void)SetBlockingMode(ends[1], 0);
    }
    *readFd = ends[0];
    *writeFd = ends[1];
    return result;
}
