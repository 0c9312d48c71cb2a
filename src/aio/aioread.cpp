// Asynchronous reads: one read per readiness of the descriptor.

#include "aio/aio_internal.h"

#include "sched/sched_internal.h"

#include <unistd.h>

namespace {

constinit HashTable<AIOData> readRecords;

ssize_t readOnce(const AIORequest *request) {
    return ::read(request->fd, request->buffer, request->length);
}

void localReadCallback(void *arg, int fd) {
    runRequest(kAIORead, static_cast<AIOData *>(arg), fd);
}

}  // namespace

constinit const AIODirection iosched_lib::kAIORead{
    &AIOData::readRequest, &readRecords, registerInput, hasInput, localReadCallback, readOnce};

int AIORead(AIORequest *request) {
    return startRequest(kAIORead, request);
}

void AIOCancelRead(AIORequest *request) {
    cancelRequest(kAIORead, request);
}
