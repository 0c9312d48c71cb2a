// The registry of children.
//
// Callbacks may change it while it is being worked through. A child's record is taken off its list
// before its callback runs and freed after it, and the lists are read from the head again.
//
// A pid may have two registrations, one by the program and one by the library itself, for a command
// of ZORsystem or ZORpopen. And the kernel gives a pid away again as soon as its process is reaped,
// maybe before the callback of that process has run: a report, or a command just started, then
// belongs to the new process.

#include "procs/procs_internal.h"

#include "support/guards.h"
#include "support/hash_table.h"

#include <cerrno>
#include <cstdlib>
#include <sys/wait.h>
#include <utility>

namespace {

// Registered and not yet reaped, in registration order.
constinit ListLink pidHead{&pidHead, &pidHead};
// Reaped, callback still to run, in the order of reaping.
constinit ListLink diedPidHead{&diedPidHead, &diedPidHead};
// The program's registrations in both lists, and the library's own in pidHead, by pid.
constinit HashTable<ChildRecord> registrations;
constinit HashTable<ChildRecord> ownChildren;
// The program's registrations whose callbacks are running, outermost first.
constinit ListLink calledHead{&calledHead, &calledHead};

void freeRegistration(ChildRecord *record) {
    (void)registrations.remove(record->pid);
    unlinkNode<ListLink>(record);
    std::free(record);
}

void setRegistration(ChildRecord *record, int pid, ChildDoneFunc callback, void *arg) {
    record->pid = pid;
    record->callback = callback;
    record->argument = arg;
}

// Moves a registration to those whose callbacks are to run.
void fileStatus(ChildRecord *record, const ChildStatus &status) {
    record->status = status;
    record->reaped = true;
    unlinkNode<ListLink>(record);
    appendToList(&diedPidHead, record);
}

// The outermost callback that is running for a child.
ChildRecord *findCalled(int pid) {
    for (ListLink *link = calledHead.next; link != &calledHead; link = link->next) {
        auto *record = static_cast<ChildRecord *>(link);
        if (record->pid == pid) return record;
    }
    return nullptr;
}

// Whether the last that is known of the record's child is that it has stopped. Until it is known to
// have ended, every report under its pid is its own.
bool hasStopped(const ChildRecord &record) {
    return (record.later.pid != 0 ? record.later : record.status).stopped != 0;
}

// A child may go on and end before the callback that is told of its stop has had the chance to
// register it again. The stop's record keeps the report for that.
void keepForCallback(ChildRecord *record, const ChildStatus &status) {
    if (record == nullptr || !hasStopped(*record)) return;
    record->later = status;
    record->kept = true;
}

bool isOwnChildNow(int pid) {
    siginfo_t info;
    return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WSTOPPED | WNOHANG | WNOWAIT) ==
           0;
}

// What was kept for a registration made now, or null.
const ChildStatus *takeKeptStatus(int pid) {
    ChildRecord *record = findCalled(pid);
    if (record == nullptr || !std::exchange(record->kept, false)) return nullptr;
    // A pid that is a child's again after its end was reaped is a new child's.
    if (record->later.stopped == 0 && isOwnChildNow(pid)) return nullptr;
    return &record->later;
}

void forgetChildren(ListLink *head) {
    while (!listIsEmpty(head)) {
        auto *record = static_cast<ChildRecord *>(head->next);
        if (record->own)
            unlistOwnChild(record);
        else
            freeRegistration(record);
    }
}

}  // namespace

int registerChild(int pid, ChildDoneFunc callback, void *arg) {
    ChildRecord *record = registrations.find(pid);
    if (callback == nullptr) {
        if (record != nullptr) {
            freeRegistration(record);
            return 0;
        }
        errno = ESRCH;
        return -1;
    }
    if (record != nullptr) {
        setRegistration(record, pid, callback, arg);
        return 0;
    }
    if (!registrations.reserve()) return -1;
    record = newRecord<ChildRecord>();
    if (record == nullptr) return -1;
    setRegistration(record, pid, callback, arg);
    registrations.insert(pid, record);
    appendToList(&pidHead, record);
    if (const ChildStatus *status = takeKeptStatus(pid)) fileStatus(record, *status);
    return 0;
}

bool iosched_lib::reserveOwnChild(void) {
    return ownChildren.reserve();
}

void iosched_lib::listOwnChild(ChildRecord *record, int pid, ChildDoneFunc callback, void *arg) {
    // A reaped record under this pid is an earlier process's: leave it. A live record cannot be
    // right: drop it.
    ChildRecord *stale = registrations.find(pid);
    if (stale != nullptr && !stale->reaped) freeRegistration(stale);
    if (ChildRecord *other = ownChildren.find(pid)) unlistOwnChild(other);
    *record = ChildRecord{};
    record->own = true;
    setRegistration(record, pid, callback, arg);
    ownChildren.insert(pid, record);
    appendToList(&pidHead, record);
}

void iosched_lib::unlistOwnChild(ChildRecord *record) {
    if (record->pid == 0) return;
    if (!record->reaped) (void)ownChildren.remove(record->pid);
    unlinkNode<ListLink>(record);
    record->pid = 0;
}

bool iosched_lib::anyChildRegistered(void) {
    return !listIsEmpty(&pidHead);
}

void iosched_lib::schedChildDied(int pid, const ChildStatus *status) {
    if (ChildRecord *own = ownChildren.remove(pid)) fileStatus(own, *status);
    ChildRecord *record = registrations.find(pid);
    if (record != nullptr && !record->reaped)
        fileStatus(record, *status);
    else
        keepForCallback(record != nullptr ? record : findCalled(pid), *status);
}

unsigned int iosched_lib::callRegisteredChildFuncs(void) {
    unsigned int called = 0;
    while (!listIsEmpty(&diedPidHead)) {
        auto *record = static_cast<ChildRecord *>(diedPidHead.next);
        ++called;
        if (record->own) {
            unlistOwnChild(record);
            record->callback(record->argument, &record->status);
            continue;  // not the registry's record any more
        }
        (void)registrations.remove(record->pid);
        unlinkNode<ListLink>(record);
        appendToList(&calledHead, record);
        record->callback(record->argument, &record->status);
        unlinkNode<ListLink>(record);
        std::free(record);
    }
    return called;
}

void iosched_lib::forgetAllChildren(void) {
    forgetChildren(&pidHead);
    forgetChildren(&diedPidHead);
    // The fork may have happened in these callbacks, which still run in the child.
    for (ListLink *link = calledHead.next; link != &calledHead; link = link->next)
        static_cast<ChildRecord *>(link)->pid = 0;
}

int buildStatus(const ChildStatus *status) {
    if (status->termSignal == 0) return status->exitCode << 8;
    if (status->stopped != 0) return (status->termSignal << 8) | 0x7f;
    if (status->coreDumped != 0) return status->termSignal | 0x80;
    return status->termSignal;
}
