// Asynchronous reads: one read per readiness of the descriptor.

#include "aio/aio_internal.h"

#include "iosched/sched.h"
#include "support/guards.h"

#include <cerrno>
#include <unistd.h>

void localReadCallback(void *arg, int fd) {
    auto *record = static_cast<AIOData *>(arg);
    AIORequest *request = record->readRequest;
    const ssize_t count = ::read(request->fd, request->buffer, request->length);
    if (!finishedByTransfer(record, request, count)) return;
    freeAIOData(record);
    (void)registerInput(fd, nullptr, nullptr);  // in range: the loop has just called for it
}

int AIORead(AIORequest *request) {
    if (findAIODataForRead(request) != nullptr) {
        errno = EALREADY;
        return -1;
    }
    AIOData *record = newAIOData();
    if (record == nullptr) return -1;
    record->readRequest = request;
    if (registerInput(request->fd, localReadCallback, record) == -1) {
        ErrnoGuard keep;
        freeAIOData(record);
        return -1;
    }
    return 0;
}

void AIOCancelRead(AIORequest *request) {
    AIOData *record = findAIODataForRead(request);
    if (record == nullptr) return;
    (void)registerInput(request->fd, nullptr, nullptr);  // in range: it was registered
    freeAIOData(record);
}
