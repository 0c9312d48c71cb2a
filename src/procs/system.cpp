// Running a command and waiting for it while the loop goes on.

#include "procs/procs_internal.h"

#include "sched/sched_internal.h"

#include <cerrno>
#include <unistd.h>

namespace {

// Lives in the frame of the call that waits.
struct SystemWait {
    int32_t done;  // 0 until the child has ended
    ChildStatus status;
};

void childdone(void *arg, const ChildStatus *status) {
    auto *wait = static_cast<SystemWait *>(arg);
    wait->status = *status;
    wait->done = 1;
}

// Ignores one signal until the end of the scope. A handler that the program installed past the
// library comes back with its mask and flags and not as a callback of the loop; the library's own
// process-level handler differs from the callback that catchSignal names.
class IgnoredSignal {
public:
    explicit IgnoredSignal(int sig) : sig_(sig) {
        (void)::sigaction(sig, nullptr, &action_);
        previous_ = catchSignal(sig, SIG_IGN);
    }
    ~IgnoredSignal() {
        if (action_.sa_handler != previous_) {
            (void)catchSignal(sig_, previous_);
            return;
        }
        (void)catchSignal(sig_, SIG_IGN);  // a callback set during the wait goes
        (void)::sigaction(sig_, &action_, nullptr);
    }
    IgnoredSignal(const IgnoredSignal &) = delete;
    IgnoredSignal &operator=(const IgnoredSignal &) = delete;

private:
    int sig_;
    struct sigaction action_ = {};
    SchedSignalFunc previous_ = nullptr;
};

}  // namespace

bool waitForOwnChild(const int32_t &done, pid_t owner) {
    (void)iosched(0);
    while (done == 0) {
        if (::getpid() != owner) {
            errno = ECHILD;
            return false;
        }
        (void)iosched(-1);  // -1 only says that a signal came, most likely the child's
    }
    return true;
}

int ZORsystem(const char *command) {
    const pid_t owner = ::getpid();
    ChildRecord *reserved = reserveChild();
    if (reserved == nullptr) return -1;
    // Let in now, SIGCHLD would reap a quick child before it is registered.
    (void)disableSignals();
    const pid_t pid = spawnProcess(nullptr, command);
    if (pid == -1) {
        dropReservation(reserved);
        return -1;
    }
    // Only now: the command keeps the dispositions that the program has outside this call.
    IgnoredSignal interrupt(SIGINT), quit(SIGQUIT);
    SystemWait wait{};
    commitChild(reserved, pid, childdone, &wait);
    return waitForOwnChild(wait.done, owner) ? buildStatus(&wait.status) : -1;
}
