// The records behind asynchronous reads and writes.
#pragma once

#include "iosched/aio.h"

#include "support/list.h"

// One active request. Records are pooled and never freed, so that a callback can still ask its
// record for the generation after the completion function has given it back.
struct AIOData : ListLink {
    uint32_t generation;      // counts releases; never reset
    AIORequest *readRequest;  // exactly one of the two is set while the record is active
    AIORequest *writeRequest;
};

// Records of active requests, in the order of starting.
extern ListLink aioQueueHead;
// Released records; taken from the head.
extern ListLink aioQueueFree;

int initAsyncIO(void);

// Takes a record from the pool, or makes one, and lists it as active. Null with errno ENOMEM.
AIOData *newAIOData(void);

// Gives an active record back to the pool; null is ignored.
void freeAIOData(AIOData *record);

// The active record of a request, or null.
AIOData *findAIODataForRead(const AIORequest *request);
AIOData *findAIODataForWrite(const AIORequest *request);

// Reports one transfer (what read or write returned, with errno) to the completion function.
// Returns true when the request is finished and its record still to be released.
bool finishedByTransfer(const AIOData *record, AIORequest *request, ssize_t count);

// The callbacks in the descriptor table; arg is the AIOData.
void localReadCallback(void *arg, int fd);
void localWriteCallback(void *arg, int fd);
