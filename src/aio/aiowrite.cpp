// Asynchronous writes: one write per readiness of the descriptor.

#include "aio/aio_internal.h"

#include "sched/sched_internal.h"

#include <unistd.h>

namespace {

constinit HashTable<AIOData> writeRecords;

ssize_t writeOnce(const AIORequest *request) {
    return ::write(request->fd, request->buffer, request->length);
}

void localWriteCallback(void *arg, int fd) {
    runRequest(kAIOWrite, static_cast<AIOData *>(arg), fd);
}

}  // namespace

constinit const AIODirection iosched_lib::kAIOWrite{&AIOData::writeRequest, &writeRecords,
                                                    registerOutput,         hasOutput,
                                                    localWriteCallback,     writeOnce};

int AIOWrite(AIORequest *request) {
    return startRequest(kAIOWrite, request);
}

void AIOCancelWrite(AIORequest *request) {
    cancelRequest(kAIOWrite, request);
}
