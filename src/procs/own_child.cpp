// Commands that a function of the library starts and waits for: what ZORsystem and ZORpopen share.

#include "procs/procs_internal.h"

#include "sched/sched_internal.h"
#include "support/guards.h"

#include <cerrno>
#include <csignal>
#include <unistd.h>

namespace {

// Keeps SIGCHLD blocked until the end of the scope, and puts the mask back as it was.
class ChildSignalBlock {
public:
    ChildSignalBlock() {
        sigset_t childSignal;
        (void)sigemptyset(&childSignal);
        (void)sigaddset(&childSignal, SIGCHLD);
        (void)::pthread_sigmask(SIG_BLOCK, &childSignal, &former_);
    }
    ~ChildSignalBlock() {
        ErrnoGuard keep;  // a handler that was held back runs now
        (void)::pthread_sigmask(SIG_SETMASK, &former_, nullptr);
    }
    ChildSignalBlock(const ChildSignalBlock &) = delete;
    ChildSignalBlock &operator=(const ChildSignalBlock &) = delete;

private:
    sigset_t former_;
};

}  // namespace

int iosched_lib::startOwnChild(OwnChild *child, const SpawnOptions *options, const char *command,
                               ChildDoneFunc callback, void *arg) {
    if (!reserveOwnChild()) return -1;
    // Where the program lets signals in, SIGCHLD would reap a quick child before it is registered.
    const ChildSignalBlock untilRegistered;
    const pid_t pid = spawnProcess(options, command);
    if (pid == -1) return -1;
    child->owner = ::getpid();
    listOwnChild(&child->record, pid, callback, arg);
    return 0;
}

bool iosched_lib::waitForOwnChild(OwnChild *child, const int32_t &done) {
    (void)iosched(0);
    for (;;) {
        // A callback may have let signals in. SIGCHLD arriving between the look at the flag and the
        // wait would then run the child's callback here, and leave nothing to end the wait.
        (void)disableSignals();
        if (done != 0) return true;
        if (::getpid() != child->owner) break;
        (void)iosched(-1);  // -1 only says that a signal came, most likely the child's
    }
    // A plain fork has copied the registration, which points into memory of the caller.
    unlistOwnChild(&child->record);
    errno = ECHILD;
    return false;
}
