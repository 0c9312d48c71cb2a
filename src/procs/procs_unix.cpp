// Reaping: turns SIGCHLD into termination records.
//
// One SIGCHLD may stand for several children, so a run collects every child of the process that has
// changed state, registered or not. It runs from the loop, never inside a signal handler, which is
// why a caller that registers a child before its next pass cannot lose the child's end.

#include "procs/procs_internal.h"

#include "sched/sched_internal.h"

#include <sys/wait.h>

namespace {

// status is what wait3 gave for the child. The usage is in the record already, all else is 0.
void fillStatus(ChildStatus *record, int pid, int status) {
    record->pid = pid;
    if (WIFSIGNALED(status)) {
        record->termSignal = WTERMSIG(status);
        record->coreDumped = status & 0x80;
    } else if (WIFSTOPPED(status)) {
        record->stopped = 1;
        record->termSignal = WSTOPSIG(status);
    } else {
        record->exitCode = WEXITSTATUS(status);
    }
}

}  // namespace

void iosched_lib::schedChildDone(int /*sig*/) {
    for (;;) {
        ChildStatus record{};
        int status = 0;
        const pid_t pid = ::wait3(&status, WNOHANG | WUNTRACED, &record.usage);
        if (pid <= 0) break;  // nobody left who has changed state, or no child at all
        fillStatus(&record, pid, status);
        schedChildDied(pid, &record);
    }
    (void)callRegisteredChildFuncs();
}

int iosched_lib::initProcesses(void) {
    if (catchSignal(SIGCHLD, schedChildDone) == SIG_ERR) return -1;
    // Nobody caught the signals of children that were registered earlier. It is blocked now, so the
    // first pass will see it.
    if (anyChildRegistered()) (void)::raise(SIGCHLD);
    return 0;
}
