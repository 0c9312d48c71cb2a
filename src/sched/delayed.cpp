// Delayed calls: work put off to the start of the next pass.
//
// A run takes the whole queue as its batch before it calls anything, so a function that queues its
// own record again runs once per pass. The batch lies in the run's frame; runs nest when a function
// runs a pass, and all batches in progress hang on a chain so that a record still waiting in any of
// them is known to be waiting.
//
// Records wait in an array, and each one's link holds its place there. The link proves nothing by
// itself, since a record may come with anything in it: a record waits where the array has it at
// that place. One that is taken out leaves a hole. Queuing never fails: where the array finds no
// memory, records go to a list behind it, and so do all that follow until their batch is run.

#include "sched/sched_internal.h"

#include "support/list.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <utility>

namespace {

struct CallArray {
    DelayedCall **calls;  // null: a hole
    size_t capacity;
};

// The records that wait together, in the order of queuing: those of the array, then those of the
// list.
struct Batch {
    CallArray array;
    size_t used;     // places of the array that are taken, holes included
    size_t waiting;  // records in the array
    DelayedCall list;
    Batch *outer;  // the run whose function runs this one
};

constexpr size_t kFirstCapacity = 16;

// The arrays to begin with; larger ones come from the heap.
DelayedCall *firstCalls[2][kFirstCapacity];

constinit Batch queue{
    {firstCalls[0], kFirstCapacity}, 0, 0, {&queue.list, &queue.list, nullptr}, nullptr};
// For the queue to go on with while its array is a batch's.
constinit CallArray spareArray{firstCalls[1], kFirstCapacity};
// The innermost run in progress; null outside every run.
Batch *runningBatch = nullptr;

// Where a batch's array has the record; null where it has not.
DelayedCall **findCall(const Batch &batch, const DelayedCall *call) {
    const auto place = reinterpret_cast<uintptr_t>(call->next);
    return place < batch.used && batch.array.calls[place] == call ? &batch.array.calls[place]
                                                                  : nullptr;
}

bool listHolds(const Batch &batch, const DelayedCall *call) {
    for (const DelayedCall *c = batch.list.next; c != &batch.list; c = c->next)
        if (c == call) return true;
    return false;
}

bool isWaiting(const DelayedCall *call) {
    if (findCall(queue, call) != nullptr || listHolds(queue, call)) return true;
    for (const Batch *batch = runningBatch; batch != nullptr; batch = batch->outer)
        if (findCall(*batch, call) != nullptr || listHolds(*batch, call)) return true;
    return false;
}

void place(DelayedCall *call, size_t at) {
    queue.array.calls[at] = call;
    call->next = std::bit_cast<DelayedCall *>(at);
}

// Moves the records of the queue over its holes.
void closeHoles() {
    size_t kept = 0;
    for (size_t i = 0; i < queue.used; ++i)
        if (queue.array.calls[i] != nullptr) place(queue.array.calls[i], kept++);
    queue.used = kept;
}

// Makes room in the queue's array for one record. False when there is no memory.
bool reserveCall() {
    CallArray &array = queue.array;
    if (queue.used < array.capacity) return true;
    if (array.capacity == 0 && spareArray.capacity > 0) {
        array = std::exchange(spareArray, CallArray{});
        return true;
    }
    if (2 * queue.waiting < queue.used) {
        closeHoles();
        return true;
    }
    const bool isFirst = array.capacity <= kFirstCapacity;
    const size_t capacity = 2 * (isFirst ? kFirstCapacity : array.capacity);
    auto *grown = static_cast<DelayedCall **>(
        ::reallocarray(isFirst ? nullptr : array.calls, capacity, sizeof(DelayedCall *)));
    if (grown == nullptr) return false;
    if (isFirst) std::copy_n(array.calls, queue.used, grown);
    array = {grown, capacity};
    return true;
}

bool isEmpty(const Batch &batch) {
    return batch.waiting == 0 && listIsEmpty(&batch.list);
}

// Moves what is queued to a batch of its own.
void takeQueue(Batch *batch) {
    batch->array = std::exchange(queue.array, CallArray{});
    batch->used = std::exchange(queue.used, 0);
    batch->waiting = std::exchange(queue.waiting, 0);
    takeWholeList(&queue.list, &batch->list);
}

// Keeps a batch's array for the queue, or the larger of two as the spare one, so that a steady flow
// of calls allocates nothing.
void giveArrayBack(CallArray array) {
    if (queue.array.capacity == 0)
        std::swap(array, queue.array);
    else if (array.capacity > spareArray.capacity)
        std::swap(array, spareArray);
    if (array.capacity > kFirstCapacity) std::free(array.calls);
}

void call(DelayedCall *record) {
    if (record->func != nullptr) record->func(record);  // may free the record
}

}  // namespace

void registerDelayedCall(DelayedCall *call) {
    if (isWaiting(call)) return;
    if (!listIsEmpty(&queue.list) || !reserveCall()) {
        appendToList(&queue.list, call);
        return;
    }
    place(call, queue.used++);
    ++queue.waiting;
}

int unRegisterDelayedCall(DelayedCall *call) {
    if (DelayedCall **place = findCall(queue, call)) {
        *place = nullptr;
        if (--queue.waiting == 0) queue.used = 0;
        return 1;
    }
    if (!listHolds(queue, call)) return 0;
    unlinkNode(call);
    return 1;
}

int runDelayedCallQueue(void) {
    if (isEmpty(queue)) return 0;
    Batch batch;
    takeQueue(&batch);
    batch.outer = runningBatch;
    runningBatch = &batch;
    for (size_t i = 0; i < batch.used; ++i)
        if (DelayedCall *record = std::exchange(batch.array.calls[i], nullptr)) call(record);
    while (!listIsEmpty(&batch.list)) {
        DelayedCall *record = batch.list.next;
        unlinkNode(record);
        call(record);
    }
    runningBatch = batch.outer;
    giveArrayBack(batch.array);
    return 1;
}

// The queue is empty from load on, and a second start leaves it as it is.
int iosched_lib::initDelayedCalls(void) {
    return 0;
}
