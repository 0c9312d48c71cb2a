// The fork hooks, and the fork that runs them.
//
// Hooks may register and remove hooks while they are being walked, and may fork themselves: a hook
// that is removed during a walk only loses its function, and is freed when the outermost walk ends.

#include "procs/procs_internal.h"

#include "sched/sched_internal.h"
#include "support/guards.h"

#include <cerrno>
#include <cstdlib>
#include <unistd.h>

namespace {

struct ForkHook : ListLink {
    ForkHookFunc function;  // null: removed during a walk, freed when the walk ends
    void *argument;
};

// The fork hooks, in registration order.
constinit ListLink forkHead{&forkHead, &forkHead};
// Walks of the hook table that are active: a hook may itself fork. No hook is freed before it is 0.
int forkHeadBusy = 0;

void freeHook(ForkHook *hook) {
    unlinkNode<ListLink>(hook);
    std::free(hook);
}

void sweepForkHooks() {
    for (ListLink *link = forkHead.next; link != &forkHead;) {
        auto *hook = static_cast<ForkHook *>(link);
        link = link->next;
        if (hook->function == nullptr) freeHook(hook);
    }
}

}  // namespace

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
            freeHook(hook);
        return 0;
    }
    errno = ESRCH;
    return -1;
}

void iosched_lib::applyForkTab(int phase, int value) {
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
