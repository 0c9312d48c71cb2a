// Delayed calls: work put off to the start of the next pass.
//
// A run takes the whole queue as its batch before it calls anything, so a function that queues its
// own record again runs once per pass. The batch lives in the run's frame; runs nest when a function
// runs a pass, and all batches in progress hang on a chain so that a record still waiting in any of
// them is known to be waiting.

#include "sched/sched_internal.h"

#include "support/list.h"

namespace {

constinit DelayedCall delayedCalls{&delayedCalls, &delayedCalls, nullptr};

struct Batch {
    DelayedCall head;
    Batch *outer;  // the run whose function runs this one
};

// The innermost run in progress; null outside every run.
Batch *runningBatch = nullptr;

bool listHolds(const DelayedCall *head, const DelayedCall *call) {
    for (const DelayedCall *c = head->next; c != head; c = c->next)
        if (c == call) return true;
    return false;
}

// The record's own links are never asked: it may come with anything in them.
bool isWaiting(const DelayedCall *call) {
    if (listHolds(&delayedCalls, call)) return true;
    for (const Batch *batch = runningBatch; batch != nullptr; batch = batch->outer)
        if (listHolds(&batch->head, call)) return true;
    return false;
}

}  // namespace

void registerDelayedCall(DelayedCall *call) {
    if (!isWaiting(call)) appendToList(&delayedCalls, call);
}

int unRegisterDelayedCall(DelayedCall *call) {
    if (!listHolds(&delayedCalls, call)) return 0;
    unlinkNode(call);
    return 1;
}

int runDelayedCallQueue(void) {
    if (listIsEmpty(&delayedCalls)) return 0;
    Batch batch;
    takeWholeList(&delayedCalls, &batch.head);
    batch.outer = runningBatch;
    runningBatch = &batch;
    while (!listIsEmpty(&batch.head)) {
        DelayedCall *call = batch.head.next;
        unlinkNode(call);
        if (call->func != nullptr) call->func(call);  // may free the record
    }
    runningBatch = batch.outer;
    return 1;
}

// The queue is empty from load on, and a second start leaves it as it is.
int initDelayedCalls(void) {
    return 0;
}
