// The records of requests, and what reads and writes have in common, which is nearly all.

#include "aio/aio_internal.h"

#include "support/guards.h"

#include <cerrno>

constinit ListLink iosched_lib::aioQueueHead{&aioQueueHead, &aioQueueHead};
constinit ListLink iosched_lib::aioQueueFree{&aioQueueFree, &aioQueueFree};

namespace {

bool isActive(const AIODirection &direction, const AIOData *record) {
    return direction.hasCallback(record->fd, direction.callback, record);
}

// A record for a request that has none, ready to be found. Null with errno ENOMEM.
AIOData *listRequest(const AIODirection &direction, AIORequest *request) {
    if (!direction.records->reserve()) return nullptr;
    AIOData *record = newAIOData();
    if (record == nullptr) return nullptr;
    record->*direction.request = request;
    direction.records->insert(request, record);
    return record;
}

// Reports one transfer to the completion function. True when the request is finished and its record
// still to be released.
bool finishedByTransfer(const AIOData *record, AIORequest *request, ssize_t count) {
    request->transferred = count == -1 ? 0 : count;
    request->error = count == -1 ? errno : 0;
    // The completion function may cancel the request, free it, and start another one that gets this
    // very record: then neither the record nor the descriptor's slot is this transfer's any more.
    const uint32_t generation = record->generation;
    if (request->callback(request) != 0) return false;
    return record->generation == generation;
}

}  // namespace

// The lists are empty from load on. A second start leaves them as they are: the descriptor table
// still has the active records as arguments.
int iosched_lib::initAsyncIO(void) {
    return 0;
}

AIOData *iosched_lib::newAIOData(void) {
    AIOData *record = nullptr;
    if (!listIsEmpty(&aioQueueFree)) {
        record = static_cast<AIOData *>(aioQueueFree.next);
        unlinkNode<ListLink>(record);
    } else {
        record = newRecord<AIOData>();
        if (record == nullptr) return nullptr;
    }
    appendToList(&aioQueueHead, record);
    return record;
}

void iosched_lib::freeAIOData(AIOData *record) {
    if (record == nullptr) return;
    unlinkNode<ListLink>(record);
    for (const AIODirection *direction : {&kAIORead, &kAIOWrite}) {
        AIORequest *&request = record->*direction->request;
        if (request != nullptr) (void)direction->records->remove(request);
        request = nullptr;
    }
    ++record->generation;
    appendToList(&aioQueueFree, record);
}

AIOData *iosched_lib::findAIODataForRead(const AIORequest *request) {
    return kAIORead.records->find(request);
}

AIOData *iosched_lib::findAIODataForWrite(const AIORequest *request) {
    return kAIOWrite.records->find(request);
}

int iosched_lib::startRequest(const AIODirection &direction, AIORequest *request) {
    AIOData *record = direction.records->find(request);
    if (record != nullptr && isActive(direction, record)) {
        errno = EALREADY;
        return -1;
    }
    if (record == nullptr) record = listRequest(direction, request);
    if (record == nullptr) return -1;
    record->fd = request->fd;
    if (direction.setCallback(request->fd, direction.callback, record) == -1) {
        ErrnoGuard keep;
        freeAIOData(record);
        return -1;
    }
    return 0;
}

void iosched_lib::cancelRequest(const AIODirection &direction, const AIORequest *request) {
    AIOData *record = direction.records->find(request);
    if (record == nullptr) return;
    // Somebody else's callback stays.
    if (isActive(direction, record)) (void)direction.setCallback(record->fd, nullptr, nullptr);
    freeAIOData(record);
}

void iosched_lib::runRequest(const AIODirection &direction, AIOData *record, int fd) {
    AIORequest *request = record->*direction.request;
    const ssize_t count = direction.transfer(request);
    if (count == -1 && errno == EAGAIN) return;  // somebody else was faster
    if (!finishedByTransfer(record, request, count)) return;
    // Unless the request lost this place during its completion and was started again elsewhere: the
    // record is then the argument of that descriptor's callback.
    if (record->fd == fd || !isActive(direction, record)) freeAIOData(record);
    (void)direction.setCallback(fd, nullptr, nullptr);  // in range: the loop has just called for it
}
