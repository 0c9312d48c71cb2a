// Running a command and waiting for it while the loop goes on.

#include "procs/procs_internal.h"

#include "iosched/sched.h"

#include <csignal>

namespace {

// Lives in the frame of the call that waits.
struct SystemWait {
    int32_t done;  // 0 until the child has ended
    ChildStatus status;
    OwnChild child;
};

void childdone(void *arg, const ChildStatus *status) {
    auto *wait = static_cast<SystemWait *>(arg);
    wait->status = *status;
    wait->done = 1;
}

// Ignores one signal until the end of the scope, and restores what was there. If catchSignal and
// sigaction report the same handler, the program installed it itself: it goes back with mask and
// flags, not as a loop callback.
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

int ZORsystem(const char *command) {
    SystemWait wait{};
    if (startOwnChild(&wait.child, nullptr, command, childdone, &wait) == -1) return -1;
    // Only now: the command keeps the dispositions that the program has outside this call.
    IgnoredSignal interrupt(SIGINT), quit(SIGQUIT);
    return waitForOwnChild(&wait.child, wait.done) ? buildStatus(&wait.status) : -1;
}
