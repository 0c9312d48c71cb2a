/* iosched/aio.h: reads and writes handed to the loop and completed by callbacks.
 *
 * A request waits until its descriptor is ready, makes one read() or write(), and reports it to the
 * completion function, which decides whether the request goes on. A short transfer is reported as it
 * is: a completion function that wants the rest moves buffer and length on and returns non-zero. What
 * holds for the whole header:
 *
 * - Needs InitSched(). Descriptors are normally non-blocking: the loop says that something can be
 *   written, not that all of it can, and a blocking write waits for the rest.
 * - An active read owns the descriptor's input callback (registerInput()), an active write its output
 *   callback: starting one replaces what was registered, and its end leaves the place empty. One
 *   read and one write may be active on one descriptor at the same time.
 * - End the requests of a descriptor before closing it.
 */
#ifndef IOSCHED_AIO_H
#define IOSCHED_AIO_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct AIORequest AIORequest;

/* The completion function. Called from the loop after each transfer, with transferred and error set,
 * but not for EAGAIN: the request goes on waiting then.
 * Non-zero keeps the request active, for another transfer at the next readiness with what buffer and
 * length are then; zero ends it.
 *
 * May call any library function. It may cancel its own request, then also free it or start another
 * on the same descriptor; the result no longer matters after that, but for a restart return zero.
 * What it starts on the same descriptor and in the same direction without cancelling first is lost
 * when it returns zero. */
typedef int (*AIODoneFunc)(AIORequest *request);

/* Caller-owned. While the request is active it must stay valid, and its first four fields as they
 * are; the completion function may change buffer and length. */
struct AIORequest {
    int32_t fd;           /* what to read from or write to */
    void *buffer;         /* room for the bytes read, or the bytes to write */
    size_t length;        /* bytes asked for in each transfer */
    AIODoneFunc callback; /* never NULL */
    void *userData;       /* the caller's own, never touched by the library */
    ssize_t
        transferred; /* set by the library: bytes transferred; 0 at end of file or on an error */
    int32_t error;   /* set by the library: 0, or the errno of the failed transfer, EINTR too */
};

/* Flags of AIOPipe(). */
#define AIO_PIPE_NONBLOCK_READ 1  /* the read end is non-blocking */
#define AIO_PIPE_NONBLOCK_WRITE 2 /* the write end is non-blocking */

/* Makes a pipe. The ends are not close-on-exec. Returns 0; -1 with pipe's errno and both descriptors
 * set to -1. */
int AIOPipe(int *readFd, int *writeFd, int flags);

/* Start a request. It is active as long as it has its descriptor's place; one that has lost it, to
 * registerInput() or another request, may be started again. Return 0 when it is active. -1 with nothing
 * changed and errno EALREADY when it is active in this direction already, EINVAL for a descriptor that
 * registerInput() would refuse, or ENOMEM. */
int AIORead(AIORequest *request);
int AIOWrite(AIORequest *request);

/* End an active request without calling its completion function. Do nothing when it is not active
 * in this direction: who has taken its place keeps it. */
void AIOCancelRead(AIORequest *request);
void AIOCancelWrite(AIORequest *request);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
