// The registry of children and the fork hooks.
//
// Both are lists that callbacks may change while they are being walked. A child's record is unlinked
// before its callback runs and freed after it, and the walk starts from the head again; a fork hook
// that is removed during a walk only loses its function, and is freed when the outermost walk ends.

#include "procs/procs_internal.h"

#include "sched/sched_internal.h"
#include "support/guards.h"
#include "support/list.h"

#include <cerrno>
#include <cstdlib>
#include <unistd.h>

struct ChildRecord : ListLink {
    int32_t pid;  // at most one record per pid in each list
    ChildDoneFunc callback;
    void *argument;
    ChildStatus status;  // filled in when the child is reaped
};

namespace {

struct ForkHook : ListLink {
    ForkHookFunc function;  // null: removed during a walk, freed when the walk ends
    void *argument;
};

// Registered and not yet reaped, in registration order.
constinit ListLink pidHead{&pidHead, &pidHead};
// Reaped, callback still to run, in the order of reaping.
constinit ListLink diedPidHead{&diedPidHead, &diedPidHead};
// The fork hooks, in registration order.
constinit ListLink forkHead{&forkHead, &forkHead};
// Walks of the hook table that are active: a hook may itself fork. No hook is freed before it is 0.
int forkHeadBusy = 0;

void freeRecord(ListLink *record) {
    unlinkNode(record);
    std::free(record);
}

ChildRecord *findChild(ListLink *head, int pid) {
    for (ListLink *link = head->next; link != head; link = link->next) {
        auto *record = static_cast<ChildRecord *>(link);
        if (record->pid == pid) return record;
    }
    return nullptr;
}

// Gives the child's record, reaped or not, another callback. False when there is none.
bool changeRegistration(int pid, ChildDoneFunc callback, void *arg) {
    ChildRecord *record = findChild(&pidHead, pid);
    if (record == nullptr) record = findChild(&diedPidHead, pid);
    if (record == nullptr) return false;
    if (callback == nullptr) {
        freeRecord(record);
        return true;
    }
    record->callback = callback;
    record->argument = arg;
    return true;
}

void listChild(ChildRecord *record, int pid, ChildDoneFunc callback, void *arg) {
    record->pid = pid;
    record->callback = callback;
    record->argument = arg;
    appendToList(&pidHead, record);
}

void freeChildren(ListLink *head) {
    while (!listIsEmpty(head))
        freeRecord(static_cast<ChildRecord *>(head->next));
}

void sweepForkHooks() {
    for (ListLink *link = forkHead.next; link != &forkHead;) {
        auto *hook = static_cast<ForkHook *>(link);
        link = link->next;
        if (hook->function == nullptr) freeRecord(hook);
    }
}

}  // namespace

int registerChild(int pid, ChildDoneFunc callback, void *arg) {
    if (changeRegistration(pid, callback, arg)) return 0;
    if (callback == nullptr) {
        errno = ESRCH;
        return -1;
    }
    ChildRecord *record = reserveChild();
    if (record == nullptr) return -1;
    listChild(record, pid, callback, arg);
    return 0;
}

ChildRecord *reserveChild(void) {
    return newRecord<ChildRecord>();
}

void commitChild(ChildRecord *reserved, int pid, ChildDoneFunc callback, void *arg) {
    // A record of a reaped child belongs to an earlier process with the same number, whose status
    // and callback are not this one's.
    if (ChildRecord *stale = findChild(&pidHead, pid)) freeRecord(stale);
    listChild(reserved, pid, callback, arg);
}

void dropReservation(ChildRecord *reserved) {
    ErrnoGuard keep;
    std::free(reserved);
}

void schedChildDied(int pid, const ChildStatus *status) {
    ChildRecord *record = findChild(&pidHead, pid);
    if (record == nullptr) return;
    record->status = *status;
    unlinkNode<ListLink>(record);
    appendToList(&diedPidHead, record);
}

unsigned int callRegisteredChildFuncs(void) {
    unsigned int called = 0;
    while (!listIsEmpty(&diedPidHead)) {
        auto *record = static_cast<ChildRecord *>(diedPidHead.next);
        unlinkNode<ListLink>(record);
        ++called;
        record->callback(record->argument, &record->status);
        std::free(record);
    }
    return called;
}

int buildStatus(const ChildStatus *status) {
    if (status->termSignal == 0) return status->exitCode << 8;
    if (status->stopped != 0) return (status->termSignal << 8) | 0x7f;
    if (status->coreDumped != 0) return status->termSignal | 0x80;
    return status->termSignal;
}

int registerFork(ForkHookFunc function, void *arg) {
    if (function == nullptr) {  // would stand for a removed hook
        errno = EINVAL;
        return -1;
    }
    auto *hook = newRecord<ForkHook>();
    if (hook == nullptr) return -1;
    hook->function = function;
    hook->argument = arg;
    appendToList(&forkHead, hook);
    return 0;
}

int unRegisterFork(ForkHookFunc function, void *arg) {
    for (ListLink *link = forkHead.next; link != &forkHead; link = link->next) {
        auto *hook = static_cast<ForkHook *>(link);
        if (function == nullptr || hook->function != function || hook->argument != arg) continue;
        if (forkHeadBusy != 0)
            hook->function = nullptr;
        else
            freeRecord(hook);
        return 0;
    }
    errno = ESRCH;
    return -1;
}

void applyForkTab(int phase, int value) {
    ++forkHeadBusy;
    for (ListLink *link = forkHead.next; link != &forkHead; link = link->next) {
        auto *hook = static_cast<ForkHook *>(link);
        if (hook->function == nullptr) continue;
        // Asked anew each time: where a hook forks, the grandchild goes on with its parent's walk.
        if (phase == FORK_CHILD) value = ::getpid();
        hook->function(hook->argument, phase, value);
    }
    --forkHeadBusy;
    if (forkHeadBusy == 0) sweepForkHooks();
}

void forgetAllChildren(void) {
    freeChildren(&pidHead);
    freeChildren(&diedPidHead);
}

pid_t ioFork(void) {
    applyForkTab(FORK_PREPARE, -1);
    const pid_t pid = ::fork();
    if (pid == -1) {
        ErrnoGuard keep;  // the hooks may fail at things of their own
        applyForkTab(FORK_FAILED, errno);
        return -1;
    }
    if (pid > 0) {
        applyForkTab(FORK_PARENT, pid);
        return pid;
    }
    forgetAllChildren();
    (void)afterForkChildSelfPipe();  // where it fails, the child's passes try again
    applyForkTab(FORK_CHILD, ::getpid());
    return 0;
}
