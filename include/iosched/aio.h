/* iosched/aio.h: reads and writes handed to the loop and completed by callbacks. */
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
typedef int (*AIODoneFunc)(AIORequest *request);

struct AIORequest {
    int32_t fd;
    void *buffer;
    size_t length;
    AIODoneFunc callback;
    void *userData;
    ssize_t transferred;
    int32_t error;
};

#define AIO_PIPE_NONBLOCK_READ 1
#define AIO_PIPE_NONBLOCK_WRITE 2

int AIOPipe(int *readFd, int *writeFd, int flags);
int AIORead(AIORequest *request);
int AIOWrite(AIORequest *request);
void AIOCancelRead(AIORequest *request);
void AIOCancelWrite(AIORequest *request);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
