// The records behind asynchronous reads and writes.
#pragma once

#include "iosched/aio.h"

#include "iosched/sched.h"
#include "support/hash_table.h"
#include "support/list.h"

namespace iosched_lib {

// One started request. Records are pooled and never freed, so that a callback can still ask its
// record for the generation after the completion function has given it back.
//
// A request is active while its record is listed and the descriptor's callback is the record's. The
// program, or another request, may take that place; the record then stays listed, is used again
// when the request is started again, and goes back when it is cancelled.
struct AIOData : ListLink {
    uint32_t generation;      // counts releases; never reset
    AIORequest *readRequest;  // exactly one of the two is set while the record is listed
    AIORequest *writeRequest;
    int32_t fd;  // where it was registered; a request's own field may be another one's by now
};

// Records of started requests, in the order of starting.
extern ListLink aioQueueHead;
// Released records; taken from the head.
extern ListLink aioQueueFree;

int initAsyncIO(void);

// Takes a record from the pool, or makes one, and lists it. Null with errno ENOMEM.
AIOData *newAIOData(void);

// Gives a listed record back to the pool; null is ignored.
void freeAIOData(AIOData *record);

// The listed record of a request, or null.
AIOData *findAIODataForRead(const AIORequest *request);
AIOData *findAIODataForWrite(const AIORequest *request);

// What reads and writes differ in.
struct AIODirection {
    AIORequest *AIOData::*request;
    HashTable<AIOData> *records;  // listed ones by their request
    int (*setCallback)(int fd, SchedIOFunc func, void *arg);
    bool (*hasCallback)(int fd, SchedIOFunc func, const void *arg);
    SchedIOFunc callback;  // arg is the AIOData
    ssize_t (*transfer)(const AIORequest *request);
};
extern const AIODirection kAIORead, kAIOWrite;

// AIORead() and AIOCancelRead(), or the same for a write.
int startRequest(const AIODirection &direction, AIORequest *request);
void cancelRequest(const AIODirection &direction, const AIORequest *request);

// What the loop calls when the descriptor is ready: makes one transfer and reports it.
void runRequest(const AIODirection &direction, AIOData *record, int fd);

}  // namespace iosched_lib

using namespace iosched_lib;
