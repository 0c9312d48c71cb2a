// The pool of request records, and what reads and writes have in common.

#include "aio/aio_internal.h"

#include "support/guards.h"

#include <cerrno>

constinit ListLink aioQueueHead{&aioQueueHead, &aioQueueHead};
constinit ListLink aioQueueFree{&aioQueueFree, &aioQueueFree};

// The lists are empty from load on. A second start leaves them as they are: the descriptor table still
// has the active records as arguments.
int initAsyncIO(void) {
    return 0;
}

AIOData *newAIOData(void) {
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

void freeAIOData(AIOData *record) {
    if (record == nullptr) return;
    unlinkNode<ListLink>(record);
    record->readRequest = nullptr;
    record->writeRequest = nullptr;
    ++record->generation;
    appendToList(&aioQueueFree, record);
}

AIOData *findAIODataForRead(const AIORequest *request) {
    for (ListLink *link = aioQueueHead.next; link != &aioQueueHead; link = link->next) {
        auto *record = static_cast<AIOData *>(link);
        if (record->readRequest == request) return record;
    }
    return nullptr;
}

AIOData *findAIODataForWrite(const AIORequest *request) {
    for (ListLink *link = aioQueueHead.next; link != &aioQueueHead; link = link->next) {
        auto *record = static_cast<AIOData *>(link);
        if (record->writeRequest == request) return record;
    }
    return nullptr;
}

bool finishedByTransfer(const AIOData *record, AIORequest *request, ssize_t count) {
    if (count == -1 && errno == EAGAIN) return false;  // somebody else was faster
    request->transferred = count == -1 ? 0 : count;
    request->error = count == -1 ? errno : 0;
    // The completion function may cancel the request, free it, and start another one that gets this
    // very record: then neither the record nor the descriptor's slot is this transfer's any more.
    const uint32_t generation = record->generation;
    if (request->callback(request) != 0) return false;
    return record->generation == generation;
}
