/* Copies standard input to standard output through the loop, one transfer at a time. */
#include <iosched/aio.h>
#include <iosched/sched.h>
#include <iosched/util.h>
#include <signal.h>
#include <stdio.h>

static char bytes[65536];
static AIORequest reading, writing;
static int finished;

static void onPipe(int sig) {
    (void)sig;
}

static int onWritten(AIORequest *request) {
    if (request->error != 0) return finished = 1, 0;
    request->buffer = (char *)request->buffer + request->transferred;
    request->length -= (size_t)request->transferred;
    if (request->length > 0) return 1; /* a short write: the rest at the next readiness */
    finished = AIORead(&reading) != 0;
    return 0;
}

static int onRead(AIORequest *request) {
    if (request->transferred <= 0) return finished = 1, 0; /* the end, or an error */
    writing.buffer = request->buffer;
    writing.length = (size_t)request->transferred;
    finished = AIOWrite(&writing) != 0;
    return 0; /* reads again when all of it is written */
}

int main(void) {
    int ends[2];
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, NULL, 0) != 0) return 1;
    catchSignal(SIGPIPE, onPipe);
    SetBlockingMode(0, 0);
    SetBlockingMode(1, 0);
    reading = (AIORequest){.fd = 0, .buffer = bytes, .length = sizeof bytes, .callback = onRead};
    writing = (AIORequest){.fd = 1, .callback = onWritten};
    if (AIORead(&reading) != 0) return perror("aio_echo"), 1;
    while (!finished)
        iosched(-1);

    /* What has not been completed can be taken back; its callback is not called. */
    if (AIOPipe(&ends[0], &ends[1], AIO_PIPE_NONBLOCK_READ | AIO_PIPE_NONBLOCK_WRITE) != 0)
        return 1;
    reading.fd = ends[0];
    writing = (AIORequest){.fd = ends[1], .buffer = bytes, .length = 1, .callback = onWritten};
    AIORead(&reading);
    AIOWrite(&writing);
    AIOCancelRead(&reading);
    AIOCancelWrite(&writing);
    SetBlockingMode(0, 1);
    SetBlockingMode(1, 1);
    return ExitSched();
}
