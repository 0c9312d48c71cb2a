// Asynchronous writes: one write per readiness of the descriptor.

#include "aio/aio_internal.h"

#include "iosched/sched.h"
#include "support/guards.h"

#include <cerrno>
#include <unistd.h>

void localWriteCallback(void *arg, int fd) {
    auto *record = static_cast<AIOData *>(arg);
    AIORequest *request = record->writeRequest;
    const ssize_t count = ::write(request->fd, request->buffer, request->length);
    if (!finishedByTransfer(record, request, count)) return;
    freeAIOData(record);
    (void)registerOutput(fd, nullptr, nullptr);  // in range: the loop has just called for it
}

int AIOWrite(AIORequest *request) {
    if (findAIODataForWrite(request) != nullptr) {
        errno = EALREADY;
        return -1;
    }
    AIOData *record = newAIOData();
    if (record == nullptr) return -1;
    record->writeRequest = request;
    if (registerOutput(request->fd, localWriteCallback, record) == -1) {
        ErrnoGuard keep;
        freeAIOData(record);
        return -1;
    }
    return 0;
}

void AIOCancelWrite(AIORequest *request) {
    AIOData *record = findAIODataForWrite(request);
    if (record == nullptr) return;
    (void)registerOutput(request->fd, nullptr, nullptr);  // in range: it was registered
    freeAIOData(record);
}
